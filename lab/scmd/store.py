"""The configuration in files: the running one, the stored one, and the items of db.json.

The daemon and the shell work on the same files, one at a time; each file is replaced whole.
"""

import fcntl
import json
import os
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from pathlib import Path

from lab.scmd import applied, model

CONFIG = Path("/mnt/flash/config/config.txt")
ITEMS = Path("/mnt/flash/config/db.json")
RUN = Path("/run/scmd")
RUNNING = RUN / "running.json"
_STAGED = RUN / "staged.json"


@contextmanager
def alone() -> Iterator[None]:
    """Keeps every other program that works on the configuration out."""
    with open(RUN / "lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def _replace(path: Path, text: str) -> None:
    beside = path.with_name(path.name + ".scmd")
    try:
        with open(beside, "w", encoding="utf-8") as file:
            file.write(text)
            file.flush()
            os.fsync(file.fileno())
        os.rename(beside, path)
    except OSError:
        beside.unlink(missing_ok=True)
        raise


def running() -> model.Config:
    """The configuration in force."""
    return json.loads(RUNNING.read_text(encoding="utf-8"))


def put_in_force(config: model.Config) -> None:
    """Makes the configuration the running one, on the device too. The items change by name: those
    that others keep in the same file stay."""
    before = running() if RUNNING.exists() else None
    _replace(RUNNING, json.dumps(config))
    try:
        known = json.loads(ITEMS.read_text(encoding="utf-8"))
    except (OSError, ValueError):
        known = {}
    now = {**known, **model.items(config)}
    if now != known:
        _replace(ITEMS, json.dumps(now) + "\n")
    applied.apply(config, before)


def save() -> None:
    """Stores the running configuration, in the text form, for the next start of the device."""
    _replace(CONFIG, "\n".join(model.to_lines(running())) + "\n")


def carried_out(lines: Iterable[str], config: model.Config) -> tuple[model.Config, list[str]]:
    """The configuration after these lines, and what is wrong with those that were passed over."""
    complaints = []
    for number, line in enumerate(lines, 1):
        try:
            config = model.carry_out(config, line)
        except model.Wrong as wrong:
            complaints.append(f"line {number}: {wrong}")
    try:
        model.complete(config)
    except model.Wrong as wrong:
        complaints.append(str(wrong))
    return config, complaints


def boot() -> list[str]:
    """Puts the stored configuration into force as the device starts, the defaults where there is
    none; returns what is wrong with it."""
    RUN.mkdir(parents=True, exist_ok=True)
    with alone():
        stored = CONFIG.exists()
        text = CONFIG.read_text(encoding="utf-8", errors="replace") if stored else ""
        config, complaints = carried_out(text.splitlines(), model.defaults())
        put_in_force(config)
        if not stored:
            save()
    return complaints


# -- single items, set one by one and applied together --------------------------------------

def stage(name: str, value: str) -> None:
    """Notes an item that the next `apply_staged` puts into the file of items."""
    staged = json.loads(_STAGED.read_text(encoding="utf-8")) if _STAGED.exists() else {}
    _replace(_STAGED, json.dumps({**staged, name: value}))


def apply_staged() -> None:
    """Puts the noted items into force."""
    if not _STAGED.exists():
        return
    staged = json.loads(_STAGED.read_text(encoding="utf-8"))
    known = json.loads(ITEMS.read_text(encoding="utf-8")) if ITEMS.exists() else {}
    _replace(ITEMS, json.dumps({**known, **staged}) + "\n")
    _STAGED.unlink()
