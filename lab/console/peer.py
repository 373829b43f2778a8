"""Who is at the other end of a connection from this machine: the user that its socket belongs to.

The lab is root's, and whoever moves it is as good as root. Its socket for commands has a mode; a
port of the loopback has none, so the console asks the kernel for the user behind each connection.
"""

import os
import socket
import struct
from typing import Optional

_ESTABLISHED = "01"
_NOBODY_LOGGED_IN = 4294967295


def address_word(host: str, port: int) -> str:
    """An IPv4 address as the kernel's table of sockets has it."""
    (number,) = struct.unpack("=I", socket.inet_aton(host))
    return f"{number:08X}:{port:04X}"


def user_of(table: str, local: tuple[str, int], remote: tuple[str, int]) -> Optional[int]:
    """The user of the open socket with these ends in the text of "/proc/net/tcp".

    None where there is none, or none any more: once its program has closed a socket, the kernel
    shows it as root's.
    """
    ends = [address_word(*local), address_word(*remote)]
    for line in table.splitlines()[1:]:
        words = line.split()
        if words[1:3] == ends:
            state, user, inode = words[3], words[7], words[9]
            return int(user) if state == _ESTABLISHED and inode != "0" else None
    return None


def trusted_users() -> frozenset[int]:
    """Root and whoever became root: the user of sudo, the one who logged in."""
    found = {0, os.getuid()}
    if os.environ.get("SUDO_UID", "").isdigit():
        found.add(int(os.environ["SUDO_UID"]))
    try:
        with open("/proc/self/loginuid", encoding="ascii") as file:
            found.add(int(file.read()))
    except (OSError, ValueError):
        pass
    return frozenset(found - {_NOBODY_LOGGED_IN})


class Peers:
    """The table of sockets of the network namespace in which this was made."""

    def __init__(self) -> None:
        # opened here and kept: the services' thread lives in another namespace
        self._table = open("/proc/thread-self/net/tcp", encoding="ascii")  # noqa: SIM115
        self._trusted = trusted_users()

    def close(self) -> None:
        """Lets the table go."""
        self._table.close()

    def trusts(self, transport: object) -> bool:
        """Whether the far end of this TCP connection belongs to a trusted user."""
        ends = [transport.get_extra_info(name) for name in ("peername", "sockname")]  # type: ignore
        if None in ends:
            return False
        self._table.seek(0)
        return user_of(self._table.read(), *ends) in self._trusted
