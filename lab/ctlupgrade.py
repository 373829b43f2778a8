"""The words of `./dev ctl upgrade` and `./dev ctl support-archive`."""

import argparse
import re
import shutil
from typing import Any

from lab.ctlverb import BadUsage, Request, Verb
from lab.firmwarefaults import FAULTS

_VERSION = re.compile(r"[0-9A-Za-z.+-]{1,64}")


def _upgrade_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("what", metavar="VERSION|URL",
                        help="a version, of which an image is made, or the URL of an image")
    parser.add_argument("--auto-reboot", action="store_true",
                        help="the device reboots into it; done when it is registered again")
    parser.add_argument("--fault", metavar="KIND", help="go wrong: full-disk, status=N (of the "
                        "device's upgrade script), or with an image of a version: "
                        + "; ".join(f"{name}: {what}" for name, what in FAULTS.items()))


def _upgrade(arguments: argparse.Namespace) -> Request:
    what, fault = arguments.what, arguments.fault
    request: dict[str, Any] = {"auto_reboot": arguments.auto_reboot, "fault": fault}
    if "://" in what:
        request["url"] = what
    elif _VERSION.fullmatch(what):
        request["version"] = what
    else:
        raise BadUsage(f"{what!r} is neither a version nor a URL")
    known = fault in (None, "full-disk", *FAULTS) or re.fullmatch(r"status=\d{1,3}", fault)
    if not known:
        raise BadUsage(f"fault {fault!r} is none of full-disk, status=N, {', '.join(FAULTS)}")
    if fault in FAULTS and "url" in request:
        raise BadUsage(f"fault {fault!r} goes with a version, not with a URL")
    return "upgrade", request


def _archive_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("-o", "--output", metavar="FILE",
                        help="where to put it (without: under its own name, here)")


def _archive(arguments: argparse.Namespace, data: dict[str, Any]) -> None:
    target = arguments.output or data["name"]
    try:
        shutil.copyfile(data["path"], target)
    except OSError as error:
        raise BadUsage(f"{target}: {error.strerror}") from None
    for name, size in sorted(data["members"]):
        print(f"{size:>9}  {name}")
    print(f"it is in {target}")


FIRMWARE = (
    Verb("upgrade", "renew the device's firmware and show every stage", _upgrade,
         _upgrade_arguments),
    Verb("support-archive", "fetch an archive of the device's logs and state, and list it",
         lambda arguments: ("support-archive", {}), _archive_arguments, _archive),
)
