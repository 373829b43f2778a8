"""A controller that speaks websocket frame by frame, for what a library would hide.

It shows every frame of the agent as it was cut, and sends any frame, fragment or stray byte.
Send the agent here with an onboarding reply that names `URL`.
"""

import asyncio
import base64
import contextlib
import hashlib
import json
import struct
from dataclasses import dataclass
from typing import Any, Optional, Sequence, Union

from lab import names, schemas
from lab.authority import Certificates
from lab.journal import Event, Journal
from lab.tlsserver import TlsServer
from lab.world import World

PORT = 8444
URL = f"https://{names.CONTROLLER_HOST}:{PORT}/ws"
CONTINUATION, TEXT, BINARY, CLOSE, PING, PONG = 0, 1, 2, 8, 9, 10
_LEAVE_SECONDS = 1.0
_GUID = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"


@dataclass(frozen=True)
class Frame:
    """One websocket frame as it was on the wire, its payload unmasked."""

    fin: bool
    reserved: int
    opcode: int
    masked: bool
    payload: bytes


def encode(opcode: int, payload: bytes, fin: bool = True, length: Optional[int] = None) -> bytes:
    """A server's frame; `length` announces another length than the payload has."""
    size = len(payload) if length is None else length
    head = bytes([(0x80 if fin else 0) | opcode])
    if size < 126:
        head += bytes([size])
    elif size < 65536:
        head += struct.pack("!BH", 126, size)
    else:
        head += struct.pack("!BQ", 127, size)
    return head + payload


async def read_frame(reader: asyncio.StreamReader) -> Frame:
    """Reads one frame; raises IncompleteReadError at the end of the stream."""
    first, second = await reader.readexactly(2)
    size = second & 0x7F
    if size == 126:
        size, = struct.unpack("!H", await reader.readexactly(2))
    elif size == 127:
        size, = struct.unpack("!Q", await reader.readexactly(8))
    masked = bool(second & 0x80)
    mask = await reader.readexactly(4) if masked else b""
    payload = await reader.readexactly(size)
    if masked:
        payload = bytes(byte ^ mask[i & 3] for i, byte in enumerate(payload))
    return Frame(bool(first & 0x80), first >> 4 & 7, first & 0x0F, masked, payload)


