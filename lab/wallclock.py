"""The device's time of day, wrong until somebody sets it. Timers do not notice, as on any Linux.

    lab.start_agent(binary, env=WallClock(lab.device).unset())
    ...
    clock.set()
"""

import struct
import subprocess
import time
from pathlib import Path

from lab.device import Device

_SOURCE = Path(__file__).with_suffix(".c")
_INSIDE = "/run/lab/shared"
BOOT_TIME = 300
"""Seconds after the beginning of 1970: what a device without a clock of its own starts with."""


class WallClock:
    """Builds the library behind it when first used; needs a C compiler."""

    def __init__(self, device: Device) -> None:
        self._shared = device.folder / "shared"

    def unset(self) -> dict[str, str]:
        """Makes it 1970; returns what a program's environment needs to live by this clock."""
        self._write(BOOT_TIME - int(time.time()))
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-Wall", "-Werror", "-o",
                        str(self._shared / "wallclock.so"), str(_SOURCE), "-ldl"], check=True)
        return {"LD_PRELOAD": f"{_INSIDE}/wallclock.so", "WALLCLOCK_FILE": f"{_INSIDE}/wallclock"}

    def set(self) -> None:
        """Makes it the right time for the programs that live by this clock."""
        self._write(0)

    def _write(self, shift: int) -> None:
        """In place: the programs have the file mapped."""
        path = self._shared / "wallclock"
        path.touch()
        with path.open("r+b") as file:
            file.write(struct.pack("=q", shift))
