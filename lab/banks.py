"""The two banks of the device's flash and its boot loader: which firmware the next start runs.

"/mnt/flash/boot" names the bank to start from, "a" or "b"; "bank-a" and "bank-b" hold the firmware
with a file "version". Worked on from the host's side, while the device is down, which finds in
"/etc/velmora/bank" which one it runs from.
"""

from pathlib import Path
from typing import NamedTuple

from lab import device_image

FACTORY = {"a": device_image.SOFTWARE_VERSION, "b": device_image.BOARD["otherVersion"]}
"""The versions of a new device."""


class Versions(NamedTuple):
    """What runs, and what stands by ("" where there is nothing that could)."""

    active: str
    standby: str


def fill(flash: Path) -> None:
    """Gives a new device its firmware."""
    for name, version in FACTORY.items():
        bank = flash / f"bank-{name}"
        bank.mkdir()
        (bank / "version").write_text(version + "\n", encoding="ascii")
    (flash / "boot").write_text("a\n", encoding="ascii")


def starting(flash: Path) -> str:
    """The bank that the device starts from: the one that it is told to, or the other if there is
    nothing in that."""
    asked, other = ("b", "a") if _text(flash / "boot") == "b" else ("a", "b")
    return asked if _version(flash, asked) or not _version(flash, other) else other


def boot(flash: Path) -> Versions:
    """The device starts."""
    running = starting(flash)
    return Versions(_version(flash, running), _version(flash, "a" if running == "b" else "b"))


def _version(flash: Path, bank: str) -> str:
    return _text(flash / f"bank-{bank}" / "version")


def _text(path: Path) -> str:
    """A file's one line, "" if there is none. What the device has written may be anything."""
    try:
        return path.read_bytes()[:127].decode("ascii", "replace").strip() if path.is_file() else ""
    except OSError:
        return ""
