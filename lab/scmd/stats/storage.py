"""File systems that hold something."""

import os
from typing import Any

from lab.scmd.stats.sample import Device

MOST = 32
_OF_THE_KERNEL = {
    "autofs", "bpf", "cgroup", "cgroup2", "configfs", "debugfs", "devpts", "devtmpfs", "fusectl",
    "hugetlbfs", "mqueue", "nsfs", "proc", "pstore", "rpc_pipefs", "securityfs", "sysfs", "tracefs",
}


def _plain(word: str) -> str:
    """A path of /proc/mounts, in which blanks and the like are octal escapes."""
    return word.encode("latin-1", "replace").decode("unicode_escape", "replace")


def table(device: Device) -> list[dict[str, Any]]:
    """A row for each mounted folder; single files that are mounted are left out."""
    rows: dict[str, dict[str, Any]] = {}
    for line in device.text("/proc/mounts").splitlines():
        source, mount, kind = line.split()[:3]
        if kind in _OF_THE_KERNEL or len(rows) >= MOST:
            continue
        mount = _plain(mount)
        path = device.path(mount)
        try:
            if not path.is_dir():
                continue
            found = os.statvfs(path)
        except OSError:
            continue
        if found.f_blocks:
            rows[mount] = {"mount": mount, "device": _plain(source), "type": kind,
                           "size": found.f_blocks * found.f_frsize,
                           "used": (found.f_blocks - found.f_bfree) * found.f_frsize,
                           "available": found.f_bavail * found.f_frsize,
                           "inodesFree": found.f_favail}
    return list(rows.values())
