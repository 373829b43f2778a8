"""The switch at the other end of the device's cable: hears its LLDP frames and answers them."""

import contextlib
import socket
import struct
from typing import Optional

from lab import network
from lab.journal import Event, Journal
from lab.world import World

LLDP_GROUP = bytes.fromhex("0180c200000e")
ETHERTYPE = 0x88CC
MARKER = bytes.fromhex("fe05024f56ab01")
_PACKET_OUTGOING = 4
_FRAME_LIMIT = 2048


def mac_bytes(text: str) -> bytes:
    """The six bytes of a MAC address text."""
    return bytes.fromhex(text.replace(":", ""))


def tlv(kind: int, value: bytes) -> bytes:
    """One LLDP item: seven bits of type, nine of length, the value."""
    return struct.pack("!H", kind << 9 | len(value)) + value


def answer_frame(mac: str = network.SWITCH_MAC, marked: bool = True,
                 source: Optional[str] = None) -> bytes:
    """A switch's LLDP frame: chassis MAC, port, time to live and, if `marked`, the marker."""
    items = tlv(1, b"\x04" + mac_bytes(mac)) + tlv(2, b"\x05port0") + tlv(3, struct.pack("!H", 120))
    if marked:
        items += MARKER
    return (LLDP_GROUP + mac_bytes(source or mac) + struct.pack("!H", ETHERTYPE) + items
            + tlv(0, b""))


class Switch:
    """Listens at both ports. `mode`: "marked" answers as the maker's switch does, "unmarked" as
    any other, "silent" not at all."""

    def __init__(self, world: World, journal: Journal) -> None:
        self._world = world
        self._journal = journal
        self._sockets: dict[str, socket.socket] = {}
        self.mode = "marked"

    def start(self) -> None:
        """Listens from now on."""
        self._world.call(self._open)

    def _open(self) -> None:
        for name, port in network.PORTS.items():
            link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETHERTYPE))
            link.bind((port, ETHERTYPE))
            link.setblocking(False)
            self._sockets[name] = link
            self._world.loop.add_reader(link, self._hear, name, link)

    def stop(self) -> None:
        """Listens no more."""
        if self._sockets:
            self._world.call(self._close)

    def _close(self) -> None:
        for link in self._sockets.values():
            self._world.loop.remove_reader(link)
            link.close()
        self._sockets = {}

    def _hear(self, name: str, link: socket.socket) -> None:
        try:
            frame, (_, _, kind, _, _) = link.recvfrom(_FRAME_LIMIT)
        except OSError:
            return
        if kind == _PACKET_OUTGOING:
            return
        self._journal.note("lldp", interface=name, frame=frame)
        if self.mode != "silent":
            with contextlib.suppress(OSError):  # the link has just been cut
                link.send(answer_frame(marked=self.mode == "marked"))

    def send(self, frame: bytes, interface: str = "eth0") -> None:
        """Sends any frame towards the device."""
        self._world.call(self._sockets[interface].send, frame)

    def frames(self) -> list[Event]:
        """The LLDP frames heard so far: "interface" and "frame"."""
        return self._journal.events("lldp")

    def wait_frame(self, interface: str = "eth0", timeout: float = 20.0) -> bytes:
        """The next LLDP frame that the agent sends out of this interface."""
        return self._journal.wait("lldp", lambda e: e["interface"] == interface, timeout,
                                  what=f"an LLDP frame on {interface}")["frame"]
