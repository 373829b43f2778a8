"""One open page: a websocket that carries what happens to it, and its commands to the lab.

The page sends JSON objects:
  {"do": "run", "id": n, "command": ..., "arguments": {...}}   answered by "told" and one "end"
  {"do": "cancel", "id": n}                                    ends that command
  {"do": "follow", "topics": ["log", "report"]}                besides the rest, which always comes
A page that goes away ends its commands, like a terminal that is closed.
"""

import asyncio
import contextlib
import json
from collections import deque
from typing import Any

from aiohttp import WSMsgType, web

from lab.carryout import carry_out
from lab.console.hub import Hub, Item
from lab.lab import Lab

LARGEST_REQUEST = 16 * 1024 * 1024
HEARTBEAT = 20.0
_MOST_WAITING = 4000
"""Items for a page that does not keep up; it is told how many more there were."""
_PAUSE = 0.05
_MOST_COMMANDS = 32
_TOPICS = {"log", "report"}


class Session:
    """Serves one page until it goes."""

    def __init__(self, lab: Lab, hub: Hub, socket: web.WebSocketResponse) -> None:
        self._lab = lab
        self._hub = hub
        self._socket = socket
        self._waiting: deque[Item] = deque()
        self._missed = 0
        self._some = asyncio.Event()
        self._topics: set[str] = set()
        self._running: dict[int, asyncio.Task] = {}
        self._endings: set[asyncio.Task] = set()

    async def serve(self) -> None:
        """Says hello, then listens and tells; returns when the page has gone."""
        self._hub.join(self._take)
        telling = asyncio.create_task(self._tell_all())
        try:
            await self._send({"kind": "hello", **self._hub.hello()})
            async for frame in self._socket:
                if frame.type != WSMsgType.TEXT:
                    break
                await self._hear(frame.data)
        except (ConnectionError, asyncio.CancelledError):
            pass
        finally:
            self._hub.leave(self._take)
            tasks = [telling, *self._running.values(), *self._endings]
            for task in tasks:
                task.cancel()
            await asyncio.gather(*tasks, return_exceptions=True)

    async def _send(self, what: dict[str, Any]) -> None:
        await self._socket.send_str(json.dumps(what))

    # -- what happens -----------------------------------------------------------------------

    def _take(self, item: Item) -> None:
        if item["kind"] in _TOPICS and item["kind"] not in self._topics:
            return
        if len(self._waiting) >= _MOST_WAITING:
            self._missed += 1
            return
        self._waiting.append(item)
        self._some.set()

    async def _tell_all(self) -> None:
        """Sends what has come together, some times a second."""
        try:
            while True:
                await self._some.wait()
                await asyncio.sleep(_PAUSE)
                self._some.clear()
                items, missed = list(self._waiting), self._missed
                self._waiting.clear()
                self._missed = 0
                await self._send({"kind": "live", "items": items, "missed": missed})
        except ConnectionError:
            pass

    # -- what the page wants ----------------------------------------------------------------

    async def _hear(self, text: str) -> None:
        try:
            wish = json.loads(text)
            do = wish["do"]
            number = wish["id"] if do in ("run", "cancel") else 0
            if not isinstance(number, int):
                raise ValueError("the id is not a number")
        except (ValueError, TypeError, KeyError, RecursionError) as error:
            await self._send({"kind": "error", "text": f"not understood: {error}"})
            return
        if do == "run":
            await self._begin(number, wish)
        elif do == "cancel":
            if number in self._running:
                self._running[number].cancel()
        elif do == "follow":
            await self._follow(wish.get("topics"))
        else:
            await self._send({"kind": "error", "text": f"not understood: {do!r}"})

    async def _follow(self, topics: Any) -> None:
        wanted = _TOPICS.intersection(topics) if isinstance(topics, list) else set()
        fresh = wanted - self._topics
        self._topics = wanted
        if "log" in fresh:
            items = [{"kind": "log", "item": item} for item in self._hub.recent_log()]
            await self._send({"kind": "live", "items": items, "missed": 0})

    async def _begin(self, number: int, wish: dict[str, Any]) -> None:
        if number in self._running or len(self._running) >= _MOST_COMMANDS:
            await self._send({"kind": "end", "id": number, "outcome": "refused", "data": {},
                              "text": "too many commands at once"})
            return
        async def tell(what: dict[str, Any]) -> None:
            # To a page that goes: the command hears of it by being cancelled, and ends in order.
            with contextlib.suppress(ConnectionError):
                await self._send({"kind": "told", "id": number, "what": what})

        work = asyncio.create_task(carry_out(self._lab, wish, tell))
        self._running[number] = work
        ending = asyncio.create_task(self._end(number, work))
        self._endings.add(ending)
        ending.add_done_callback(self._endings.discard)

    async def _end(self, number: int, work: asyncio.Task) -> None:
        """Tells how a command has ended, also one that was cancelled before it began."""
        await asyncio.wait({work})
        del self._running[number]
        if work.cancelled():
            end = {"outcome": "cancelled", "text": "stopped", "data": {}}
        else:
            end = work.result()
        with contextlib.suppress(ConnectionError):
            await self._send({"kind": "end", "id": number, **end})
