"""The onboarding service: answers the device's one HTTPS request by a script that tests may change.

It reads raw bytes, because the agent's request ends CR LF LF, and keeps every request as it came.
"""

import asyncio
import contextlib
import json
import socket
from dataclasses import dataclass, field, replace
from typing import Any, Optional

from lab import names
from lab.authority import Certificates
from lab.journal import Event, Journal
from lab.tlsserver import TlsServer
from lab.world import World

PORT = 443
CONTROLLER_URL = f"https://{names.CONTROLLER_HOST}:8443/ws"
DEVICE_ID = "lab-device-1"
_REQUEST_ENDS = (b"\n\n", b"\r\n\r\n")
_REQUEST_LIMIT = 65536


def _default_headers() -> list[tuple[str, str]]:
    return [("Location", CONTROLLER_URL), ("Set-Cookie", f"deviceId={DEVICE_ID}; Path=/"),
            ("Content-Type", "application/json")]


@dataclass(frozen=True)
class Reply:
    """One scripted answer. As it stands it is the redirect to the lab's controller."""

    status_line: str = "HTTP/1.1 302 Found"
    headers: list[tuple[str, str]] = field(default_factory=_default_headers)
    body: bytes = b'{"status": "redirect"}'
    content_length: Optional[str] = None
    """The text of Content-Length; None counts the body, "" leaves the header out."""
    raw: Optional[bytes] = None
    """Sent in place of everything above."""
    delay: float = 0.0
    """Seconds of silence before the first byte."""
    pieces: tuple[int, ...] = ()
    """Sizes of the first writes; the rest follows in one."""
    gap: float = 0.05
    """Seconds between the pieces."""
    record_size: int = 0
    """When not 0, the whole answer arrives at once in TLS records of this size."""
    cut: Optional[int] = None
    """Only so many bytes of the answer are sent; then silence, or with `drop` the end."""
    silent: bool = False
    """Never answer; the connection stays open until the device gives up."""
    drop: bool = False
    """Close the connection in place of answering, or behind what `cut` leaves."""

    def render(self) -> bytes:
        """The bytes of this answer."""
        if self.raw is not None:
            return self.raw
        headers = list(self.headers)
        if self.content_length != "":
            headers.append(("Content-Length", self.content_length or str(len(self.body))))
        lines = [self.status_line] + [f"{name}: {value}" for name, value in headers]
        return "\r\n".join(lines).encode() + b"\r\n\r\n" + self.body

    def but(self, **changes: Any) -> "Reply":
        """The same answer with some parts changed."""
        return replace(self, **changes)


def redirect(url: str = CONTROLLER_URL, device_id: str = DEVICE_ID) -> Reply:
    """A redirect to another controller or with another device id."""
    return Reply(headers=[("Location", url), ("Set-Cookie", f"deviceId={device_id}; Path=/")])


def not_found() -> Reply:
    """The answer to a device that the service does not know (any more)."""
    return Reply(status_line="HTTP/1.1 404 Not Found", headers=[("Server", "onboarding")],
                 body=json.dumps({"error": {"message": "Unknown device"}}).encode())


class Onboarding:
    """The TLS server at port 443 of the world."""

    def __init__(self, world: World, journal: Journal, certificates: Certificates) -> None:
        self._journal = journal
        self.certificates = certificates
        self.reply = Reply()
        """The answer given whenever `next_replies` is empty."""
        self.next_replies: list[Reply] = []
        """Answers for the next requests, used up one by one."""
        self._server = TlsServer(world, PORT, certificates, self._converse)

    def start(self) -> None:
        """Listens from now on."""
        self._server.start()

    def stop(self) -> None:
        """Stops listening and drops whoever is connected; `start` takes it up again."""
        self._server.stop()

    def requests(self) -> list[str]:
        """Every request so far as text, byte for byte."""
        return [event["text"] for event in self._journal.events("onboarding")]

    def wait_request(self, timeout: float = 20.0) -> Event:
        """The next request: its "text" as it came and the server "names" asked for so far."""
        return self._journal.wait("onboarding", timeout=timeout, what="an onboarding request")

    async def _converse(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        data = b""
        while not data.endswith(_REQUEST_ENDS) and len(data) < _REQUEST_LIMIT:
            piece = await reader.read(4096)
            if not piece:
                self._journal.note("onboarding-cut", text=data.decode(errors="replace"))
                return
            data += piece
        await self._answer(data, reader, writer)

    async def _answer(self, data: bytes, reader: asyncio.StreamReader,
                      writer: asyncio.StreamWriter) -> None:
        text = data.decode("latin-1")
        reply = self.next_replies.pop(0) if self.next_replies else self.reply
        first = reply.status_line if reply.raw is None else "(raw)"
        self._journal.note("onboarding", text=text, names=list(self.certificates.asked_names),
                           answer="(none)" if reply.silent or reply.drop else first)
        if reply.cut is None and reply.drop:
            return
        if reply.silent:
            await reader.read()
            return
        await asyncio.sleep(reply.delay)
        rest = reply.render()[:reply.cut]
        if reply.record_size:
            await self._send_records(rest, reply.record_size, writer)
            rest = b""
        for size in reply.pieces:
            writer.write(rest[:size])
            await writer.drain()
            rest = rest[size:]
            await asyncio.sleep(reply.gap)
        writer.write(rest)
        await writer.drain()
        if reply.cut is not None:
            await (asyncio.sleep(0) if reply.drop else reader.read())
            writer.close()
            return
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(reader.read(), 5.0)
        writer.close()

    @staticmethod
    async def _send_records(data: bytes, size: int, writer: asyncio.StreamWriter) -> None:
        """Each write is a record; the cork lets all of them leave together."""
        wire = writer.get_extra_info("socket")
        wire.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)
        for at in range(0, len(data), size):
            writer.write(data[at:at + size])
        await writer.drain()
        wire.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 0)
