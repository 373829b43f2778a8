"""An HTTPS server that does what a test says, byte by byte, one request to a connection.

Plain blocking sockets in threads: what a script has sent is on its way when the connection breaks.
"""

import contextlib
import re
import socket
import ssl
import threading
from dataclasses import dataclass, field
from typing import Callable, Optional

from lab import network
from lab.authority import Certificates, Leaf
from lab.filestore import HOST
from lab.lab import Lab

PORT = 8447
BASE = f"https://{HOST}:{PORT}"
_DATE = "Sat, 21 Nov 2026 10:00:00 GMT"
_MODIFIED = "Fri, 20 Nov 2026 09:00:00 GMT"
_SECONDS = 30.0


@dataclass
class Request:
    """One request as it came; of a body only what the script has read."""

    method: str
    target: str
    headers: dict[str, str]
    lines: list[str]
    body: bytes = b""


@dataclass
class Exchange:
    """One request and the connection to answer it on."""

    request: Request
    connection: ssl.SSLSocket
    rest: bytes

    def send(self, data: bytes) -> None:
        """Puts bytes on the wire."""
        self.connection.sendall(data)

    def answer(self, status: str, headers: str = "", body: bytes = b"") -> None:
        """A whole answer with its length; `headers` are lines without their ends."""
        lines = "".join(f"{line}\r\n" for line in headers.splitlines())
        self.send(f"HTTP/1.1 {status}\r\n{lines}Content-Length: {len(body)}\r\n"
                  "Connection: close\r\n\r\n".encode() + body)

    def _read(self, limit: int) -> bytes:
        piece, self.rest = self.rest[:limit], self.rest[limit:]
        return piece or self.connection.recv(limit)

    def read_body(self, limit: Optional[int] = None) -> bytes:
        """Reads the request's body, or so many bytes of it."""
        length = int(self.request.headers["content-length"])
        wanted = length if limit is None else limit
        while len(self.request.body) < wanted:
            piece = self._read(min(65536, wanted - len(self.request.body)))
            if not piece:
                raise ConnectionError
            self.request.body += piece
        return self.request.body

    def stall(self) -> None:
        """Neither says nor takes anything more, until the client goes."""
        while self.connection.recv(65536):
            pass

    def break_off(self) -> None:
        """Ends the connection without a word of TLS."""
        raise ConnectionError

    def end(self) -> None:
        """Ends the connection as TLS wants it."""
        self.connection.settimeout(2.0)
        self.connection.unwrap()


Script = Callable[[Exchange], None]


class RudeServer:
    """Follows `scripts`: one for each request, the last one for ever."""

    def __init__(self, lab: Lab) -> None:
        lab.names.add(HOST)
        self.certificates = Certificates(lab.authority.leaf([HOST]))
        self.requests: list[Request] = []
        self.scripts: list[Script] = []
        self._world = lab.world
        self._listener: Optional[socket.socket] = None

    def start(self) -> None:
        """Listens from now on."""
        self._listener = self._world.call(socket.create_server,
                                          (network.WORLD_ADDRESS, PORT))
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()

    def stop(self) -> None:
        """Listens no more; `start` takes it up again."""
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def follow(self, *scripts: Script) -> None:
        """Forgets what was, and follows these from now on."""
        self.requests = []
        self.scripts = list(scripts)

    def show(self, leaf: Leaf) -> None:
        """Shows this certificate from now on."""
        self.certificates.use(leaf)

    def _accept(self, listener: socket.socket) -> None:
        with contextlib.suppress(OSError):
            while True:
                connection, _ = listener.accept()
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, plain: socket.socket) -> None:
        """A connection may end by any error of the network or of TLS."""
        plain.settimeout(_SECONDS)
        with contextlib.suppress(OSError), plain:
            with self.certificates.context.wrap_socket(plain, server_side=True) as connection:
                self._converse(connection)

    def _converse(self, connection: ssl.SSLSocket) -> None:
        text = b""
        while b"\r\n\r\n" not in text:
            piece = connection.recv(65536)
            if not piece:
                return
            text += piece
        head, _, rest = text.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        method, target, _ = lines[0].split(" ")
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers[name.lower()] = value.strip()
        request = Request(method, target, headers, lines)
        self.requests.append(request)
        script = self.scripts.pop(0) if len(self.scripts) > 1 else self.scripts[0]
        exchange = Exchange(request, connection, rest)
        script(exchange)
        exchange.end()


def answers(status: str, headers: str = "", body: bytes = b"") -> Script:
    """A script: this answer."""
    def script(exchange: Exchange) -> None:
        exchange.answer(status, headers, body)
    return script


def raw(*pieces: bytes, repeat: int = 1) -> Script:
    """A script: these bytes, the last of them so many times, then the end."""
    def script(exchange: Exchange) -> None:
        for piece in pieces[:-1]:
            exchange.send(piece)
        for _ in range(repeat):
            exchange.send(pieces[-1])
    return script


@dataclass
class Image:
    """A file as a good server has it, and the ways in which a bad one spoils it."""

    data: bytes
    etag: str = '"v1"'
    modified: str = _MODIFIED
    ranges: bool = True
    heeds_if_range: bool = True
    extra: str = ""
    _range: re.Pattern = field(default=re.compile(r"bytes=(\d+)-$"), repr=False)

    def answer_to(self, request: Request) -> tuple[bytes, bytes]:
        """Head and body of the right answer."""
        lines = [f"Date: {_DATE}", "Connection: close"]
        lines += [f"ETag: {self.etag}"] if self.etag else []
        lines += [f"Last-Modified: {self.modified}"] if self.modified else []
        lines += self.extra.splitlines()
        same = (not self.heeds_if_range
                or request.headers.get("if-range", self.etag) in (self.etag, self.modified))
        asked = self._range.match(request.headers.get("range", ""))
        body, status = self.data, "200 OK"
        if self.ranges and asked and same:
            first = int(asked[1])
            body, status = self.data[first:], "206 Partial Content"
            lines.append(f"Content-Range: bytes {first}-{len(self.data) - 1}/{len(self.data)}")
        lines.append(f"Content-Length: {len(body)}")
        head = f"HTTP/1.1 {status}\r\n" + "".join(f"{line}\r\n" for line in lines) + "\r\n"
        return head.encode(), body

    def __call__(self, exchange: Exchange) -> None:
        """The script of a good server."""
        head, body = self.answer_to(exchange.request)
        exchange.send(head + body)

    def cut(self, at: int) -> Script:
        """A script: the connection breaks after so many bytes of the answer's body (counted from
        the end of its head; negative: within it)."""
        def script(exchange: Exchange) -> None:
            head, body = self.answer_to(exchange.request)
            exchange.send((head + body)[:len(head) + at])
            exchange.break_off()
        return script

    def ended(self, at: int) -> Script:
        """The same, but the connection is ended in good order."""
        def script(exchange: Exchange) -> None:
            head, body = self.answer_to(exchange.request)
            exchange.send(head + body[:at])
        return script

    def stalled(self, at: int) -> Script:
        """A script: nothing more comes after so many bytes."""
        def script(exchange: Exchange) -> None:
            head, body = self.answer_to(exchange.request)
            exchange.send((head + body)[:len(head) + at])
            exchange.stall()
        return script
