"""Where a command to the controller is dealt with: sends its messages and sorts the answers to it.

A command (see `commands`) is a coroutine in the loop of `lab.world` that gets a `Desk` of its own.
"""

import asyncio
import contextlib
import json
from collections.abc import Callable, Iterator
from dataclasses import dataclass, field
from typing import Any, Awaitable, Optional

from lab import schemas
from lab.controller import Connection
from lab.journal import Event
from lab.lab import Lab

FENCE = {"msgType": 108}
"""Changes nothing on the device and is always answered, after all that was sent before it."""
FENCE_ANSWER = 408
NOT_UNDERSTOOD = 999

Tell = Callable[[dict[str, Any]], Awaitable[None]]
Verdict = Callable[[dict[str, Any]], Optional[str]]
"""What a message from the agent is to the command that waits: one of these, None: not its own."""
MORE, GOOD, BAD = "more", "good", "bad"


class Failed(Exception):
    """The command cannot come to a good end; the text says why."""


@dataclass
class Outcome:
    """How a command ended: well or not, one line for people, and what it found out."""

    good: bool
    text: str
    data: dict[str, Any] = field(default_factory=dict)


def told(event: Event) -> dict[str, Any]:
    """A message of either direction, as clients are told of it."""
    to_agent = event.kind == "to-agent"
    direction = "to-agent" if to_agent else "to-controller"
    try:
        number = json.loads(event["text"])["msgType"]
    except (ValueError, TypeError, KeyError):
        number = None
    return {"kind": "sent" if to_agent else "received", "time": event.wall, "number": number,
            "name": schemas.name_of(direction, number), "text": event["text"]}


def words(message: dict[str, Any]) -> str:
    """The text for people in an answer, after the code of a failure."""
    text = str(message.get("message") or message.get("status") or "")
    return f"{message['code']}: {text}" if "code" in message else text


def answers(good: Optional[int], bad: Optional[int]) -> Verdict:
    """The verdict on one answer that is either this or that number."""
    def verdict(message: dict[str, Any]) -> Optional[str]:
        number = message.get("msgType")
        if number in (bad, NOT_UNDERSTOOD):
            return BAD
        return GOOD if number == good else None
    return verdict


class Desk:
    """One command's place: the lab, whom to tell of what happens, and how long it may take."""

    def __init__(self, lab: Lab, turn: asyncio.Lock, tell: Tell,
                 timeout: Optional[float] = None) -> None:
        """`turn` is common to all desks of a lab: answers do not say what they answer, so commands
        that wait for some take turns. `timeout` counts from the turn; None: the command's own."""
        self.lab = lab
        self.tell = tell
        self.timeout = timeout
        self._turn = turn

    @contextlib.asynccontextmanager
    async def turn(self, seconds: float) -> Any:
        """Waits for this command's turn, which then may take this long (or as the client said)."""
        if self._turn.locked():
            await self.note("waiting for another command to end")
        seconds = self.timeout or seconds
        async with self._turn:
            try:
                async with asyncio.timeout(seconds):
                    yield
            except TimeoutError:
                raise Failed(f"no answer within {seconds:g} s") from None

    async def note(self, text: str) -> None:
        """Tells the client something in words."""
        await self.tell({"kind": "note", "text": text})

    def connection(self) -> Connection:
        """The agent's connection; fails when there is none."""
        newest = self.lab.controller.newest
        if newest is None:
            raise Failed("the device is not connected")
        return newest

    @contextlib.contextmanager
    def listening(self) -> Iterator["asyncio.Queue[Event]"]:
        """The events of the lab from now on."""
        loop = asyncio.get_running_loop()
        queue: asyncio.Queue[Event] = asyncio.Queue()

        def listen(event: Event) -> None:  # in the thread of whoever noted it
            loop.call_soon_threadsafe(queue.put_nowait, event)

        self.lab.journal.subscribe(listen)
        try:
            yield queue
        finally:
            self.lab.journal.unsubscribe(listen)

    async def _deliver(self, connection: Connection, text: str, unchecked: bool) -> None:
        try:
            await self.lab.controller.deliver(connection, text, unchecked)
        except ConnectionError as error:
            raise Failed(f"the device is not connected: {error}") from None

    async def ask(self, message: dict[str, Any], verdict: Verdict) -> dict[str, Any]:
        """Sends a message and waits until the verdict on an answer is good: that answer.

        The client is told of the message and of every answer. Fails on a bad one."""
        return await self.ask_text(json.dumps(message), verdict)

    async def ask_text(self, text: str, verdict: Verdict,
                       unchecked: bool = False) -> dict[str, Any]:
        """As `ask`, with a text that need not be allowed by the documents if `unchecked`."""
        connection = self.connection()
        with self.listening() as events:
            await self._deliver(connection, text, unchecked)
            while True:
                message, opinion = await self._next(events, connection, verdict, text)
                if opinion == GOOD:
                    return message
                if opinion == BAD:
                    raise Failed(words(message))

    async def ask_silent(self, text: Optional[str], verdict: Verdict,
                         unchecked: bool = False) -> None:
        """Sends what is answered only when it is wrong. A second message follows, whose answer
        shows that the agent has dealt with the first; the client is not told of that one."""
        connection = self.connection()
        complaint = None
        with self.listening() as events:
            if text is not None:
                await self._deliver(connection, text, unchecked)
            await self._deliver(connection, json.dumps(FENCE), False)
            while True:
                message, opinion = await self._next(events, connection, verdict, text)
                if opinion == BAD:
                    complaint = complaint or words(message)
                if message.get("msgType") == FENCE_ANSWER:
                    break
        if complaint:
            raise Failed(complaint)

    async def settle(self) -> None:
        """Waits until the agent has dealt with all that was sent to it before."""
        await self.ask_silent(None, answers(None, None))

    async def _next(self, events: "asyncio.Queue[Event]", connection: Connection,
                    verdict: Verdict, sent: Optional[str]) -> tuple[dict[str, Any], Any]:
        """The next message from the agent over this connection, and the verdict on it. The client
        is told of it if the verdict is one, and of the message `sent` as that goes out."""
        while True:
            event = await events.get()
            if event.data.get("connection") is not connection:
                continue
            if event.kind == "disconnected":
                raise Failed("the device closed the connection before it answered")
            if event.kind == "to-agent" and event["text"] == sent:
                await self.tell(told(event))
            if event.kind != "from-agent":
                continue
            message = event["message"]
            opinion = verdict(message)
            if opinion:
                await self.tell(told(event))
            return message, opinion
