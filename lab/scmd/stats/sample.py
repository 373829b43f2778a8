"""The device at one moment: what sources read, and the moment that shares are counted from."""

import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional

TICKS_PER_SECOND = 100  # the unit of processor times in /proc, on every Linux


@dataclass
class Sample:
    """Counters that only mean something beside an earlier sample."""

    when: float
    """Seconds of the monotonic clock."""
    cores: dict[str, list[int]] = field(default_factory=dict)
    """Ticks of each line of /proc/stat, in its order: user, nice, system, idle, iowait, ..."""
    processes: dict[int, int] = field(default_factory=dict)
    """Ticks that each process has used."""


class Device:
    """What sources see of the device. `root` is its root folder: tests give one of their own."""

    def __init__(self, root: str = "/", before: Optional[Sample] = None) -> None:
        self._root = Path(root)
        self.before = before
        """The sample that this report's shares are counted from."""
        self.now = Sample(time.monotonic())
        self._texts: dict[str, str] = {}

    def path(self, name: str) -> Path:
        """Where "/proc/..." or "/sys/..." lies."""
        return self._root / name.lstrip("/")

    def text(self, name: str) -> str:
        """The text of a file, read once for a report; raises OSError where there is none."""
        if name not in self._texts:
            self._texts[name] = self.path(name).read_text(encoding="utf-8", errors="replace")
        return self._texts[name]

    def word(self, name: str) -> Optional[str]:
        """The text of a small file without its line's end, None where it cannot be read."""
        try:
            return self.text(name).strip()
        except OSError:
            return None

    def number(self, name: str) -> Optional[int]:
        """The number that a small file holds, None where there is none."""
        try:
            return int(self.text(name))
        except (OSError, ValueError):
            return None

    def names(self, folder: str) -> list[str]:
        """The names in a folder, in order; none where there is no such folder."""
        try:
            return sorted(entry.name for entry in self.path(folder).iterdir())
        except OSError:
            return []
