"""Runs one command inside a fresh simulated access point and passes its exit status on.

    /usr/bin/python3 -m lab.exec [--writable DIR]... -- COMMAND [ARGUMENT...]

The device has its files and tools, "eth0" and "eth1", and no controller. The command starts in
the current folder where that is inside the repository, else in "/". Unit tests run this way, so
that they work on the real paths without touching the host.
"""

import argparse
import os
import signal
import sys
from pathlib import Path
from types import FrameType
from typing import Optional

from lab import device as device_module
from lab.device import BASE_ENVIRONMENT, REPOSITORY, Device
from lab.network import Network

_ENDING = (signal.SIGTERM, signal.SIGHUP, signal.SIGINT)


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="python3 -m lab.exec", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--writable", metavar="DIR", action="append", default=[],
                        help="a folder of the host that the command may write to")
    parser.add_argument("command", nargs="+")
    return parser.parse_args()


def _environment() -> dict[str, str]:
    """The caller's environment with the device's own search path and home."""
    return {**os.environ, **BASE_ENVIRONMENT}


def _end(number: int, _frame: Optional[FrameType]) -> None:
    for other in _ENDING:
        signal.signal(other, signal.SIG_IGN)  # the clean-up runs undisturbed
    raise SystemExit(128 + number)


def main() -> int:
    """Makes the device, runs the command, removes the device."""
    arguments = _arguments()
    device_module.require_root()
    here = Path.cwd()
    inside = here.is_relative_to(REPOSITORY)
    for number in _ENDING:
        signal.signal(number, _end)
    try:
        with Network() as network, Device(network.device_fd,
                                          writable=arguments.writable) as device:
            process = device.popen(arguments.command, cwd=str(here) if inside else "/",
                                   env=_environment(), start_new_session=False)
            status = process.wait()
    except (OSError, RuntimeError) as error:
        print(f"lab.exec: {error}", file=sys.stderr)
        return 127 if isinstance(error, FileNotFoundError) else 125
    return 128 - status if status < 0 else status


if __name__ == "__main__":
    sys.exit(main())
