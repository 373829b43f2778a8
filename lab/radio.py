"""The Wi-Fi daemon's other socket, at which the agent asks for radio scans.

It answers from a neighbourhood that changes over time, or misbehaves as it is told to.
"""

import asyncio
import os
import struct
from collections.abc import Iterable
from typing import Optional

from lab.device import Device
from lab.journal import Event, Journal
from lab.neighbourhood import AccessPoint, Channel, Neighbourhood
from lab.world import World

LISTENS_AT = "/var/tmp/wifid_agent"
REQUEST = bytes(12)
RESULT, FAILURE = 1, 2
_BANDS = {0: "5GHz", 1: "5GHz", 2: "5GHz", 3: "2.4GHz", 4: "2.4GHz", 5: "2.4GHz"}
"""The band of the radio that can scan, by SKU; the other variants have none."""


def channel_entry(channel: Channel) -> bytes:
    """16 bytes, in this machine's byte order."""
    return struct.pack("=iiii", channel.number, channel.interference, channel.noise, channel.count)


def neighbour_entry(point: AccessPoint) -> bytes:
    """88 bytes; a text that is too long is cut, between characters or not."""
    return struct.pack("=6s32s34sii8x", point.bssid, point.ssid.encode(), point.encryption.encode(),
                       point.channel, round(point.signal))


def result(channels: Iterable[bytes], neighbours: Iterable[bytes],
           counts: Optional[tuple[int, int]] = None) -> bytes:
    """A reply with these entries. `counts` says how many neighbours and channels it claims."""
    rows, others = list(channels), list(neighbours)
    claimed = counts or (len(others), len(rows))
    return struct.pack("=I6xBB", RESULT, *claimed) + b"".join(rows + others)


def failure(text: str) -> bytes:
    """A reply that says why there is no result."""
    return struct.pack("=I6x", FAILURE) + text.encode() + b"\0"


class Radio:
    """The daemon's socket inside the device; bind it again after the device has rebooted."""

    def __init__(self, world: World, journal: Journal, device: Device) -> None:
        self._world = world
        self._journal = journal
        self._device = device
        self._server: Optional[asyncio.AbstractServer] = None
        self._held: list[asyncio.StreamWriter] = []
        self.seconds = 0.3
        """How long a scan takes."""
        self.neighbourhood = Neighbourhood()
        self.pieces: Optional[list[bytes]] = None
        """What it answers in place of a scan, piece by piece; None: what it has found."""
        self.hangs_up = False
        """Whether it closes the connection behind its answer, as a daemon that has ended does."""

    def start(self) -> None:
        """Listens inside the (running) device."""
        self._world.wait(self._open())

    async def _open(self) -> None:
        path = f"/proc/{self._device.pid}/root{LISTENS_AT}"
        if os.path.lexists(path):
            os.unlink(path)
        self._server = await asyncio.start_unix_server(self._serve, path)

    def stop(self) -> None:
        """The daemon is gone; its socket's file stays."""
        if self._server is not None:
            self._world.call(self._close)

    def _close(self) -> None:
        self._server.close()
        self._server = None
        for writer in self._held:
            writer.transport.abort()
        self._held = []

    def misbehave(self, *pieces: bytes, hang_up: bool = False) -> None:
        """Answers each request with these pieces, a moment apart (none: not at all), until
        `behave`. With `hang_up` it closes the connection then, else it keeps it."""
        self.pieces, self.hangs_up = list(pieces), hang_up

    def behave(self) -> None:
        """Scans again."""
        self.pieces, self.hangs_up = None, False

    def reply(self) -> bytes:
        """What a scan finds now, as the daemon says it."""
        band = _BANDS.get(self._device.board.get("sku", 0))
        if band is None:
            return failure("this device has no radio that can scan")
        channels, heard = self.neighbourhood.scan(band)
        return result(map(channel_entry, channels), map(neighbour_entry, heard))

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        self._held.append(writer)
        try:
            request = await reader.readexactly(len(REQUEST))
            self._journal.note("scan-request", request=request)
            if request != REQUEST:
                self._journal.note("problem", text=f"a strange request for a scan: {request!r}")
            await self._answer(writer)
            if not self.hangs_up:
                await reader.read()  # until the agent closes
                self._journal.note("scan-left")
        except (ConnectionError, asyncio.IncompleteReadError):
            pass
        finally:
            writer.close()
            if writer in self._held:
                self._held.remove(writer)

    async def _answer(self, writer: asyncio.StreamWriter) -> None:
        if self.pieces is None:
            await asyncio.sleep(self.seconds)
        for number, piece in enumerate([self.reply()] if self.pieces is None else self.pieces):
            if number:
                await asyncio.sleep(0.05)
            writer.write(piece)
            await writer.drain()

    def wait_request(self, timeout: float = 10.0) -> Event:
        """The next request for a scan."""
        return self._journal.wait("scan-request", None, timeout, what="a request for a scan")

    def wait_left(self, timeout: float = 10.0) -> Event:
        """The next time that the agent closes its connection."""
        return self._journal.wait("scan-left", None, timeout, what="the agent to leave the radio")
