"""What happened in the lab, in order: the one place where services note events and tests wait.

Every service appends events; a test waits for the first one it has not taken yet; the live view
is called for each. All of it may be used from any thread.
"""

import threading
import time
from dataclasses import dataclass, field
from typing import Any, Callable, Optional

Predicate = Callable[["Event"], bool]


@dataclass
class Event:
    """One thing that happened: its kind, when (monotonic and wall clock), and its details."""

    kind: str
    data: dict[str, Any]
    index: int
    when: float
    wall: float
    taken: bool = field(default=False, compare=False)

    def __getitem__(self, name: str) -> Any:
        return self.data[name]

    def __str__(self) -> str:
        return f"{self.kind} {self.data}"


class WaitTimeout(AssertionError):
    """The awaited event did not happen in time."""


class Journal:
    """The list of events and the means to wait for the next one."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._events: list[Event] = []
        self._listeners: list[Callable[[Event], None]] = []
        self.explain: Callable[[], str] = lambda: ""
        """Called when a wait fails; its text (the agent's last log lines) goes into the message."""

    def note(self, kind: str, **data: Any) -> Event:
        """Appends an event and wakes whoever waits for one."""
        with self._changed:
            event = Event(kind, data, len(self._events), time.monotonic(), time.time())
            self._events.append(event)
            self._changed.notify_all()
            listeners = list(self._listeners)
        for listener in listeners:
            listener(event)
        return event

    def subscribe(self, listener: Callable[[Event], None]) -> None:
        """Calls `listener` for every later event, in the thread that noted it."""
        with self._changed:
            self._listeners.append(listener)

    def unsubscribe(self, listener: Callable[[Event], None]) -> None:
        """Ends `subscribe`; a call that is under way still comes."""
        with self._changed:
            self._listeners.remove(listener)

    def events(self, kind: Optional[str] = None, since: int = 0) -> list[Event]:
        """A copy of the events from position `since` on, of one kind or of all."""
        with self._changed:
            return [event for event in self._events[since:] if kind in (None, event.kind)]

    @property
    def position(self) -> int:
        """The position of the next event: give it to `wait` or `events` as `since`."""
        with self._changed:
            return len(self._events)

    def wait(self, kind: str, predicate: Optional[Predicate] = None, timeout: float = 10.0,
             since: int = 0, take: bool = True, what: str = "") -> Event:
        """The first event of this kind that fits and nobody took yet, from `since` on.

        Waits at most `timeout` seconds; raises WaitTimeout with the agent's log after that.
        `take` marks the event, so that the next wait finds the next one.
        """
        deadline = time.monotonic() + timeout
        position = since
        with self._changed:
            while True:
                for event in self._events[position:]:
                    if event.kind != kind or (take and event.taken):
                        continue
                    if predicate is None or predicate(event):
                        event.taken = event.taken or take
                        return event
                position = len(self._events)
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self._changed.wait(left)
        name = what or kind
        raise WaitTimeout(f"waited {timeout:g} s for {name}\n{self.explain()}")
