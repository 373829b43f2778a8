"""The controller: a websocket server over TLS that registers devices and does what tests say.

Every message in either direction is checked against the protocol's documents; what the agent
sends wrongly is noted as a "problem" event, which fails the test that is running.
"""

import asyncio
import json
import ssl
import time
from dataclasses import dataclass, field
from typing import Any, Optional, Union

import aiohttp
from aiohttp import web

from lab import network, schemas
from lab.authority import Certificates
from lab.forwarded import Forwarded, shown
from lab.journal import Event, Journal
from lab.world import World

PORT = 8443
PLAIN_PORT = 8080
"""Without TLS and at the loopback address of the world: for a proxy that ends TLS in front."""
SUBPROTOCOL = "websock_protocol"
REGISTER = 100
REGISTER_SUCCESS = 400
_MESSAGE_LIMIT = 64 * 1024 * 1024


@dataclass
class Acceptance:
    """Answers REGISTER with 400; `orv_time` is the offered clock (None: the present, "": none)."""

    orv_time: Union[int, str, None] = None
    follow_ups: list[dict[str, Any]] = field(default_factory=lambda: [{"msgType": 104}])

    def messages(self) -> list[dict[str, Any]]:
        """What goes out."""
        answer: dict[str, Any] = {"msgType": 400}
        if self.orv_time != "":
            answer["orvTime"] = int(time.time()) if self.orv_time is None else self.orv_time
        return [answer, *self.follow_ups]


@dataclass
class Refusal:
    """Answers REGISTER with 700."""

    code: str = "DeviceNotFound"
    message: str = "This device is not known here"

    def messages(self) -> list[dict[str, Any]]:
        """What goes out."""
        return [{"msgType": 700, "code": self.code, "message": self.message}]


class Silence:
    """Answers REGISTER with nothing."""

    def messages(self) -> list[dict[str, Any]]:
        """Nothing goes out."""
        return []


def _leniently(text: str) -> dict[str, Any]:
    """The members of a text that has already failed its check, as far as there are any."""
    try:
        message = json.loads(text)
    except ValueError:
        return {}
    return message if isinstance(message, dict) else {}


class Connection:
    """One websocket of the agent: how it was opened, and how it ended once it has."""

    def __init__(self, number: int, request: web.Request, socket: web.WebSocketResponse) -> None:
        self.number = number
        self.socket = socket
        self.request = request
        self.path = request.path
        self.query_string = request.rel_url.raw_query_string
        self.query = dict(request.query)
        self.headers = dict(request.headers)
        self.subprotocols_offered = request.headers.get("Sec-WebSocket-Protocol", "")
        self.open = True
        self.accepted = False
        """Whether the controller has answered this connection's REGISTER with 400."""
        self.close_code: Optional[int] = None
        self.close_reason: Optional[str] = None
        """Code and reason of the agent's close frame; None when it sent none."""

    def __str__(self) -> str:
        return f"connection {self.number} ({self.path}?{self.query_string})"


