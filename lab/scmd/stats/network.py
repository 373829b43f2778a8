"""What the network stack knows: neighbours, routes, sockets."""

import socket
import struct
from collections.abc import Callable
from typing import Any, Optional

from lab.scmd.stats.sample import Device

_COMPLETE, _PERMANENT = 0x2, 0x4
_UP, _GATEWAY = 0x1, 0x2


def _rows(device: Device, name: str) -> list[list[str]]:
    """The lines of a table of the kernel without its heading, as words."""
    return [line.split() for line in device.text(name).splitlines()[1:]]


def neighbours(device: Device) -> list[dict[str, Any]]:
    """The ARP table."""
    found = []
    for address, _, flags, mac, _, interface in _rows(device, "/proc/net/arp"):
        bits = int(flags, 16)
        state = ("permanent" if bits & _PERMANENT else
                 "complete" if bits & _COMPLETE else "incomplete")
        found.append({"address": address, "mac": mac, "interface": interface, "state": state})
    return found


def _address(hexadecimal: str) -> str:
    """As /proc/net/route has it: the bytes of the machine's own number."""
    return socket.inet_ntoa(struct.pack("=I", int(hexadecimal, 16)))


def routes(device: Device) -> list[dict[str, Any]]:
    """The IPv4 routes in force."""
    found = []
    for words in _rows(device, "/proc/net/route"):
        if int(words[3], 16) & _UP:
            length = bin(int(words[7], 16)).count("1")
            found.append({"destination": f"{_address(words[1])}/{length}",
                          "gateway": _address(words[2]) if int(words[3], 16) & _GATEWAY else None,
                          "interface": words[0], "metric": int(words[6])})
    return found


def gateway(device: Device) -> Optional[str]:
    """The gateway of the default route with the best metric."""
    found = [(route["metric"], route["gateway"]) for route in routes(device)
             if route["destination"] == "0.0.0.0/0" and route["gateway"]]
    return min(found)[1] if found else None


def sockets(protocol: str, member: str) -> Callable[[Device], int]:
    """A number of /proc/net/sockstat, for instance of "TCP" its "inuse"."""
    def read(device: Device) -> int:
        for line in device.text("/proc/net/sockstat").splitlines():
            words = line.split()
            if words and words[0] == protocol + ":":
                return int(words[words.index(member) + 1])
        raise ValueError(f"/proc/net/sockstat has no {protocol}")
    return read


def wireless(device: Device) -> list[dict[str, Any]]:
    """The wireless interfaces, where the kernel has any."""
    found = []
    for line in (device.word("/proc/net/wireless") or "").splitlines()[2:]:
        name, _, rest = line.partition(":")
        words = [word.rstrip(".") for word in rest.split()]
        found.append({"name": name.strip(), "link": int(words[1]), "level": int(words[2]),
                      "noise": int(words[3]), "retries": int(words[7]), "missed": int(words[9])})
    return found
