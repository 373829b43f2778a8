"""The words of `./dev ctl fault`."""

import argparse
from typing import Any

from lab.ctlverb import Verb


def _name(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("name", metavar="NAME", help="as `fault list` shows it")


def _listed(_arguments: argparse.Namespace, data: dict[str, Any]) -> None:
    for fault in data["faults"]:
        mark = "*" if fault["active"] else " "
        print(f"{mark} {fault['name']:16} {fault['meaning']}")


FAULTS = (
    Verb("fault list", "show what can go wrong on demand (* marks what has)",
         lambda a: ("faults", {}), output=_listed),
    Verb("fault begin", "let it go wrong", lambda a: ("fault-begin", {"name": a.name}), _name),
    Verb("fault end", "mend it", lambda a: ("fault-end", {"name": a.name}), _name),
)
