"""What a verb of `./dev ctl` is."""

import argparse
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

Request = tuple[str, dict[str, Any]]
"""A command of `lab.commands` and its arguments."""


class BadUsage(Exception):
    """What was typed cannot be meant; the text says why."""


def _no_arguments(_parser: argparse.ArgumentParser) -> None:
    pass


def _no_output(_arguments: argparse.Namespace, _data: dict[str, Any]) -> None:
    pass


@dataclass(frozen=True)
class Verb:
    """One verb; `words` is "group verb" or one word alone."""

    words: str
    help: str
    request: Callable[[argparse.Namespace], Request]
    arguments: Callable[[argparse.ArgumentParser], None] = _no_arguments
    output: Callable[[argparse.Namespace, dict[str, Any]], None] = _no_output
    """Prints what a finished command has found out."""
    bare: bool = False
    """Standard output is for `output` alone: the messages go to standard error."""
    stoppable: bool = False
    """Ctrl-C asks the lab to bring the command to an end; what it still says is shown."""


def count_of(text: str) -> int:
    """A positive number, for argparse."""
    if int(text) < 1:
        raise ValueError(text)
    return int(text)


count_of.__name__ = "positive number"
