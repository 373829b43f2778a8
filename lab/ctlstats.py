"""The words of `./dev ctl stats`, and how statistics look in a terminal."""

import argparse
import time
from collections.abc import Iterable
from typing import Any

from lab.ctlverb import Request, Verb, count_of

_BARS = "▁▂▃▄▅▆▇█"
_PLOT_WIDTH = 60
_SHOWN_VALUES = 10


def _names(text: str) -> list[str]:
    return [name for name in text.split(",") if name]


def _list_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--fields", metavar="NAME,...", type=_names, default=[],
                        help="fields wanted (docs/statistics.md)")
    parser.add_argument("--tables", metavar="NAME,...", type=_names, default=[],
                        help="tables wanted")


def _subscribe_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("slot", metavar="SLOT", type=int, help="2 to 7")
    parser.add_argument("--interval", metavar="SECONDS", type=int, default=10,
                        help="by the device's clock (default: %(default)s)")
    _list_arguments(parser)


def _once_arguments(parser: argparse.ArgumentParser) -> None:
    kind = parser.add_mutually_exclusive_group()
    kind.add_argument("--info", action="store_true", help="ask what is known (122)")
    kind.add_argument("--custom", metavar="SUBTYPE", type=int, help="a custom report (124)")
    _list_arguments(parser)


def _once(arguments: argparse.Namespace) -> Request:
    kind = "info" if arguments.info else "once" if arguments.custom is None else "custom"
    return "stats-once", {"kind": kind, "fields": arguments.fields, "tables": arguments.tables,
                          "subtype": arguments.custom}


def _show_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("names", metavar="NAME", nargs="*",
                        help='"cpuUse", or "interfaces.eth0.rxBytes" '
                             "(without: the fields of the last report)")
    parser.add_argument("--last", metavar="N", type=count_of, default=_PLOT_WIDTH,
                        help="look at the last N reports (default: %(default)s)")
    parser.add_argument("--slot", metavar="SLOT", type=int, help="only at those of this slot")


# -- how it looks ---------------------------------------------------------------------------

def shown(value: Any) -> str:
    """A value in few characters."""
    if value is None:
        return "-"
    return f"{value:.1f}" if isinstance(value, float) else str(value)


def columns(rows: list[list[str]]) -> str:
    """Rows of texts under each other."""
    widths = [max(map(len, column)) for column in zip(*rows)]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
                     for row in rows)


def plot(values: Iterable[float]) -> str:
    """A line of bars, the smallest value the lowest, the newest to the right."""
    numbers = list(values)[-_PLOT_WIDTH:]
    low, high = min(numbers), max(numbers)
    steps = len(_BARS) - 1
    return "".join(_BARS[round((n - low) / (high - low) * steps) if high > low else 0]
                   for n in numbers)


def picture(series: dict[str, Any]) -> str:
    """One name's values: a plot where they are numbers, and the newest of them."""
    name = series["name"] + (f" ({series['unit']})" if series["unit"] else "")
    points = series["points"]
    if not points:
        return f"{name}: no values"
    lines = [name]
    values = [value for _, value in points]
    if all(isinstance(value, (int, float)) and not isinstance(value, bool) for value in values):
        lines.append(f"  {plot(values)}  {shown(min(values))} to {shown(max(values))}")
    lines += ["  " + time.strftime("%H:%M:%S", time.localtime(when)) + f"  {shown(value)}"
              for when, value in points[-_SHOWN_VALUES:]]
    return "\n".join(lines)


def _print_once(_arguments: argparse.Namespace, data: dict[str, Any]) -> None:
    stats = data["stats"]
    if not isinstance(stats, dict):
        print(shown(stats))
        return
    if stats.get("fields"):
        print(columns([[name, shown(value)] for name, value in stats["fields"].items()]))
    for name, rows in (stats.get("tables") or {}).items():
        print(f"\n{name}" + ("" if rows else ": no rows"))
        if rows:
            print(columns([list(rows[0])] + [[shown(v) for v in row.values()] for row in rows]))
    known = stats.get("known")
    if known:
        print("fields: " + ", ".join(known["fields"]) + "\ntables: " + ", ".join(known["tables"]))
    for kind, names in (stats.get("unknown") or {}).items():
        if names:
            print(f"unknown {kind}: {', '.join(names)}")


def _print_series(_arguments: argparse.Namespace, data: dict[str, Any]) -> None:
    print("\n\n".join(picture(series) for series in data["series"]))


STATS = (
    Verb("stats subscribe", "start a periodic report; it is asked for again after a reconnect",
         lambda a: ("stats-subscribe", {"slot": a.slot, "interval": a.interval,
                                        "fields": a.fields, "tables": a.tables}),
         _subscribe_arguments),
    Verb("stats stop", "end a periodic report", lambda a: ("stats-stop", {"slot": a.slot}),
         lambda parser: parser.add_argument("slot", metavar="SLOT", type=int, help="2 to 7") and None),
    Verb("stats once", "one report, now", _once, _once_arguments, _print_once),
    Verb("stats show", "values of the reports received so far, counters as rates",
         lambda a: ("stats-show", {"names": a.names, "last": a.last, "slot": a.slot}),
         _show_arguments, _print_series),
    Verb("stats watch", "show reports as they come (Ctrl-C ends it)",
         lambda a: ("stats-watch", {"count": a.count}),
         lambda parser: parser.add_argument("--count", metavar="N", type=count_of, default=0,
                                            help="end after N reports") and None),
)
