"""Looks for what a lab may leave behind: processes, mounts, interfaces, namespaces, folders."""

import os
import tempfile
from dataclasses import dataclass
from pathlib import Path


def _parent(status: str) -> int:
    for line in status.splitlines():
        if line.startswith("PPid:"):
            return int(line.split()[1])
    return 0


def _children() -> set[str]:
    """The processes that descend from this one."""
    parents: dict[int, tuple[int, str]] = {}
    for folder in Path("/proc").iterdir():
        if not folder.name.isdigit():
            continue
        try:
            command = (folder / "cmdline").read_bytes().replace(b"\0", b" ").decode().strip()
            parents[int(folder.name)] = (_parent((folder / "status").read_text()), command)
        except OSError:  # it has just ended
            continue
    ours, grown = {os.getpid()}, True
    while grown:
        more = {pid for pid, (parent, _) in parents.items() if parent in ours} - ours
        ours |= more
        grown = bool(more)
    return {f"process {pid} ({parents[pid][1]})" for pid in ours - {os.getpid()}}


def _namespaces() -> set[str]:
    """The network namespaces that this process still holds by descriptor."""
    held = set()
    for fd in os.listdir("/proc/self/fd"):
        try:
            target = os.readlink(f"/proc/self/fd/{fd}")
        except OSError:
            continue
        if target.startswith("net:"):
            held.add(f"network namespace {target}")
    return held


@dataclass(frozen=True)
class Leftovers:
    """What there is at one moment."""

    found: frozenset[str]

    @staticmethod
    def look() -> "Leftovers":
        """Takes stock. Only what belongs to this process counts: others may run labs, too."""
        mounts = {f"mount {line.split()[4]}"
                  for line in Path("/proc/self/mountinfo").read_text().splitlines()}
        links = {f"interface {name}" for name in os.listdir("/sys/class/net")}
        folders = {f"folder {path}" for path in
                   Path(tempfile.gettempdir()).glob(f"quill-lab-{os.getpid()}-*")}
        return Leftovers(frozenset(_children() | _namespaces() | mounts | links | folders))

    def beyond(self, earlier: "Leftovers") -> list[str]:
        """What has come since then."""
        return sorted(self.found - earlier.found)
