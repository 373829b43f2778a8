"""What a process shows of itself from outside: descriptors, memory, children."""

import os
import time
from pathlib import Path

from lab.lab import Lab


def _open_now(pid: int) -> set[tuple[str, str]]:
    """Number and target of each descriptor, the kernel's numbers of sockets left out."""
    folder = f"/proc/{pid}/fd"
    found = set()
    for fd in os.listdir(folder):
        try:
            found.add((fd, os.readlink(f"{folder}/{fd}").split("[")[0]))
        except FileNotFoundError:  # closed meanwhile
            continue
    return found


def descriptors(lab: Lab) -> list[str]:
    """What the agent keeps open. A log is open for a line at a time, so it looks more than once."""
    kept = _open_now(lab.supervisor.pid)
    for _ in range(4):
        time.sleep(0.01)
        kept &= _open_now(lab.supervisor.pid)
    return sorted(target for _, target in kept)


def lasting_descriptors(lab: Lab) -> list[str]:
    """The descriptors without the log, which is open only while a line is written."""
    return [name for name in descriptors(lab) if not name.startswith("/var/log/")]


FORGETFUL = {"ASAN_OPTIONS": "verify_asan_link_order=0:quarantine_size_mb=0:"
                             "thread_local_quarantine_size_kb=0"}
"""The environment in which a sanitizer keeps nothing of what is freed, for measuring memory."""


def private_memory(lab: Lab) -> int:
    """The bytes of memory that are the agent's alone and that it has written to."""
    text = Path(f"/proc/{lab.supervisor.pid}/smaps_rollup").read_text(encoding="ascii")
    return next(int(line.split()[1]) * 1024 for line in text.splitlines()
                if line.startswith("Private_Dirty:"))


def children(lab: Lab) -> list[str]:
    """The agent's children, dead ones that nobody has reaped too: "name state"."""
    found = []
    for folder in Path("/proc").iterdir():
        if not folder.name.isdigit():
            continue
        try:
            head, _, rest = (folder / "stat").read_text().rpartition(")")
        except OSError:  # it has just ended
            continue
        state, parent = rest.split()[:2]
        if int(parent) == lab.supervisor.pid:
            found.append(f"{head.partition('(')[2]} {state}")
    return found
