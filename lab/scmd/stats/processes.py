"""Processes: how many there are, and the busiest."""

from typing import Any, NamedTuple, Optional

from lab.scmd.stats.sample import TICKS_PER_SECOND, Device

SHOWN = 10
_PAGE = 4096


class _Process(NamedTuple):
    pid: int
    name: str
    state: str
    ticks: int
    threads: int
    rss: int


def _one(device: Device, pid: int) -> Optional[_Process]:
    """One process by its "stat" file; None when it has ended meanwhile."""
    try:
        text = device.text(f"/proc/{pid}/stat")
        # the name stands in parentheses and may hold anything, those too
        name = text[text.index("(") + 1:text.rindex(")")]
        words = text[text.rindex(")") + 1:].split()
        return _Process(pid, name, words[0], int(words[11]) + int(words[12]), int(words[17]),
                        int(words[21]) * _PAGE)
    except (OSError, ValueError, IndexError):
        return None


def read(device: Device) -> list[_Process]:
    """All processes that the device sees; their times are noted in its sample."""
    found = [_one(device, int(name)) for name in device.names("/proc") if name.isdigit()]
    there = [process for process in found if process]
    device.now.processes = {process.pid: process.ticks for process in there}
    return there


def count(device: Device) -> int:
    """How many there are."""
    return sum(name.isdigit() for name in device.names("/proc"))


def _share(device: Device, process: _Process) -> float:
    """Of one core, in per cent, since the sample before; a new process counts from its birth."""
    if device.before is None:
        return 0.0
    seconds = device.now.when - device.before.when
    ticks = process.ticks - device.before.processes.get(process.pid, 0)
    return round(max(0, ticks) * 100.0 / TICKS_PER_SECOND / seconds, 1) if seconds > 0 else 0.0


def table(device: Device) -> list[dict[str, Any]]:
    """The busiest, then the largest."""
    rows = [{"pid": p.pid, "name": p.name, "state": p.state, "cpu": _share(device, p),
             "cpuTime": p.ticks * 1000 // TICKS_PER_SECOND, "rss": p.rss, "threads": p.threads}
            for p in read(device)]
    rows.sort(key=lambda row: (-row["cpu"], -row["rss"], row["pid"]))
    return rows[:SHOWN]
