"""The device as a whole: time, load, memory."""

import math
import time
from collections.abc import Callable
from typing import Optional

from lab.scmd.stats.sample import Device


def _real(word: str) -> float:
    """A number that JSON can hold."""
    value = float(word)
    if not math.isfinite(value):
        raise ValueError(f"{word} is out of range")
    return value


def uptime(device: Device) -> int:
    """Seconds since the kernel started."""
    return int(_real(device.text("/proc/uptime").split()[0]))


def clock(_device: Device) -> int:
    """Seconds since the epoch."""
    return int(time.time())


def hostname(device: Device) -> Optional[str]:
    """As the kernel has it."""
    return device.word("/proc/sys/kernel/hostname")


def kernel(device: Device) -> Optional[str]:
    """The kernel's release."""
    return device.word("/proc/sys/kernel/osrelease")


def load(minutes: int) -> Callable[[Device], float]:
    """The load average over 1, 5 or 15 minutes."""
    place = (1, 5, 15).index(minutes)
    return lambda device: _real(device.text("/proc/loadavg").split()[place])


def memory(*names: str) -> Callable[[Device], int]:
    """A line of /proc/meminfo in bytes; further names are taken away from the first."""
    def read(device: Device) -> int:
        lines = dict(line.split(":", 1) for line in device.text("/proc/meminfo").splitlines()
                     if ":" in line)
        values = [int(lines[name].split()[0]) * 1024 for name in names]
        return values[0] - sum(values[1:])
    return read