class Controller:
    """The server at port 8443 of the world, and the handles by which tests move it."""

    def __init__(self, world: World, journal: Journal, certificates: Certificates,
                 port: int = PORT) -> None:
        self._world = world
        self._journal = journal
        self._port = port
        self.certificates = certificates
        self.on_register: Union[Acceptance, Refusal, Silence] = Acceptance()
        self.next_answers: list[Union[Acceptance, Refusal, Silence]] = []
        """Answers for the next REGISTERs, used up one by one before `on_register` counts."""
        self.standing: dict[int, dict[str, Any]] = {}
        """Periodic statistics by slot, asked for again after each registration."""
        self.answer_pings = True
        self.refuse_upgrades: list[int] = []
        """HTTP statuses for the next connection attempts, used up one by one."""
        self.connections: list[Connection] = []
        self.forwarded = Forwarded()
        """The events that local programs of the device are known to raise."""
        self._runner: Optional[web.AppRunner] = None

    # -- life -------------------------------------------------------------------------------

    def start(self) -> None:
        """Listens from now on."""
        self._world.wait(self._start())

    async def _start(self) -> None:
        application = web.Application()
        application.router.add_route("*", "/{path:.*}", self._serve)
        self._runner = web.AppRunner(application, access_log=None, handle_signals=False)
        await self._runner.setup()
        await web.TCPSite(self._runner, network.WORLD_ADDRESS, self._port,
                          ssl_context=self.certificates.context, shutdown_timeout=0.2).start()
        await web.TCPSite(self._runner, "127.0.0.1", PLAIN_PORT, shutdown_timeout=0.2).start()

    def stop(self) -> None:
        """Stops listening and kills every connection; `start` takes it up again."""
        if self._runner is not None:
            self._world.call(self._kill_all)
            self._world.wait(self._runner.cleanup())
            self._runner = None

    def _kill_all(self) -> None:
        for connection in self.connections:
            if connection.open and connection.request.transport is not None:
                connection.request.transport.abort()

    # -- what tests wait for ----------------------------------------------------------------

    def wait_connected(self, timeout: float = 30.0) -> Connection:
        """The next connection that the agent opens (or has opened, if nobody waited for it)."""
        event = self._journal.wait("connected", timeout=timeout,
                                   what="the agent to connect to the controller")
        return event["connection"]

    def wait_message(self, msg_type: int, timeout: float = 10.0) -> dict[str, Any]:
        """The next message of this type from the agent, parsed."""
        return self.wait_message_event(msg_type, timeout)["message"]

    def wait_message_event(self, msg_type: int, timeout: float = 10.0) -> Event:
        """As `wait_message`, with the text as it came ("text") and its connection."""
        return self._journal.wait("from-agent", lambda e: e["message"].get("msgType") == msg_type,
                                  timeout, what=f"a message {msg_type} from the agent")

    def wait_trap(self, timeout: float = 10.0) -> bytes:
        """The next event of a local program that the agent has forwarded, byte for byte."""
        return self._journal.wait("trap", timeout=timeout, what="a forwarded event")["data"]

    def wait_ping(self, timeout: float = 30.0) -> Event:
        """The next ping: its "payload" and "connection"."""
        return self._journal.wait("ping", timeout=timeout, what="a ping from the agent")

    def wait_closed(self, timeout: float = 30.0) -> Connection:
        """The next connection that ended, with the agent's close code and reason if it gave any."""
        event = self._journal.wait("disconnected", timeout=timeout,
                                   what="the connection to the controller to end")
        return event["connection"]

    def messages(self, msg_type: Optional[int] = None) -> list[dict[str, Any]]:
        """Every message received so far, or those of one type."""
        found = [event["message"] for event in self._journal.events("from-agent")]
        return [m for m in found if msg_type is None or m.get("msgType") == msg_type]

    # -- what tests do ----------------------------------------------------------------------

    @property
    def newest(self) -> Optional[Connection]:
        """The newest connection that is still open, if there is one."""
        return next((one for one in reversed(self.connections) if one.open), None)

    @property
    def current(self) -> Connection:
        """The newest connection that is still open; a test that needs one fails without."""
        if self.newest is not None:
            return self.newest
        raise AssertionError(f"the agent is not connected\n{self._journal.explain()}")

    def send(self, message: dict[str, Any], unchecked: bool = False) -> None:
        """Sends a message to the agent; `unchecked` when it is wrong on purpose."""
        self.send_raw(json.dumps(message), unchecked)

    def send_raw(self, text: str, unchecked: bool = False) -> None:
        """Sends this text to the agent; `unchecked` when it is wrong on purpose."""
        self._world.wait(self.deliver(self.current, text, unchecked))

    def send_bytes(self, data: bytes) -> None:
        """Puts any bytes on the connection: frames that were made elsewhere."""
        transport = self.current.request.transport
        assert transport is not None
        self._world.call(transport.write, data)

    def ping(self, payload: bytes = b"") -> None:
        """Sends a ping; its answer is noted as "pong"."""
        self._world.wait(self.current.socket.ping(payload))

    def close(self, code: int = 1000, reason: str = "") -> None:
        """Closes the connection in the orderly way."""
        connection = self.current
        self._world.wait(connection.socket.close(code=code, message=reason.encode()))

    def kill(self) -> None:
        """Resets the connection without a word."""
        transport = self.current.request.transport
        if transport is not None:
            self._world.call(transport.abort)

    async def deliver(self, connection: Connection, text: str, unchecked: bool = False) -> None:
        """Sends this text over this connection; for what runs in the services' own loop."""
        if not unchecked:
            schemas.check("to-agent", text)
        self._journal.note("to-agent", text=text, connection=connection)
        await connection.socket.send_str(text)

    # -- serving ----------------------------------------------------------------------------

    async def _serve(self, request: web.Request) -> web.StreamResponse:
        if self.refuse_upgrades:
            status = self.refuse_upgrades.pop(0)
            self._journal.note("upgrade-refused", status=status, path=request.path_qs)
            return web.Response(status=status)
        socket = web.WebSocketResponse(protocols=(SUBPROTOCOL,), autoping=False, compress=False,
                                       max_msg_size=_MESSAGE_LIMIT, timeout=2.0)
        await socket.prepare(request)
        connection = Connection(len(self.connections) + 1, request, socket)
        self.connections.append(connection)
        self._journal.note("connected", connection=connection)
        try:
            while True:
                frame = await socket.receive()
                if not await self._handle(connection, frame):
                    break
        except (ConnectionError, ssl.SSLError, asyncio.CancelledError):
            pass
        finally:
            connection.open = False
            self._journal.note("disconnected", connection=connection,
                               code=connection.close_code, reason=connection.close_reason)
        return socket

    def _check_event(self, data: bytes) -> None:
        try:
            schemas.check_event(data)
        except schemas.SchemaError as error:
            self._journal.note("problem", text=f"an event has not its shape: {error}")

    async def _handle(self, connection: Connection, frame: aiohttp.WSMessage) -> bool:
        """Deals with one frame; False when the connection is over."""
        kind = frame.type
        if kind in (aiohttp.WSMsgType.TEXT, aiohttp.WSMsgType.BINARY):
            data = frame.data.encode() if isinstance(frame.data, str) else bytes(frame.data)
            text = data.decode("utf-8", "replace")
            if self.forwarded.take(data):
                self._journal.note("trap", data=data, text=shown(data), connection=connection)
                self._check_event(data)
                return True
            await self._receive(connection, text, kind == aiohttp.WSMsgType.BINARY)
        elif kind == aiohttp.WSMsgType.PING:
            await self._receive_ping(connection, bytes(frame.data))
        elif kind == aiohttp.WSMsgType.PONG:
            self._journal.note("pong", payload=bytes(frame.data), connection=connection)
        elif kind == aiohttp.WSMsgType.CLOSE:
            connection.close_code, connection.close_reason = frame.data, frame.extra
            return False
        else:  # CLOSING, CLOSED, ERROR
            return False
        return True

    async def _receive(self, connection: Connection, text: str, binary: bool) -> None:
        try:
            message = schemas.check("to-controller", text)
        except schemas.SchemaError as error:
            self._journal.note("problem", text=f"the agent sent what it must not: {error}")
            message = _leniently(text)
        self._journal.note("from-agent", text=text, message=message, binary=binary,
                           connection=connection)
        if message.get("msgType") == REGISTER:
            answer = self.next_answers.pop(0) if self.next_answers else self.on_register
            for reply in answer.messages():
                connection.accepted |= reply["msgType"] == REGISTER_SUCCESS
                await self.deliver(connection, json.dumps(reply))
            if connection.accepted and self.standing:
                again = {"msgType": 103, "stats": list(self.standing.values())}
                await self.deliver(connection, json.dumps(again), unchecked=True)

    async def _receive_ping(self, connection: Connection, payload: bytes) -> None:
        try:
            schemas.check_ping(payload)
        except schemas.SchemaError as error:
            self._journal.note("problem", text=f"the agent sent a bad ping: {error}")
        self._journal.note("ping", payload=payload, connection=connection,
                           answered=self.answer_pings)
        if self.answer_pings:
            await connection.socket.pong(payload)
