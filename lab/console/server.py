"""The console's web server: the page, what it reads, and the websocket of each open page.

It lives in the loop of the lab's services, but listens on the machine itself: a socket belongs to
the network in which it was made, and this one is made by whoever starts the console.
"""

import asyncio
import errno
import json
import socket
from typing import Any, Optional

from aiohttp import web

from lab.console import documents, files, guard
from lab.console.history import preview
from lab.console.hub import Hub
from lab.console.peer import Peers
from lab.console.session import HEARTBEAT, LARGEST_REQUEST, Session
from lab.lab import Lab

PORT = 8480
_ADDRESS = "127.0.0.1"
_PORTS_TRIED = 100
_MOST_PAGES = 32
_MOST_ROWS = 500


def _listen(port: int) -> socket.socket:
    """A socket at this port of the loopback, or at the next one that is free (0: any)."""
    for candidate in range(port, min(port + _PORTS_TRIED, 65536)):
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            listener.bind((_ADDRESS, candidate))
            listener.listen(64)  # only now the port is surely ours
            return listener
        except OSError as error:
            listener.close()
            if error.errno != errno.EADDRINUSE:
                raise
    raise OSError(errno.EADDRINUSE, f"no port from {port} on is free for the console")


class Console:
    """Serves between `start` and `stop`, or in a `with` block. The lab has to run longer."""

    def __init__(self, lab: Lab, port: int = PORT) -> None:
        self._lab = lab
        self._port = port
        self._runner: Optional[web.AppRunner] = None
        self._pages: set[web.WebSocketResponse] = set()
        self._peers: Peers
        self._hub: Hub
        self.url = ""
        """What to type into a browser."""

    def start(self) -> None:
        """Serves from now on; call it in the network where browsers are."""
        listener = _listen(self._port)
        self.url = f"http://{_ADDRESS}:{listener.getsockname()[1]}/"
        self._peers = Peers()
        self._hub = Hub(self._lab)
        try:
            self._lab.world.wait(self._start(listener))
        except BaseException:
            listener.close()
            raise

    async def _start(self, listener: socket.socket) -> None:
        self._hub.start()
        application = web.Application(middlewares=[guard.make(self._peers)])
        application.router.add_get("/live", self._live)
        application.router.add_get("/api/state", self._state)
        application.router.add_get("/api/protocol", self._protocol)
        application.router.add_get("/api/statistics", self._statistics)
        application.router.add_get("/api/firmware", self._firmware)
        application.router.add_get("/api/uploads/{name:[A-Za-z0-9_-][A-Za-z0-9._-]{0,127}}",
                                   self._upload)
        application.router.add_get("/api/messages", self._messages)
        application.router.add_get("/api/messages/{id:[0-9]{1,15}}", self._message)
        application.router.add_get("/charts/{name:.+}", files.charts)
        application.router.add_get("/{name:.*}", files.page)
        self._runner = web.AppRunner(application, access_log=None, handle_signals=False)
        await self._runner.setup()
        await web.SockSite(self._runner, listener, shutdown_timeout=1.0).start()

    def stop(self) -> None:
        """Closes every page's connection and serves no more; harmless when stopped."""
        if self._runner is not None:
            self._lab.world.wait(self._stop())
            self._runner = None
            self._hub.history.close()
            self._peers.close()

    async def _stop(self) -> None:
        self._hub.stop()
        await asyncio.gather(*(page.close(code=1001, message=b"the lab ends")
                               for page in list(self._pages)), return_exceptions=True)
        await self._runner.cleanup()

    def __enter__(self) -> "Console":
        self.start()
        return self

    def __exit__(self, *_exc: object) -> None:
        self.stop()

    # -- what pages ask for -----------------------------------------------------------------

    async def _live(self, request: web.Request) -> web.StreamResponse:
        if len(self._pages) >= _MOST_PAGES:
            raise web.HTTPServiceUnavailable(text="too many pages are open\n")
        page = web.WebSocketResponse(heartbeat=HEARTBEAT, max_msg_size=LARGEST_REQUEST,
                                     timeout=1.0)
        if not page.can_prepare(request).ok:
            raise web.HTTPBadRequest(text="this address is for websockets\n")
        await page.prepare(request)
        self._pages.add(page)
        try:
            await Session(self._lab, self._hub, page).serve()
        finally:
            self._pages.discard(page)
        return page

    async def _state(self, _request: web.Request) -> web.Response:
        return _json(self._hub.hello())

    async def _protocol(self, _request: web.Request) -> web.Response:
        return _json(documents.protocol())

    async def _statistics(self, _request: web.Request) -> web.Response:
        return _json(documents.statistics())

    async def _firmware(self, _request: web.Request) -> web.Response:
        return _json(documents.firmware())

    async def _upload(self, request: web.Request) -> web.StreamResponse:
        name = request.match_info["name"]
        path = self._lab.files.uploaded_path(name)
        if not path.is_file():
            raise web.HTTPNotFound(text="the device has uploaded no such file\n")
        return web.FileResponse(path, headers={
            "Content-Type": "application/octet-stream",
            "Content-Disposition": f'attachment; filename="{name}"'})

    async def _messages(self, request: web.Request) -> web.Response:
        try:
            before = int(request.query.get("before", 2**62))
            limit = int(request.query.get("limit", 100))
        except ValueError:
            raise web.HTTPBadRequest(text='"before" and "limit" are numbers\n') from None
        rows = self._hub.history.newest("messages", max(1, min(limit, _MOST_ROWS)),
                                        max(-2**62, min(before, 2**62)))
        return _json([preview(row) for row in rows])

    async def _message(self, request: web.Request) -> web.Response:
        row = self._hub.history.message(int(request.match_info["id"]))
        if row is None:
            raise web.HTTPNotFound(text="this message is not kept any more\n")
        return _json(row)


def _json(value: Any) -> web.Response:
    return web.Response(text=json.dumps(value), content_type="application/json")
