"""Network interfaces: state, addresses, counters."""

import fcntl
import ipaddress
import socket
import struct
from collections.abc import Callable
from typing import Any, Optional

from lab.scmd.stats.sample import Device

_SIOCGIFADDR = 0x8915
_FOLDER = "/sys/class/net"
COUNTERS = {
    "rxBytes": "rx_bytes", "rxPackets": "rx_packets", "rxErrors": "rx_errors",
    "rxDropped": "rx_dropped", "txBytes": "tx_bytes", "txPackets": "tx_packets",
    "txErrors": "tx_errors", "txDropped": "tx_dropped", "multicast": "multicast",
    "collisions": "collisions",
}


def names(device: Device) -> list[str]:
    """The interfaces; "/sys/class/net" may hold plain files too."""
    return [name for name in device.names(_FOLDER)
            if device.path(f"{_FOLDER}/{name}/statistics").is_dir()]


def _counter(device: Device, name: str, counter: str) -> Optional[int]:
    return device.number(f"{_FOLDER}/{name}/statistics/{COUNTERS[counter]}")


def total(counter: str) -> Callable[[Device], int]:
    """A counter summed over all interfaces but the loopback."""
    def read(device: Device) -> int:
        return sum(_counter(device, name, counter) or 0 for name in names(device) if name != "lo")
    return read


def _ipv4(name: str) -> Optional[str]:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asking:
        try:
            answer = fcntl.ioctl(asking, _SIOCGIFADDR, struct.pack("256s", name.encode()[:15]))
        except OSError:
            return None
    return socket.inet_ntoa(answer[20:24])


def _ipv6(device: Device, name: str) -> Optional[str]:
    """The address of widest scope: a global one before a link's own."""
    found = []
    for line in (device.word("/proc/net/if_inet6") or "").splitlines():
        words = line.split()
        if len(words) == 6 and words[5] == name:
            found.append((int(words[3], 16), str(ipaddress.IPv6Address(int(words[0], 16)))))
    return min(found)[1] if found else None


def _speed(device: Device, name: str) -> Optional[int]:
    speed = device.number(f"{_FOLDER}/{name}/speed")
    return speed if speed is not None and speed >= 0 else None


def table(device: Device) -> list[dict[str, Any]]:
    """A row for each interface."""
    rows = []
    for name in names(device):
        folder = f"{_FOLDER}/{name}"
        row: dict[str, Any] = {
            "name": name, "state": device.word(f"{folder}/operstate"),
            "mac": device.word(f"{folder}/address"), "mtu": device.number(f"{folder}/mtu"),
            "speed": _speed(device, name), "duplex": device.word(f"{folder}/duplex"),
            "ipv4": _ipv4(name), "ipv6": _ipv6(device, name),
        }
        row.update((counter, _counter(device, name, counter)) for counter in COUNTERS)
        rows.append(row)
    return rows
