"""The kernel calls that Python 3.11 does not offer: namespaces, mounts, process controls.

Every function raises OSError with the call's name when the kernel refuses.
"""

import ctypes
import os
import platform
import struct
import threading
from typing import Any, Callable

CLONE_NEWNS = 0x00020000
CLONE_NEWUTS = 0x04000000
CLONE_NEWIPC = 0x08000000
CLONE_NEWPID = 0x20000000
CLONE_NEWNET = 0x40000000

MS_RDONLY = 0x1
MS_NOSUID = 0x2
MS_NODEV = 0x4
MS_NOEXEC = 0x8
MS_REMOUNT = 0x20
MS_BIND = 0x1000
MS_REC = 0x4000
MS_PRIVATE = 0x40000
MNT_DETACH = 2

IN_CLOSE_WRITE = 0x8
IN_MOVED_TO = 0x80

CAP_SYS_MODULE = 16
CAP_SYS_RAWIO = 17
CAP_SYS_TIME = 25

_PR_SET_PDEATHSIG = 1
_PR_CAPBSET_DROP = 24
_RESOLVE_IN_ROOT = 0x10
_SYS_OPENAT2 = 437
_SYS_PIVOT_ROOT = {"x86_64": 155, "aarch64": 41, "riscv64": 41, "armv7l": 218, "ppc64le": 203}

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result: int, what: str) -> int:
    if result == -1:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")
    return result


def unshare(flags: int) -> None:
    """Moves the calling thread into new namespaces of the kinds in `flags`."""
    _check(_libc.unshare(ctypes.c_int(flags)), "unshare")


def setns(fd: int, kind: int) -> None:
    """Moves the calling thread into the namespace behind `fd` (CLONE_NEWPID: only its children)."""
    _check(_libc.setns(ctypes.c_int(fd), ctypes.c_int(kind)), "setns")


def mount(source: str, target: str, fstype: str = "", flags: int = 0, data: str = "") -> None:
    """mount(2)."""
    _check(_libc.mount(source.encode(), target.encode(), fstype.encode() or None,
                       ctypes.c_ulong(flags), data.encode() or None), f"mount on {target}")


def detach(target: str) -> None:
    """Takes the mount at `target`, and what is mounted below it, out of the tree."""
    _check(_libc.umount2(target.encode(), ctypes.c_int(MNT_DETACH)), f"unmount {target}")


def pivot_root_here(new_root: str) -> None:
    """Makes `new_root` the root of this mount namespace and lets go of the old root entirely."""
    number = _SYS_PIVOT_ROOT.get(platform.machine())
    if number is None:
        raise OSError(0, f"pivot_root: no call number known for {platform.machine()}")
    os.chdir(new_root)
    _check(_libc.syscall(ctypes.c_long(number), b".", b"."), "pivot_root")
    detach(".")
    os.chdir("/")


def sethostname(name: str) -> None:
    """Names the host of this UTS namespace."""
    raw = name.encode()
    _check(_libc.sethostname(raw, ctypes.c_size_t(len(raw))), "sethostname")


def die_with_parent(signal_number: int) -> None:
    """Asks for `signal_number` when the thread that forked this process ends, however it ends."""
    _check(_libc.prctl(_PR_SET_PDEATHSIG, ctypes.c_ulong(signal_number), 0, 0, 0), "prctl")


def drop_capability(capability: int) -> None:
    """Bars this process, and all it will run, from gaining `capability` at any later exec."""
    _check(_libc.prctl(_PR_CAPBSET_DROP, ctypes.c_ulong(capability), 0, 0, 0), "prctl")


class _OpenHow(ctypes.Structure):
    _fields_ = [("flags", ctypes.c_uint64), ("mode", ctypes.c_uint64),
                ("resolve", ctypes.c_uint64)]


def open_in_root(root_fd: int, path: str, flags: int, mode: int = 0) -> int:
    """Opens `path` as if the folder `root_fd` were "/": its symbolic links cannot lead outside."""
    how = _OpenHow(flags | os.O_CLOEXEC, mode if flags & os.O_CREAT else 0, _RESOLVE_IN_ROOT)
    fd = _libc.syscall(ctypes.c_long(_SYS_OPENAT2), ctypes.c_int(root_fd), path.encode(),
                       ctypes.byref(how), ctypes.c_size_t(ctypes.sizeof(how)))
    if fd == -1:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error), path)
    return int(fd)


def in_thread(function: Callable[[], Any]) -> Any:
    """Runs `function` in a thread of its own, for calls that change the thread they run in."""
    outcome: dict[str, Any] = {}

    def body() -> None:
        try:
            outcome["value"] = function()
        except BaseException as error:  # handed to the caller below
            outcome["error"] = error

    thread = threading.Thread(target=body, name="lab-namespace")
    thread.start()
    thread.join()
    if "error" in outcome:
        raise outcome["error"]
    return outcome["value"]


def new_network_namespace() -> int:
    """Makes a network namespace and returns a descriptor; it lives as long as somebody holds it."""
    def make() -> int:
        unshare(CLONE_NEWNET)
        return os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
    return in_thread(make)


def watch_folder(path: str, events: int) -> int:
    """A descriptor that is readable whenever one of the `events` has happened in the folder."""
    fd = _check(_libc.inotify_init1(ctypes.c_int(os.O_NONBLOCK | os.O_CLOEXEC)), "inotify_init1")
    try:
        _check(_libc.inotify_add_watch(ctypes.c_int(fd), path.encode(), ctypes.c_uint32(events)),
               f"watch {path}")
    except OSError:
        os.close(fd)
        raise
    return fd


def changed_names(report: bytes) -> set[str]:
    """The names of the files in what was read from such a descriptor."""
    names, offset = set(), 0
    while offset < len(report):
        _, _, _, length = struct.unpack_from("iIII", report, offset)
        offset += 16
        names.add(report[offset:offset + length].rstrip(b"\0").decode(errors="replace"))
        offset += length
    return names
