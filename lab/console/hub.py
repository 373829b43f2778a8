"""Turns the lab's events into what the console keeps and shows, and hands it to every open page."""

import json
from collections.abc import Callable
from typing import Any, Optional

from lab import liveview, reports, schemas
from lab.commands import COMMANDS
from lab.console.history import History, Row, preview
from lab.console.presence import Presence
from lab.desk import told
from lab.journal import Event
from lab.lab import Lab

Item = dict[str, Any]
_MESSAGES = {"to-agent", "from-agent", "trap", "ping"}
_NO_HAPPENINGS = _MESSAGES | {"lldp", "wifid", "wifid-said"}
_HELLO_MESSAGES, _HELLO_HAPPENINGS, _HELLO_STATES = 300, 300, 200
_RECENT_LOG = 400


def _verdict(direction: str, text: str) -> list[list[str]]:
    """What the documents have against a message: pairs of a member and a reason."""
    try:
        schemas.check(direction, text)
    except schemas.SchemaError as error:
        return [list(problem) for problem in error.problems]
    return []


class Hub:
    """Everything that pages are told, in the loop of the lab's services.

    A page takes items with `join`: "device", "message", "happening", "state", "report", "log".
    """

    def __init__(self, lab: Lab) -> None:
        self._lab = lab
        self.history = History(lab.device.folder / "console.sqlite")
        self._presence = Presence(lab, self._enter)
        self._takers: set[Callable[[Item], None]] = set()
        self._position = 0

    # -- life -------------------------------------------------------------------------------

    def start(self) -> None:
        """Follows the lab from its first event on."""
        self._lab.journal.subscribe(self._wake)
        self._catch_up()

    def stop(self) -> None:
        """Follows no more."""
        self._lab.journal.unsubscribe(self._wake)
        self._takers.clear()

    def _wake(self, _event: Event) -> None:  # in the thread of whoever noted it
        self._lab.world.loop.call_soon_threadsafe(self._catch_up)

    def _catch_up(self) -> None:
        """Takes in what has been noted since the last time, in the journal's order."""
        for event in self._lab.journal.events(since=self._position):
            self._position = event.index + 1
            self._take(event)

    # -- pages ------------------------------------------------------------------------------

    def join(self, taker: Callable[[Item], None]) -> None:
        """Calls `taker` with every item from now on; it must not wait."""
        self._takers.add(taker)

    def leave(self, taker: Callable[[Item], None]) -> None:
        """Ends `join`."""
        self._takers.discard(taker)

    def hello(self) -> dict[str, Any]:
        """What a page shows first; the items that follow continue it."""
        newest = self.history.newest
        return {
            "lab": self._lab.device.folder.name, "devices": [self._presence.record()],
            "commands": sorted(COMMANDS),
            "messages": [preview(row) for row in newest("messages", _HELLO_MESSAGES)],
            "happenings": newest("happenings", _HELLO_HAPPENINGS),
            "states": newest("states", _HELLO_STATES)}

    def recent_log(self) -> list[Item]:
        """The last lines of the agent's log."""
        return [self._log_item(event) for event in self._lab.journal.events("log")[-_RECENT_LOG:]]

    def _tell(self, kind: str, item: Optional[Row]) -> None:
        for taker in list(self._takers):
            taker({"kind": kind, "item": item})

    # -- events -----------------------------------------------------------------------------

    def _take(self, event: Event) -> None:
        if event.kind == "log":
            self._tell("log", self._log_item(event))
        if event.kind in _MESSAGES:
            self._tell("message", preview(self._keep_message(event)))
        if event.kind == "from-agent" and event["message"].get("msgType") in reports.KINDS:
            message = event["message"]
            self._tell("report", {"at": event.wall, "number": message["msgType"],
                                  "slot": message.get("index"), "stats": message.get("stats")})
        if event.kind not in _NO_HAPPENINGS:
            self._happen(event)
        if self._presence.follow(event):
            self._tell("device", self._presence.record())

    @staticmethod
    def _log_item(event: Event) -> Item:
        return {"id": event.index, "at": event.wall, "line": event["line"]}

    def _happen(self, event: Event) -> None:
        shown = liveview.describe(event)
        if shown:
            self._tell("happening", self.history.add_happening(event.wall, shown[0], event.kind,
                                                               shown[1]))

    def _enter(self, when: float, state: str, reason: str) -> None:
        self._tell("state", self.history.add_state(when, state, reason))

    def _keep_message(self, event: Event) -> Row:
        connection = event["connection"].number
        if event.kind == "ping":
            text = event["payload"].decode("utf-8", "replace")
            return self.history.add_message(event.wall, text, [], direction="to-controller",
                                            number=None, name="ping", connection=connection)
        if event.kind == "trap":  # whatever a local program has said; nobody can judge it
            return self.history.add_message(
                event.wall, event["text"], None, direction="to-controller",
                number=_number(event["text"]), name="event", connection=connection)
        shown = told(event)
        direction = "to-agent" if event.kind == "to-agent" else "to-controller"
        return self.history.add_message(
            event.wall, event["text"], _verdict(direction, event["text"]), direction=direction,
            number=shown["number"], name=shown["name"], connection=connection)


def _number(text: str) -> Optional[int]:
    try:
        number = json.loads(text)["msgType"]
    except (ValueError, TypeError, KeyError):
        return None
    return number if isinstance(number, int) else None
