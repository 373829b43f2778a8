"""How the device is, followed from the lab's events: the record that the console shows of it."""

from collections.abc import Callable
from typing import Any

from lab import liveview, network
from lab.controller import REGISTER, REGISTER_SUCCESS
from lab.desk import told
from lab.journal import Event
from lab.lab import Lab

REGISTER_FAILED = 700
STATS_REQUEST, STATS_STOP = 103, 105
_TRIALS = {
    "Starting cfg_restore_timer": ("waiting", "The new configuration has cut the device off. "
                                   "It goes back after ten minutes of the device's clock."),
    "deleting the cfg_restore_timer": ("kept", "The controller was reached again: the new "
                                       "configuration stays."),
    "Reverting to last known good configuration": ("reverting", "Ten minutes without the "
                                                   "controller: the device puts the old "
                                                   "configuration back and reboots."),
    "Configuration rejected, restoring last good": ("rejected", "The device refused the "
                                                    "configuration and restored the old one."),
}
"""What the agent logs about a configuration that has yet to prove itself."""
_DISCONNECTED = f" {liveview.STATES.index('DISCONNECTED')}"
_VERSIONS = {"active": "activeSwVersion", "inactive": "inActiveSwVersion", "agent": "daVersion",
             "hardware": "hwVersion", "configuration": "configVersion"}
_FACTS = {"name": "hostname", "product": "productName", "model": "model", "platform": "type",
          "serial": "serialNo", "address": "ipAddress", "parent": "pMAC", "session": "sessId"}


class Presence:
    """The record, and whom to tell of a new state. Call `follow` in one thread only."""

    def __init__(self, lab: Lab, on_state: Callable[[float, str, str], None]) -> None:
        """`on_state` gets the time, the state and its reason."""
        self._lab = lab
        self._on_state = on_state
        self.state, self.since, self.reason = "off", 0.0, "The agent has not been started yet."
        self._facts: dict[str, Any] = {}
        self._last_close: dict[str, Any] = {}
        self._shown = ""
        self._trial: dict[str, Any] = {}
        self._agent_since = 0.0
        self._booted = 0.0
        self._rebooting = False
        self._ping: dict[str, Any] = {}
        self._problems = 0

    def record(self) -> dict[str, Any]:
        """All that is known, as the page gets it."""
        controller, newest = self._lab.controller, self._lab.controller.newest
        return {
            "id": network.MACS["eth0"],
            "state": self.state, "since": self.since, "reason": self.reason,
            **{name: self._facts.get(member) for name, member in _FACTS.items()},
            "versions": {name: self._facts.get(member) for name, member in _VERSIONS.items()},
            "shown": self._shown,
            "connection": None if newest is None else {
                "number": newest.number, "accepted": newest.accepted, "path": newest.path,
                "query": newest.query_string, "remote": newest.request.remote},
            "connections": len(controller.connections),
            "agent": {"running": self._lab.supervisor.running, "since": self._agent_since,
                      "starts": self._lab.supervisor.starts},
            "booted": self._booted, "lastClose": self._last_close,
            "trial": self._trial, "ping": self._ping, "problems": self._problems,
            "standing": list(controller.standing.values()), "faults": self._lab.faults.active,
        }

    def follow(self, event: Event) -> bool:
        """Takes an event in; whether the record has changed."""
        handler = getattr(self, "_on_" + event.kind.replace("-", "_"), None)
        if handler is None:
            return False
        return handler(event) is not False

    def _enter(self, event: Event, state: str, reason: str) -> None:
        self.state, self.since, self.reason = state, event.wall, reason
        self._on_state(event.wall, state, reason)

    # -- the agent and the device -----------------------------------------------------------

    def _on_agent_started(self, event: Event) -> None:
        self._agent_since = event.wall
        self._booted = self._booted or event.wall
        self._rebooting = False
        self._enter(event, "lost", f"The agent has started (start {event['count']}) and looks "
                                   "for its controller.")

    def _on_agent_ended(self, event: Event) -> bool:
        if self._rebooting:
            return False
        status = event["status"]
        how = f"was ended by signal {-status}" if status < 0 else f"ended with status {status}"
        self._enter(event, "down", f"The agent {how}.")
        return True

    def _on_rebooting(self, event: Event) -> None:
        self._rebooting, self._shown = True, ""
        self._enter(event, "rebooting", "The device goes down to start anew.")

    def _on_rebooted(self, event: Event) -> None:
        self._booted = event.wall

    def _on_status(self, event: Event) -> None:
        self._shown = event["text"]

    def _on_fault(self, _event: Event) -> None:
        pass  # the record shows it

    def _on_problem(self, _event: Event) -> None:
        self._problems += 1

    def _on_log(self, event: Event) -> bool:
        message = event["message"]
        if (message.startswith("Previous state ") and message.endswith(_DISCONNECTED)
                and self.state in ("online", "registering")):
            self._enter(event, "lost", "The agent has given its connection up.")
            return True
        for text, (outcome, words) in _TRIALS.items():
            if text in message:
                self._trial = {"outcome": outcome, "text": words, "at": event.wall}
                return True
        return False

    # -- the connection ---------------------------------------------------------------------

    def _on_connected(self, event: Event) -> None:
        self._enter(event, "registering", f"Connection {event['connection'].number} is open; the "
                                          "device has yet to register.")

    def _on_disconnected(self, event: Event) -> None:
        connection = event["connection"]
        reason = event["reason"] or ("" if event["code"] else "no close frame")
        self._last_close = {"number": connection.number, "reason": reason, "code": event["code"],
                            "at": event.wall}
        newest = self._lab.controller.newest
        if newest is None and self.state in ("online", "registering"):
            how = (f'closed by the device, which gave the reason "{event["reason"]}"'
                   if event["code"] else "gone without a close frame")
            self._enter(event, "lost", f"Connection {connection.number} is {how}.")

    def _on_from_agent(self, event: Event) -> bool:
        if event["message"].get("msgType") != REGISTER:
            return False
        self._facts = event["message"]
        return True

    def _on_to_agent(self, event: Event) -> bool:
        connection, number = event["connection"], told(event)["number"]
        if number == REGISTER_FAILED:
            self._enter(event, "registering", "The controller has refused the registration.")
        elif number == REGISTER_SUCCESS and connection.open:
            self._registered(event)
        else:  # a periodic report may have been asked for, or ended
            return number in (STATS_REQUEST, STATS_STOP)
        return True

    def _registered(self, event: Event) -> None:
        if self._trial.get("outcome") == "reverting":
            self._trial = {"outcome": "reverted", "at": event.wall, "text":
                           "The device is back with the configuration that it had before."}
        self._enter(event, "online", f"Registered over connection {event['connection'].number}.")

    def _on_ping(self, event: Event) -> None:
        self._ping = {"at": event.wall, "answered": event["answered"]}
