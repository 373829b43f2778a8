"""The controller's memory of statistics: every report in a small SQLite file, the oldest forgotten.

A value is named as people write it: "cpuUse" is a field, "interfaces.eth0.rxBytes" the column of a
table in the row whose first column is "eth0".
"""

import json
import sqlite3
import threading
from pathlib import Path
from typing import Any, Iterator, NamedTuple, Optional

from lab.journal import Event
from lab.scmd.stats.vocabulary import FIELDS, TABLES

KINDS = (403, 404, 422, 424)
MOST_REPORTS = 20_000
LONGEST_TEXT = 64 * 1024
"""Of longer statistics only the fact is kept."""
_SWEEP_EVERY = 256
Point = tuple[float, Any]


class Report(NamedTuple):
    """One report as it was received."""

    when: float
    """By the controller's clock."""
    number: int
    slot: Optional[int]
    """Of a periodic report."""
    stats: Any


class Reports:
    """The file; may be used from any thread. `close` keeps it, the lab's folder takes it away."""

    def __init__(self, path: Path, most: int = MOST_REPORTS) -> None:
        self._most = most
        self._added = 0
        self._lock = threading.Lock()
        self._file = sqlite3.connect(path, check_same_thread=False, isolation_level=None)
        self._file.execute("PRAGMA journal_mode=MEMORY")
        self._file.execute("PRAGMA synchronous=OFF")
        self._file.execute("CREATE TABLE IF NOT EXISTS reports (id INTEGER PRIMARY KEY, "
                           "whenSeen REAL, number INTEGER, slot INTEGER, stats TEXT)")

    def close(self) -> None:
        """Ends the use of the file; what is noted later is lost."""
        with self._lock:
            self._file.close()
            self._most = 0

    def listen(self, event: Event) -> None:
        """Keeps what a journal tells of, if it is a report."""
        if event.kind == "from-agent" and event["message"].get("msgType") in KINDS:
            self.add(event["message"], event.wall)

    def add(self, message: dict[str, Any], when: float) -> None:
        """Keeps one report."""
        text = json.dumps(message.get("stats"))
        row = (when, message["msgType"], message.get("index"),
               text if len(text) <= LONGEST_TEXT else None)
        with self._lock:
            if self._most == 0:
                return
            self._file.execute("INSERT INTO reports (whenSeen, number, slot, stats) "
                               "VALUES (?, ?, ?, ?)", row)
            self._added += 1
            if self._added % _SWEEP_EVERY == 0:
                self._file.execute("DELETE FROM reports WHERE id <= "
                                   "(SELECT max(id) FROM reports) - ?", (self._most,))

    def newest(self, count: int, slot: Optional[int] = None) -> list[Report]:
        """The last reports, the oldest of them first; of one slot or of all."""
        with self._lock:
            rows = self._file.execute(
                "SELECT whenSeen, number, slot, stats FROM reports WHERE ? IS NULL OR slot = ? "
                "ORDER BY id DESC LIMIT ?", (slot, slot, count)).fetchall()
        return [Report(when, number, at, json.loads(text) if text else None)
                for when, number, at, text in reversed(rows)]

    def count(self) -> int:
        """How many are kept."""
        with self._lock:
            return self._file.execute("SELECT count(*) FROM reports").fetchone()[0]

    def series(self, name: str, count: int, slot: Optional[int] = None) -> list[Point]:
        """The values of this name in the last reports that have it."""
        found = ((report.when, value_of(report.stats, name))
                 for report in self.newest(count, slot))
        return [(when, value) for when, value in found if value is not None]


def value_of(stats: Any, name: str) -> Any:
    """The value of this name in one report; None where it has none."""
    try:
        table, _, rest = name.partition(".")
        if not rest:
            return stats["fields"].get(name)
        row_name, _, column = rest.rpartition(".")
        for row in stats["tables"][table]:
            if str(next(iter(row.values()))) == row_name:
                return row.get(column)
    except (KeyError, TypeError, AttributeError, StopIteration):
        pass
    return None


def names_in(stats: Any) -> Iterator[str]:
    """The fields of a report."""
    if isinstance(stats, dict) and isinstance(stats.get("fields"), dict):
        yield from stats["fields"]


def unit_of(name: str) -> str:
    """The unit of a name that the lab's daemon knows, else ""."""
    if name in FIELDS:
        return FIELDS[name].unit
    table, column = name.partition(".")[0], name.rpartition(".")[2]
    return TABLES[table].columns.get(column, ("", ""))[0] if table in TABLES else ""


def rates(points: list[Point]) -> list[Point]:
    """What a counter grew by in each second. One that went back has started anew: no rate there."""
    found = []
    for (before, old), (when, new) in zip(points, points[1:]):
        if when > before and new >= old:
            found.append((when, (new - old) / (when - before)))
    return found
