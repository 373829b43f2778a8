"""Ends a program of the lab in good order on Ctrl-C and on signals."""

import signal
from types import FrameType
from typing import Optional

_ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Stop(Exception):
    """The user or a signal asked for the end."""


def _on_signal(_number: int, _frame: Optional[FrameType]) -> None:
    for number in _ENDING:
        signal.signal(number, signal.SIG_IGN)  # the clean-up runs undisturbed
    raise Stop


def on_signals() -> None:
    """From now on the first ending signal raises `Stop` in the main thread."""
    for number in _ENDING:
        signal.signal(number, _on_signal)
