"""The console's memory: messages, happenings and states in a small SQLite file, bounded.

A row is a dictionary with an "id" that grows, and "at", the time in seconds since the epoch.
"""

import json
import sqlite3
import threading
from pathlib import Path
from typing import Any, Optional

MOST_ROWS = 20_000
LONGEST_TEXT = 256 * 1024
"""Characters of a message that are kept."""
PREVIEW = 2048
"""Characters of a message that are shown before somebody asks for all of it."""
_SWEEP_EVERY = 256
Row = dict[str, Any]

_TABLES = {
    "messages": ("direction", "number", "name", "text", "size", "verdict", "connection"),
    "happenings": ("level", "kind", "text"),
    "states": ("state", "reason"),
}
"""Each table's columns beside "id" and "at"; "verdict" is JSON."""


def preview(message: Row) -> Row:
    """A message as lists show it: with the beginning of its text."""
    return {**message, "text": message["text"][:PREVIEW]}


class History:
    """The file; may be used from any thread. `close` keeps it, the lab's folder takes it away."""

    def __init__(self, path: Path, most: int = MOST_ROWS) -> None:
        self._most = most
        self._added = dict.fromkeys(_TABLES, 0)
        self._lock = threading.Lock()
        self._file = sqlite3.connect(path, check_same_thread=False, isolation_level=None)
        self._file.row_factory = sqlite3.Row
        self._file.execute("PRAGMA journal_mode=MEMORY")
        self._file.execute("PRAGMA synchronous=OFF")
        for table, columns in _TABLES.items():
            self._file.execute(f"CREATE TABLE IF NOT EXISTS {table} (id INTEGER PRIMARY KEY, "
                               f"at REAL, {', '.join(columns)})")

    def close(self) -> None:
        """Ends the use of the file."""
        with self._lock:
            self._file.close()

    def _add(self, table: str, at: float, values: Row) -> Row:
        columns = _TABLES[table]
        marks = ", ".join("?" * (len(columns) + 1))
        with self._lock:
            added = self._file.execute(
                f"INSERT INTO {table} (at, {', '.join(columns)}) VALUES ({marks})",
                (at, *(values[name] for name in columns)))
            self._added[table] += 1
            if self._added[table] % _SWEEP_EVERY == 0:
                self._file.execute(f"DELETE FROM {table} WHERE id <= "
                                   f"(SELECT max(id) FROM {table}) - ?", (self._most,))
        return {"id": added.lastrowid, "at": at, **values}

    def add_message(self, at: float, text: str, verdict: Any, **about: Any) -> Row:
        """Keeps a message; `verdict` is what the protocol's documents say, any JSON value."""
        row = self._add("messages", at, {**about, "text": text[:LONGEST_TEXT], "size": len(text),
                                         "verdict": json.dumps(verdict)})
        return {**row, "verdict": verdict}

    def add_happening(self, at: float, level: str, kind: str, text: str) -> Row:
        """Keeps a line for people."""
        return self._add("happenings", at, {"level": level, "kind": kind, "text": text})

    def add_state(self, at: float, state: str, reason: str) -> Row:
        """Keeps that the device is in this state from now on."""
        return self._add("states", at, {"state": state, "reason": reason})

    def newest(self, table: str, count: int, before: Optional[int] = None) -> list[Row]:
        """The last rows, or the last before an id; the oldest of them first."""
        if table not in _TABLES:
            raise ValueError(table)
        with self._lock:
            rows = self._file.execute(
                f"SELECT * FROM {table} WHERE ? IS NULL OR id < ? ORDER BY id DESC LIMIT ?",
                (before, before, count)).fetchall()
        return [self._row(row) for row in reversed(rows)]

    def message(self, number: int) -> Optional[Row]:
        """The message of this id with all its text; None when it is not (or no more) kept."""
        with self._lock:
            row = self._file.execute("SELECT * FROM messages WHERE id = ?", (number,)).fetchone()
        return self._row(row) if row else None

    @staticmethod
    def _row(row: sqlite3.Row) -> Row:
        found = dict(row)
        if "verdict" in found:
            found["verdict"] = json.loads(found["verdict"])
        return found
