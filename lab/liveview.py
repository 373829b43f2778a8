"""Turns the lab's events into one short line each, for people to read while it runs."""

import json
import shutil
import sys
import threading
import time
from typing import Optional

from lab import schemas
from lab.faults import fault_words
from lab.journal import Event
from lab.wifid import ANSWER, CONNECTED_STATE, EVENT, REGISTRATION

STATES = ("IDLE", "DISCOVERY", "CONNECTING", "CONNECTED", "DISCONNECTED")
_WIDTH = 150
_COLOURS = {"state": "36", "out": "32", "in": "33", "bad": "31", "note": "2"}
_WIFID_HEARS = {ANSWER: "answer of the controller", CONNECTED_STATE: "controller connected"}
_WIFID_SAYS = {EVENT: "event", REGISTRATION: "registration"}
_LOG_NOTES = (
    "Attempting (re)connection", "Unable to", "Failed to resolve", "Not able to",
    "Discovered method", "Connected to Orvanta", "Sending REGISTER", "MSG_REGISTER_",
    "Not received PONG", "Missed 5", "Websocket rejected", "sighandler invoked",
    "Registration failed", "server's cert", "Server certificated validation failed",
    "Access Denied", "HTTPS_fw_dl: ", "Fire upgrade script", "Upload_log:",
)


def short(text: str) -> str:
    """A text on one line, cut to what fits."""
    text = " ".join(text.split())
    return text if len(text) <= _WIDTH else text[:_WIDTH - 3] + "..."


def _message(direction: str, text: str) -> str:
    """A protocol message in short: its number and name first."""
    try:
        number = json.loads(text).get("msgType")
    except (ValueError, AttributeError):
        number = "?"
    return f"{number} {schemas.name_of(direction, number)}: {short(text)}"


def describe(event: Event) -> Optional[tuple[str, str]]:
    """Colour name and line for an event, or None for what is not worth showing."""
    kind = event.kind
    if kind == "log":
        return _describe_log(event["message"])
    simple = {
        "from-agent": lambda: ("out", "agent ---> "
                                + _message("to-controller", event["text"])),
        "trap": lambda: ("out", "agent ---> event: " + short(event["text"])),
        "to-agent": lambda: ("in", "agent <--- " + _message("to-agent", event["text"])),
        "onboarding": lambda: ("out", f"agent <--> onboarding: answered {event['answer']} to "
                                      f"{event['text'].splitlines()[0]}"),
        "connected": lambda: ("note", f"websocket open: {event['connection']}"),
        "disconnected": lambda: ("note", "websocket closed by " + (
            f"close frame {event['code']} \"{event['reason']}\"" if event["code"]
            else "loss of the connection")),
        "upgrade-refused": lambda: ("note", f"websocket refused with HTTP {event['status']}"),
        "ping": lambda: ("note", "agent ---> ping " + event["payload"].decode(errors="replace")),
        "lldp": lambda: ("note", f"agent ---> LLDP on {event['interface']}"),
        "wifid": lambda: ("out", "agent ---> wifid " + _WIFID_HEARS.get(event["dest"], "?")
                          + f": {short(event['text'])}"),
        "wifid-said": lambda: ("in", "agent <--- wifid " + _WIFID_SAYS.get(event["dest"], "?")
                               + f": {short(event['text'])}"),
        "scan-request": lambda: ("out", "agent ---> wifid: scan"),
        "echo-request": lambda: ("note", f"agent ---> ping {event['sequence']} to the far host: "
                                 + ("lost" if event["fate"] is None
                                    else f"answered after {event['fate'] * 1000:.0f} ms")),
        "dhcp": lambda: ("note", f"DHCP: {event['text']}"),
        "status": lambda: ("state", f'status: "{short(event["text"])}"'),
        "agent-started": lambda: ("state", f"agent started (pid {event['pid']}, "
                                           f"start {event['count']})"),
        "agent-ended": lambda: ("bad", f"agent ended with status {event['status']}"
                                    + (f": {event['said']}" if event["said"] else "")),
        "reboot-requested": lambda: ("state", "the device asks for a reboot"),
        "rebooting": lambda: ("state", "device goes down"),
        "rebooted": lambda: ("state", "device is up again"),
        "fault": lambda: ("bad", "* " + fault_words(event)),
        "problem": lambda: ("bad", "PROBLEM: " + event["text"]),
    }
    return simple[kind]() if kind in simple else None


def _describe_log(message: str) -> Optional[tuple[str, str]]:
    if message.startswith("Previous state "):
        number = message.rsplit(" ", 1)[-1]
        name = STATES[int(number)] if number in tuple("01234") else f"?? ({number})"
        return "state", f"state: {name}"
    if any(note in message for note in _LOG_NOTES):
        return "note", f"log: {short(message)}"
    return None


class Printer:
    """Prints lines from several threads without mixing them; colour only on a terminal."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._colour = sys.stdout.isatty()

    def line(self, text: str, colour: str = "", stamp: bool = False) -> None:
        """Prints one line, with the time of day if `stamp`."""
        if stamp:
            now = time.time()
            text = time.strftime("%H:%M:%S", time.localtime(now)) + f".{int(now * 10) % 10} {text}"
        if stamp and sys.stdout.isatty():  # one line stays one line on the screen
            text = text[:shutil.get_terminal_size((_WIDTH, 24)).columns]
        if self._colour and colour:
            text = f"\033[{_COLOURS[colour]}m{text}\033[0m"
        with self._lock:
            print(text, flush=True)

    def event(self, event: Event) -> None:
        """Prints an event if it is worth it."""
        shown = describe(event)
        if shown:
            self.line(shown[1], shown[0], stamp=True)
