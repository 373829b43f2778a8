"""Where a running lab listens for commands, and how the second terminal finds it.

Each lab has a socket in its own folder, which is root's alone and goes with the lab, even with one
that was killed. Nothing here needs more than Python's own library.
"""

import os
import socket
import tempfile
from dataclasses import dataclass
from pathlib import Path

from lab.device import FOLDER_PREFIX

_SOCKET = "ctl.sock"


@dataclass(frozen=True)
class Place:
    """One running lab: its name (the number of its process) and its folder."""

    name: str
    folder: Path


def _short_path(folder_fd: int) -> str:
    """The socket's path through a descriptor: the kernel takes at most 107 characters."""
    return f"/proc/self/fd/{folder_fd}/{_SOCKET}"


def listen(folder: Path) -> socket.socket:
    """A socket for commands in this lab's folder, bound and not yet listening."""
    folder_fd = os.open(folder, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        listener.bind(_short_path(folder_fd))
        os.chmod(folder / _SOCKET, 0o600)
    except OSError:
        listener.close()
        raise
    finally:
        os.close(folder_fd)
    return listener


def give_up(folder: Path) -> None:
    """Removes the socket of this lab."""
    (folder / _SOCKET).unlink(missing_ok=True)


def connect(place: Place) -> socket.socket:
    """A connection to a running lab."""
    folder_fd = os.open(place.folder, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        client.connect(_short_path(folder_fd))
    except OSError:
        client.close()
        raise
    finally:
        os.close(folder_fd)
    return client


def running() -> list[Place]:
    """The labs that take commands. A socket that nobody listens at any more is removed."""
    found = []
    for folder in sorted(Path(tempfile.gettempdir()).glob(f"{FOLDER_PREFIX}*-*")):
        place = Place(folder.name.removeprefix(FOLDER_PREFIX).split("-")[0], folder)
        try:
            if folder.lstat().st_uid != os.geteuid() or not (folder / _SOCKET).exists():
                continue
            connect(place).close()
        except ConnectionRefusedError:
            give_up(folder)
            continue
        except OSError:  # it has just ended
            continue
        found.append(place)
    return found
