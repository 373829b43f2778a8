"""A host beyond the cable that answers pings late, or not at all, as it is told to.

Its address belongs to nobody, so no kernel answers for it: ARP and ICMP echo are answered here, from
a packet socket on the world's bridge.
"""

import contextlib
import random
import socket
import struct
from typing import Optional, Union

from lab import network
from lab.journal import Event, Journal
from lab.switch import mac_bytes
from lab.world import World

ADDRESS = "10.77.0.9"
NAME = "far.example"
_LINK = "world0"
_IPV4, _ARP = 0x0800, 0x0806
_ECHO_REPLY, _ECHO_REQUEST = 0, 8
_PACKET_OUTGOING = 4
_FRAME_LIMIT = 2048
_HOPS_LEFT = 60

Fate = Union[float, None]
"""What becomes of a request: answered after so many seconds, or (None) lost."""


def checksum(data: bytes) -> int:
    """The Internet checksum of these bytes."""
    data += b"\0" * (len(data) % 2)
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def echo_reply(identifier: int, sequence: int, data: bytes) -> bytes:
    """The ICMP packet that answers a request with these numbers and this data."""
    body = struct.pack("!HH", identifier, sequence) + data
    head = struct.pack("!BBH", _ECHO_REPLY, 0, 0)
    return struct.pack("!BBH", _ECHO_REPLY, 0, checksum(head + body)) + body


class Echo:
    """The host at ADDRESS. `fates` are the fates of the requests to come, in turn; behind the last
    of them, and without any, it is as far away hosts are: 15 to 60 ms, one of 20 lost."""

    def __init__(self, world: World, journal: Journal) -> None:
        self._world = world
        self._journal = journal
        self._link: Optional[socket.socket] = None
        self._dice = random.Random(7)
        self.fates: list[Fate] = []

    def start(self) -> None:
        """Answers from now on."""
        self._world.call(self._open)

    def _open(self) -> None:
        self._link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
        self._link.bind((_LINK, 3))  # every protocol
        self._link.setblocking(False)
        self._world.loop.add_reader(self._link, self._hear)

    def stop(self) -> None:
        """Answers no more."""
        if self._link is not None:
            self._world.call(self._close)

    def _close(self) -> None:
        self._world.loop.remove_reader(self._link)
        self._link.close()
        self._link = None

    def _send(self, frame: bytes) -> None:
        with contextlib.suppress(OSError, AttributeError):  # the link is down, or we have ended
            self._link.send(frame)

    def _hear(self) -> None:
        try:
            frame, (_, protocol, kind, _, sender) = self._link.recvfrom(_FRAME_LIMIT)
        except OSError:
            return
        if kind == _PACKET_OUTGOING:
            return
        if protocol == _ARP:
            self._answer_arp(frame[14:42], sender)
        elif protocol == _IPV4:
            self._hear_ip(frame[14:], sender)

    def _answer_arp(self, question: bytes, sender: bytes) -> None:
        ours = socket.inet_aton(ADDRESS)
        if len(question) < 28 or question[6:8] != b"\0\1" or question[24:28] != ours:
            return
        mac = mac_bytes(network.SWITCH_MAC)
        answer = struct.pack("!HHBBH", 1, _IPV4, 6, 4, 2) + mac + ours + question[8:18]
        self._send(sender + mac + struct.pack("!H", _ARP) + answer)

    def _hear_ip(self, packet: bytes, sender: bytes) -> None:
        header = (packet[0] & 15) * 4
        icmp = packet[header:struct.unpack("!H", packet[2:4])[0]]
        if (packet[9] != socket.IPPROTO_ICMP or packet[16:20] != socket.inet_aton(ADDRESS)
                or len(icmp) < 8 or icmp[0] != _ECHO_REQUEST):
            return
        identifier, sequence = struct.unpack("!HH", icmp[4:8])
        fate = self.fates.pop(0) if self.fates else self._usual_fate()
        self._journal.note("echo-request", identifier=identifier, sequence=sequence, icmp=icmp,
                           hops=packet[8], fate=fate)
        if fate is not None:
            answer = self._in_ip(echo_reply(identifier, sequence, icmp[8:]), packet[12:16])
            self._world.loop.call_later(fate, self._send, self._in_frame(answer, sender))

    def _usual_fate(self) -> Fate:
        return None if self._dice.random() < 0.05 else self._dice.uniform(0.015, 0.060)

    @staticmethod
    def _in_ip(icmp: bytes, target: bytes) -> bytes:
        def header(check: int) -> bytes:
            return struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(icmp), 0, 0, _HOPS_LEFT,
                               socket.IPPROTO_ICMP, check) + socket.inet_aton(ADDRESS) + target
        return header(checksum(header(0))) + icmp

    @staticmethod
    def _in_frame(packet: bytes, target: bytes) -> bytes:
        return target + mac_bytes(network.SWITCH_MAC) + struct.pack("!H", _IPV4) + packet

    def send(self, icmp: bytes) -> None:
        """Sends the device any ICMP packet."""
        packet = self._in_ip(icmp, socket.inet_aton(network.DEVICE_ADDRESS))
        self._world.call(self._send, self._in_frame(packet, mac_bytes(network.MACS["eth0"])))

    def requests(self) -> list[Event]:
        """The requests heard so far: "identifier", "sequence", "icmp" (all of it), "hops", "fate"."""
        return self._journal.events("echo-request")

    def wait_request(self, sequence: int, timeout: float = 10.0) -> Event:
        """The next request with this number."""
        return self._journal.wait("echo-request", lambda e: e["sequence"] == sequence, timeout,
                                  what=f"ping {sequence} to {ADDRESS}")
