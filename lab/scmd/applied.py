"""Makes a configuration true on the simulated device: its name, its "eth0", its route.

Whoever asks for a change waits for it, at times with a clock that runs a hundred times faster: what
is in force is read from the kernel directly, and what has to change goes through one run of `ip`.
"""

import fcntl
import socket
import struct
import subprocess
import sys
from typing import Optional

from lab.scmd.model import Config

UPLINK = "eth0"
_SIOCGIFADDR = 0x8915
_SIOCGIFNETMASK = 0x891B
_UP_GATEWAY = 3  # flags of a route


def _links() -> list[str]:
    return [name for _, name in socket.if_nameindex()]


def _address(link: str) -> str:
    """The (first) address of an interface with its prefix length, or an empty text."""
    request = struct.pack("256s", link.encode())
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asked:
        try:
            address = fcntl.ioctl(asked, _SIOCGIFADDR, request)[20:24]
            mask = fcntl.ioctl(asked, _SIOCGIFNETMASK, request)[20:24]
        except OSError:
            return ""
    return f"{socket.inet_ntoa(address)}/{int.from_bytes(mask, 'big').bit_count()}"


def _gateway() -> str:
    with open("/proc/net/route", encoding="ascii") as routes:
        for line in routes.readlines()[1:]:
            words = line.split()
            if words[1] == words[7] == "00000000" and int(words[3], 16) == _UP_GATEWAY:
                return socket.inet_ntoa(struct.pack("=L", int(words[2], 16)))
    return ""


def _commands(management: Config) -> list[str]:
    """What `ip` has to do so that the device is as the configuration says."""
    vlan, gateway = management["vlan"], management["gateway"]
    link = f"{UPLINK}.{vlan}" if vlan else UPLINK
    wanted = "" if management["address"] == "none" else management["address"]
    links, commands = _links(), []
    commands += [f"link delete {other}" for other in links
                 if other.startswith(UPLINK + ".") and other != link]
    if link != UPLINK and _address(UPLINK):
        commands.append(f"address flush dev {UPLINK}")
    if link not in links:
        commands += [f"link add link {UPLINK} name {link} type vlan id {vlan}", f"link set {link} up"]
    moved = _address(link) != wanted
    if moved and link in links:
        commands.append(f"address flush dev {link}")
    if moved and wanted:
        commands.append(f"address add {wanted} dev {link}")
    if moved or commands or _gateway() != gateway:
        commands.append(f"route replace default via {gateway} dev {link}" if gateway
                        else "route flush default")
    return commands


def apply(config: Config, before: Optional[Config]) -> None:
    """Changes what is not yet as the configuration says; returns when it is in force. `before` is
    the configuration until now: where it had the same network, that is left as somebody else (a
    DHCP client, a person) may have made it meanwhile.

    What the kernel refuses is reported and passed over: a gateway that cannot be reached, a VLAN on
    a kernel without them. The device then has no way out, as a real one would.
    """
    if socket.gethostname() != config["system"]["hostname"]:
        socket.sethostname(config["system"]["hostname"])
    same = before is not None and before["management"] == config["management"]
    if same or config["management"]["address"] == "dhcp":
        return
    commands = _commands(config["management"])
    if commands:
        done = subprocess.run(["ip", "-force", "-batch", "-"], input="\n".join(commands) + "\n",
                              capture_output=True, text=True, check=False)
        if done.returncode != 0:
            print(f"ip: {done.stderr.strip()}", file=sys.stderr)