class RawPeer:
    """The frame-level server at port 8444 of the world."""

    def __init__(self, world: World, journal: Journal, certificates: Certificates) -> None:
        self._world = world
        self._journal = journal
        self._writer: Optional[asyncio.StreamWriter] = None
        self.answer_pings = True
        self.answer_register = True
        self.next_upgrades: list[Union[bytes, float]] = []
        """What the next upgrades meet, used up one by one: another answer, after which the
        connection is closed, or so many seconds of silence before the usual one."""
        self._reading = asyncio.Event()
        self._server = TlsServer(world, PORT, certificates, self._converse)

    def start(self) -> None:
        """Listens from now on."""
        self._server.start()

    def stop(self) -> None:
        """Stops listening and drops the agent."""
        self._server.stop()

    def wait_connected(self, timeout: float = 30.0) -> Event:
        """The next connection: "request" is the agent's whole HTTP request as text."""
        return self._journal.wait("raw-connected", timeout=timeout,
                                  what="the agent to connect to the raw peer")

    def wait_frame(self, opcode: int, timeout: float = 10.0) -> Frame:
        """The next frame of this opcode."""
        return self._journal.wait("raw-frame", lambda e: e["frame"].opcode == opcode, timeout,
                                  what=f"a frame with opcode {opcode}")["frame"]

    def wait_ended(self, timeout: float = 30.0) -> Event:
        """The end of the connection, from whichever side."""
        return self._journal.wait("raw-ended", timeout=timeout, what="the raw connection to end")

    def frames(self) -> list[Frame]:
        """Every frame received so far."""
        return [event["frame"] for event in self._journal.events("raw-frame")]

    def send_bytes(self, data: bytes) -> None:
        """Puts any bytes on the (encrypted) wire."""
        self._world.wait(self._write(data))

    async def _write(self, data: bytes) -> None:
        assert self._writer is not None, "the agent is not connected to the raw peer"
        self._writer.write(data)
        await self._writer.drain()

    def send_records(self, data: bytes, size: int = 1) -> None:
        """Puts bytes on the wire in TLS records of this size."""
        async def write() -> None:
            for at in range(0, len(data), size):
                await self._write(data[at:at + size])
        self._world.wait(write())

    def pause(self) -> None:
        """Reads no further frame: once the buffers on the way are full the agent cannot send."""
        self._world.call(self._reading.clear)

    def resume(self) -> None:
        """Reads on."""
        self._world.call(self._reading.set)

    def send_frame(self, opcode: int, payload: bytes, fin: bool = True) -> None:
        """Sends one frame."""
        self.send_bytes(encode(opcode, payload, fin))

    def send_fragments(self, payload: bytes, sizes: Sequence[int], opcode: int = TEXT) -> None:
        """Sends one message cut into frames of these sizes; what is left goes into a last one."""
        rest = payload
        first = True
        for size in sizes:
            self.send_frame(opcode if first else CONTINUATION, rest[:size], fin=False)
            rest, first = rest[size:], False
        self.send_frame(opcode if first else CONTINUATION, rest)

    def close_raw(self) -> None:
        """Resets the connection."""
        if self._writer is not None:
            self._world.call(self._writer.transport.abort)

    async def _converse(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        try:
            request = (await reader.readuntil(b"\r\n\r\n")).decode("latin-1")
            if self.next_upgrades and not await self._upgrade_otherwise(reader, writer, request):
                return
            writer.write(self._upgrade(request))
            await writer.drain()
            self._writer = writer
            self._reading.set()
            self._journal.note("raw-connected", request=request)
            while True:
                await self._receive(await read_frame(reader))
                await self._reading.wait()
        finally:
            writer.transport.abort()
            if self._writer is writer:
                self._writer = None
                self._journal.note("raw-ended")

    async def _upgrade_otherwise(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter,
                                 request: str) -> bool:
        """Does what a test has asked for; True when the usual answer is to follow."""
        way = self.next_upgrades.pop(0)
        self._journal.note("raw-upgrade", request=request)
        if isinstance(way, bytes):
            writer.write(way)
            await writer.drain()
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(reader.read(), _LEAVE_SECONDS if isinstance(way, bytes) else way)
            return False  # the agent has left
        return not isinstance(way, bytes)

    @staticmethod
    def _upgrade(request: str) -> bytes:
        headers = dict(line.split(": ", 1) for line in request.split("\r\n")[1:] if ": " in line)
        fields = {name.lower(): value for name, value in headers.items()}
        digest = hashlib.sha1((fields["sec-websocket-key"] + _GUID).encode()).digest()
        accept = base64.b64encode(digest).decode()
        return ("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                f"Sec-WebSocket-Accept: {accept}\r\n"
                "Sec-WebSocket-Protocol: websock_protocol\r\n\r\n").encode()

    async def _receive(self, frame: Frame) -> None:
        self._journal.note("raw-frame", frame=frame)
        if frame.opcode == PING and self.answer_pings:
            await self._write(encode(PONG, frame.payload))
        elif frame.opcode in (TEXT, BINARY) and frame.fin:
            message = self._checked(frame.payload)
            if message.get("msgType") == 100 and self.answer_register:
                await self._write(encode(TEXT, b'{"msgType": 400}'))

    def _checked(self, payload: bytes) -> dict[str, Any]:
        try:
            return schemas.check("to-controller", payload)
        except schemas.SchemaError as error:
            self._journal.note("problem", text=f"the agent sent what it must not: {error}")
        try:
            message = json.loads(payload)
        except ValueError:
            return {}
        return message if isinstance(message, dict) else {}
