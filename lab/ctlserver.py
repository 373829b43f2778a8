"""The running lab's ear: takes commands at its socket, one JSON object a line.

A client sends {"command": ..., "arguments": {...}, "timeout": seconds or null} and gets a line for
each message and note, then one with "kind" "end": "outcome" ("done", "failed", "refused"), "text"
and "data". Several clients may be at it at once; one that goes away ends its command.
"""

import asyncio
import contextlib
import json
from typing import Any, Optional

from lab import ctlplace
from lab.carryout import carry_out
from lab.lab import Lab

_LINE_LIMIT = 64 * 1024 * 1024


class CtlServer:
    """Listens between `start` and `stop`, or in a `with` block. The lab has to run longer."""

    def __init__(self, lab: Lab) -> None:
        self._lab = lab
        self._folder = lab.device.folder
        self._server: Optional[asyncio.AbstractServer] = None
        self._clients: set[asyncio.Task] = set()

    def start(self) -> None:
        """Listens from now on."""
        self._lab.world.wait(self._start())

    async def _start(self) -> None:
        self._server = await asyncio.start_unix_server(
            self._serve, sock=ctlplace.listen(self._folder), limit=_LINE_LIMIT)

    def stop(self) -> None:
        """Listens no more and lets every client go."""
        if self._server is not None:
            self._lab.world.wait(self._stop())
            self._server = None

    async def _stop(self) -> None:
        ctlplace.give_up(self._folder)
        self._server.close()
        for task in self._clients:
            task.cancel()
        await asyncio.gather(*self._clients, return_exceptions=True)

    def __enter__(self) -> "CtlServer":
        self.start()
        return self

    def __exit__(self, *_exc: object) -> None:
        self.stop()

    # -- clients ----------------------------------------------------------------------------

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        self._clients.add(task)
        try:
            request = await reader.readline()
            if request:
                await self._until_gone(reader, self._answer(request, writer))
        except (ConnectionError, ValueError):  # it went, or its line has no end
            pass
        finally:
            self._clients.discard(task)
            writer.close()

    @staticmethod
    async def _until_gone(reader: asyncio.StreamReader, work: Any) -> None:
        """Does the work unless the client goes before it is done."""
        working = asyncio.ensure_future(work)
        gone = asyncio.ensure_future(reader.read(1))
        try:
            await asyncio.wait({working, gone}, return_when=asyncio.FIRST_COMPLETED)
        finally:
            ended = working.done()
            for future in (working, gone):
                future.cancel()
            results = await asyncio.gather(working, gone, return_exceptions=True)
        if ended and isinstance(results[0], Exception):
            raise results[0]

    async def _answer(self, line: bytes, writer: asyncio.StreamWriter) -> None:
        async def tell(what: dict[str, Any]) -> None:
            # To a client that goes: the command hears of it by being cancelled, and ends in order.
            with contextlib.suppress(ConnectionError):
                writer.write(json.dumps(what).encode() + b"\n")
                await writer.drain()

        try:
            request = json.loads(line)
        except ValueError:
            request = None
        await tell({"kind": "end", **await carry_out(self._lab, request, tell)})
