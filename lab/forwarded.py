"""Events of local programs at the controller: told apart from what the agent itself says.

The agent forwards whatever a program has sent, so the protocol's documents cannot judge it. Lab
and tests announce the bytes that they have a program send; these, and no others, are taken as they
are. Events of type 699 need no announcement: only local programs make them.
"""

import json
import threading
from collections import Counter

EVENT_SIZE = 2048
"""Bytes that the agent takes from a datagram."""
EVENT_TYPE = 699


def as_forwarded(datagram: bytes) -> bytes:
    """What arrives of a datagram: its first 2048 bytes, up to the first NUL."""
    return datagram[:EVENT_SIZE].partition(b"\0")[0]


def shown(data: bytes) -> str:
    """An event on a terminal: what it cannot print, and what would move it, is escaped."""
    text = data.decode("utf-8", "backslashreplace")
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text)


class Forwarded:
    """The announced events; may be used from any thread."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._announced: Counter[bytes] = Counter()

    def announce(self, datagram: bytes) -> None:
        """A program is going to send this once."""
        with self._lock:
            self._announced[as_forwarded(datagram)] += 1

    def take(self, data: bytes) -> bool:
        """Whether this message is an event; an announcement is used up."""
        with self._lock:
            if self._announced[data] > 0:
                self._announced[data] -= 1
                return True
            del self._announced[data]
        try:
            message = json.loads(data)
        except (ValueError, RecursionError):
            return False
        return isinstance(message, dict) and message.get("msgType") == EVENT_TYPE
