"""Makes docs/statistics.md from the vocabulary.

    python3 -m lab.scmd.stats.describe            write it
    python3 -m lab.scmd.stats.describe --check    write nothing; exit 1 if it would change
"""

import sys
from pathlib import Path

from lab.scmd.stats.vocabulary import FIELD_NAME_LIMIT, FIELDS, TABLES

PAGE = Path(__file__).resolve().parents[3] / "docs" / "statistics.md"

_HEAD = f"""<!-- Made by python3 -m lab.scmd.stats.describe from lab/scmd/stats: edit that. -->

# Statistics

The agent gathers nothing itself. It hands the names that the controller asks for to the device's
statistics daemon at "/var/tmp/scmd_server" and sends on what comes back, unchanged, as the member
"stats" of a report. What the names are is the daemon's own affair: this page describes the one of
the lab, in `lab/scmd/stats/`, which reads "/proc" and "/sys" and is a model for a maker's own.

## The daemon's side

A connection carries messages of four bytes, unsigned, big-endian, with the length (at most 4 MiB),
then that many bytes of JSON. The agent opens one for a request and closes it after the first good
answer; requests that it makes meanwhile share it. A report of 103 has the number 1, of 104 0, of 122
255, of 124 the subtype; the answer echoes both numbers.

```json
{{"mType": "STATS-GET", "stats-type": "orv-stats", "index": 2, "periodic": 1, "fields": ["uptime"], "tables": ["routes"]}}
{{"periodic": 1, "index": 2, "stats_result": {{"fields": {{"uptime": 86412}}, "tables": {{"routes": []}}}}}}
```

- An answer that has begun must be complete within ten seconds, and a request that is not taken in
  within 40 milliseconds is given up with the connection. Nothing else is waited for.
- A lost report is not asked for again; the next interval brings the next one. Where several slots
  fire at the same moment they share a connection and only the first answer counts: give them
  different periods.
- After a daemon could not be reached, the request that follows is lost as well.
- An answer above 64 KiB is made into its report by a child process, so that the agent's loop goes on.
  While more than 1 MiB waits to be sent, the agent drops what comes behind it, replies too: keep
  results well below that.

## The result

```json
{{"fields": {{"uptime": 86412, "temperature": null}}, "tables": {{"wireless": []}}, "unknown": {{"fields": ["colour"], "tables": []}}}}
```

- `fields` and `tables` hold what was asked for, each name once. A value that the device does not
  have is null, a table without rows is empty.
- `unknown` lists the names that nobody knows; it is left out when there is none.
- A report of 122 has a member `known` besides: every name with its unit.
- Counters are absolute and start at 0 with the kernel or the interface; whoever reads them makes the
  rates. Shares are counted since the last report of the same slot, the first since the start.
- A field's name has at most {FIELD_NAME_LIMIT} characters, longer ones are cut on the way to the daemon. Tables are
  reported whole: their column lists stay with the agent.
"""


def _cells(*cells: str) -> str:
    return "| " + " | ".join(cells) + " |"


def page() -> str:
    """The text that the page should have."""
    lines = ["", "## Fields", "", _cells("field", "unit", "meaning"), "|---|---|---|"]
    lines += [_cells(f"`{name}`", field.unit, field.meaning) for name, field in FIELDS.items()]
    lines += ["", "## Tables"]
    for name, table in TABLES.items():
        lines += ["", f"### {name}", "", table.meaning[0].upper() + table.meaning[1:] + ".", "",
                  _cells("column", "unit", "meaning"), "|---|---|---|"]
        lines += [_cells(f"`{column}`", unit, meaning)
                  for column, (unit, meaning) in table.columns.items()]
    return _HEAD + "\n".join(lines) + "\n"


def main(arguments: list[str]) -> int:
    """Writes the page, or only looks at it; returns the exit status."""
    if arguments == ["--check"]:
        return int(not PAGE.exists() or PAGE.read_text(encoding="utf-8") != page())
    PAGE.write_text(page(), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
