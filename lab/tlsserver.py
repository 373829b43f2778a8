"""A TLS server in the world, for those services that speak to the agent byte by byte."""

import asyncio
import ssl
from typing import Awaitable, Callable, Optional

from lab import network
from lab.authority import Certificates
from lab.world import World

Conversation = Callable[[asyncio.StreamReader, asyncio.StreamWriter], Awaitable[None]]


class TlsServer:
    """Has one conversation for each connection, and ends those that are left when it stops."""

    def __init__(self, world: World, port: int, certificates: Certificates,
                 converse: Conversation) -> None:
        """A conversation may end by any connection error; its connection is then cut."""
        self._world = world
        self._port = port
        self._certificates = certificates
        self._converse = converse
        self._server: Optional[asyncio.AbstractServer] = None
        self._tasks: set[asyncio.Task] = set()

    def start(self) -> None:
        """Listens from now on."""
        self._server = self._world.wait(asyncio.start_server(
            self._serve, network.WORLD_ADDRESS, self._port, ssl=self._certificates.context))

    def stop(self) -> None:
        """Stops listening and drops whoever is connected; `start` takes it up again."""
        if self._server is not None:
            self._world.wait(self._close())
            self._server = None

    async def _close(self) -> None:
        self._server.close()
        for task in self._tasks:
            task.cancel()
        await asyncio.gather(*self._tasks, return_exceptions=True)

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        self._tasks.add(task)
        try:
            await self._converse(reader, writer)
        except (asyncio.IncompleteReadError, ConnectionError, ssl.SSLError, asyncio.CancelledError):
            pass
        finally:
            self._tasks.discard(task)
            if not writer.is_closing():
                writer.transport.abort()
