"""Tells a story that happens in the lab: each step is waited for, checked and then narrated.

A step that is not seen in time, or not as it has to be, ends the story with `Failed`.
"""

import asyncio
import json
import time
from collections.abc import Awaitable, Callable
from typing import Any, Optional

from lab.desk import Desk, Failed, Outcome
from lab.journal import Event, WaitTimeout
from lab.lab import Lab

_TICK_SECONDS = 0.05
_MARGIN = 10
"""Characters in front of a line that has no time."""


class Narrator:
    """The teller: the lab, how much faster the device's clock runs, and until when it must end."""

    def __init__(self, lab: Lab, line: Callable[[str], None], speed: float, limit: float) -> None:
        """`limit` is in seconds of the real clock and counts from now."""
        self.lab = lab
        self._line = line
        self._speed = speed
        self._limit = limit
        self._began = time.time()
        self._deadline = time.monotonic() + limit
        self._turn = asyncio.Lock()
        self._told = self._began

    # -- telling ----------------------------------------------------------------------------

    def _minutes(self, wall: float) -> str:
        """Minutes and seconds that have passed on the device since the story began."""
        passed = int((wall - self._began) * self._speed)
        return f"{passed // 60:02d}:{passed % 60:02d}"

    def say(self, text: str, event: Optional[Event] = None) -> None:
        """A step, at the device's time of the event (without one: now); more lines are indented."""
        # The log is read a moment after it was written, so what is told next may be older.
        self._told = max(self._told, event.wall if event else time.time())
        first, *rest = text.splitlines()
        self._line(f"{self._minutes(self._told):>{_MARGIN - 2}}  {first}")
        for line in rest:
            self.aside(line)

    def aside(self, text: str) -> None:
        """A line that belongs to the step before."""
        self._line(" " * _MARGIN + text)

    # -- seeing -----------------------------------------------------------------------------

    @property
    def left(self) -> float:
        """Seconds that the story may still take."""
        return self._deadline - time.monotonic()

    def _not_seen(self, what: str) -> Failed:
        return Failed(f"not seen within {self._limit:g} s: {what}")

    def wait(self, kind: str, what: str, since: int,
             fits: Callable[[Event], bool] = lambda event: True) -> Event:
        """The first event of this kind that fits, from position `since` of the journal on."""
        try:
            return self.lab.journal.wait(kind, fits, max(self.left, 0), since, take=False)
        except WaitTimeout:
            raise self._not_seen(what) from None

    def logged(self, text: str, since: int) -> Event:
        """The first line of the agent's log with this text."""
        return self.wait("log", f"the agent's log line {text!r}", since,
                         lambda event: text in event["message"])

    def until(self, what: str, condition: Callable[[], bool]) -> None:
        """Waits for what shows on the device only."""
        while not condition():
            if self.left <= 0:
                raise self._not_seen(what)
            time.sleep(_TICK_SECONDS)

    def check(self, condition: bool, what: str) -> None:
        """Ends the story unless the condition holds."""
        if not condition:
            raise Failed(f"not as it has to be: {what}")

    def command(self, command: Callable[..., Awaitable[Outcome]], **arguments: Any) -> Outcome:
        """Gives a command to the controller and shows the messages it makes."""
        async def tell(what: dict[str, Any]) -> None:
            if what["kind"] in ("sent", "received"):
                self.aside(_in_short(what))

        seconds = max(self.left, 1)
        desk = Desk(self.lab, self._turn, tell, seconds)
        return self.lab.world.wait(command(desk, **arguments), seconds + 5)


def _in_short(what: dict[str, Any]) -> str:
    """A message by its number and its texts."""
    message = json.loads(what["text"])
    arrow = "controller --->" if what["kind"] == "sent" else "controller <---"
    words = ": ".join(str(message[name]) for name in ("code", "status", "message")
                      if name in message)
    return f"{arrow} {what['number']} {what['name']} {words}".rstrip()
