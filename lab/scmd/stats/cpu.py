"""Processors: how busy they are, and what for."""

from typing import Any, Optional

from lab.scmd.stats.sample import TICKS_PER_SECOND, Device, Sample

_IDLE = (3, 4)  # idle, iowait
_STATES = ("user", "nice", "system", "idle", "iowait", "irq", "softirq", "steal")


def read(device: Device) -> None:
    """Notes the counters of all cores in the device's sample."""
    for line in device.text("/proc/stat").splitlines():
        words = line.split()
        if words and words[0].startswith("cpu"):
            device.now.cores[words[0]] = [int(word) for word in words[1:1 + len(_STATES)]]


def _use(before: Optional[Sample], now: Sample, core: str) -> Optional[float]:
    """The busy share of a core since the sample before, in per cent; None without a difference."""
    new = now.cores[core]
    old = before.cores.get(core, [0] * len(new)) if before else [0] * len(new)
    spent = [b - a for a, b in zip(old, new)]
    total = sum(spent)
    if total <= 0:
        return None
    idle = sum(spent[i] for i in _IDLE if i < len(spent))
    return round(min(100.0, max(0.0, 100.0 * (total - idle) / total)), 1)


def use(device: Device) -> Optional[float]:
    """The busy share of all cores together."""
    return _use(device.before, device.now, "cpu")


def count(device: Device) -> int:
    """How many cores there are."""
    cores = sum(core != "cpu" for core in device.now.cores)
    if cores == 0:
        raise ValueError("/proc/stat has no cores")
    return cores


def _kernel_counter(device: Device, name: str) -> int:
    for line in device.text("/proc/stat").splitlines():
        words = line.split()
        if words and words[0] == name:
            return int(words[1])
    raise ValueError(f"/proc/stat has no {name}")


def context_switches(device: Device) -> int:
    """Since the kernel started."""
    return _kernel_counter(device, "ctxt")


def interrupts(device: Device) -> int:
    """Since the kernel started."""
    return _kernel_counter(device, "intr")


def table(device: Device) -> list[dict[str, Any]]:
    """A row for each core."""
    rows = []
    for core, ticks in device.now.cores.items():
        if core == "cpu":
            continue
        row: dict[str, Any] = {"core": int(core[3:]), "use": _use(device.before, device.now, core)}
        row.update((name, ticks[i] * 1000 // TICKS_PER_SECOND if i < len(ticks) else None)
                   for i, name in enumerate(_STATES))
        rows.append(row)
    return rows
