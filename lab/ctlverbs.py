"""The words of `./dev ctl`: for each verb its arguments, the command it stands for, what it prints.

A new group of verbs is one more tuple in `GROUPS`.
"""

import argparse
import datetime
import json
import sys
from pathlib import Path
from typing import Any, Callable, Optional

from lab.ctlfaults import FAULTS
from lab.ctlprobe import PROBES
from lab.ctlrun import RUN
from lab.ctlstats import STATS
from lab.ctlupgrade import FIRMWARE
from lab.ctlverb import BadUsage, Request, Verb, count_of

# -- config ---------------------------------------------------------------------------------

def _read(name: str) -> str:
    try:
        raw = sys.stdin.buffer.read() if name == "-" else Path(name).read_bytes()
        return raw.decode("utf-8")
    except OSError as error:
        raise BadUsage(f"{name}: {error.strerror}") from None
    except UnicodeDecodeError:
        raise BadUsage(f"{name}: this is not UTF-8 text") from None


def _push_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("file", metavar="FILE", help='the configuration; "-" is standard input')
    form = parser.add_mutually_exclusive_group()
    form.add_argument("--object", dest="form", action="store_const", const="object",
                      help="it is a JSON object")
    form.add_argument("--cli", dest="form", action="store_const", const="cli",
                      help="it is text for the device's shell "
                           "(without either: an object if it can be read as one)")
    parser.add_argument("--overwrite", action="store_true",
                        help="it replaces the whole configuration; with text the device reboots")
    parser.add_argument("--native", metavar="FILE", help="a native part, applied behind an object")


def _push(arguments: argparse.Namespace) -> Request:
    text = _read(arguments.file)
    config: Any = text
    if arguments.form != "cli":
        try:
            config = json.loads(text)
            if not isinstance(config, dict):
                raise ValueError("it is JSON, but not an object")
        except ValueError as error:
            if arguments.form == "object":
                raise BadUsage(f"{arguments.file}: not a JSON object: {error}") from None
            config = text
    if arguments.native and isinstance(config, str):
        raise BadUsage("--native goes with an object only")
    native = _read(arguments.native) if arguments.native else None
    return "config-push", {"config": config, "overwrite": arguments.overwrite, "native": native}


def _pull_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("file", metavar="FILE", nargs="?", default="-",
                        help="where to write it (without: to standard output)")


def _pulled(arguments: argparse.Namespace, data: dict[str, Any]) -> None:
    if arguments.file == "-":
        sys.stdout.write(data["config"])
        return
    try:
        Path(arguments.file).write_text(data["config"], encoding="utf-8")
    except OSError as error:
        raise BadUsage(f"{arguments.file}: {error.strerror}") from None


CONFIG = (
    Verb("config push", "change the device's configuration", _push, _push_arguments),
    Verb("config pull", "read the device's stored configuration",
         lambda arguments: ("config-pull", {}), _pull_arguments, _pulled, bare=True),
)


# -- directives -----------------------------------------------------------------------------

def _integer(text: str) -> int:
    value = int(text)
    if not -2**31 <= value < 2**31:
        raise ValueError(text)
    return value


_integer.__name__ = "32-bit integer"  # argparse names it so in its complaints


def _reboot_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--reason", metavar="TEXT", help="handed to the device's shutdown script")
    parser.add_argument("--delay", metavar="SECONDS", type=_integer,
                        help="until the connection is closed (the device's default: 5)")
    parser.add_argument("--force", action="store_true")


def _intervals_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("wait", metavar="WAIT", type=_integer, help="seconds")
    parser.add_argument("delta", metavar="DELTA", type=_integer,
                        help="seconds of which a random part is added")


def _clock(arguments: argparse.Namespace) -> Request:
    """Seconds since the epoch, or a date in UTC."""
    text = arguments.time
    try:
        return "clock", {"seconds": int(text)}
    except ValueError:
        pass
    try:
        when = datetime.datetime.fromisoformat(text)
    except ValueError:
        raise BadUsage(f'{text!r} is no time; try 1767323045 or "2026-01-02 03:04:05"') from None
    if when.tzinfo is None:
        when = when.replace(tzinfo=datetime.timezone.utc)
    return "clock", {"seconds": int(when.timestamp())}


def _printed(_arguments: argparse.Namespace, data: dict[str, Any]) -> None:
    for name, value in data.items():
        if name.endswith("TS"):
            value = _utc(value)
        print(f"{name + ':':18} {value}".rstrip())


def _utc(seconds: int) -> str:
    if seconds <= 0:
        return "-"
    when = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
    return when.strftime("%Y-%m-%d %H:%M:%S UTC")


def _managed_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--managed", choices=["yes", "no"])
    parser.add_argument("--account", metavar="ID", help='the account id; "" clears it')
    parser.add_argument("--expiry", metavar="DATE", help="the hardware's expiry date")


DIRECTIVES = (
    Verb("reboot", "reboot the device",
         lambda a: ("reboot", {"reason": a.reason, "delay": a.delay, "force": a.force}),
         _reboot_arguments),
    Verb("status", "give the device a connection status to show",
         lambda a: ("status", {"text": a.text}),
         lambda parser: parser.add_argument("text", metavar="TEXT") and None),
    Verb("intervals", "set how long it waits before it looks for a controller anew",
         lambda a: ("intervals", {"wait": a.wait, "delta": a.delta}), _intervals_arguments),
    Verb("clock", "make it register anew and offer it this time", _clock,
         lambda parser: parser.add_argument(
             "time", metavar="TIME",
             help='seconds since the epoch (0: offer none) or "2026-01-02 03:04:05", UTC')
         and None),
    Verb("locate", "blink its lights", lambda a: ("locate", {})),
    Verb("info", "why it last closed and rebooted, and since when it runs",
         lambda a: ("info", {}), output=_printed),
    Verb("managed", "tell it whether and for whom it is managed",
         lambda a: ("managed", {"managed": {"yes": True, "no": False}.get(a.managed),
                                "account": a.account, "expiry": a.expiry}), _managed_arguments),
)


# -- local programs -------------------------------------------------------------------------

LOCAL = (
    Verb("event", "have a program of the device raise an event",
         lambda a: ("event", {"text": a.text}),
         lambda parser: parser.add_argument("text", metavar="TEXT", help="any text") and None),
    Verb("log", "have a program of the device log a line",
         lambda a: ("log", {"text": a.line}),
         lambda parser: parser.add_argument("line", metavar="LINE") and None),
)


# -- looking --------------------------------------------------------------------------------

def _send_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("json", metavar="JSON", help='the message; "-" is standard input')
    parser.add_argument("--unchecked", action="store_true",
                        help="send it although docs/protocol does not know it")


def _state(_arguments: argparse.Namespace, data: dict[str, Any]) -> None:
    number: Optional[int] = data["connection"]
    connection = "none" if number is None else f"number {number}, " + (
        "registered" if data["registered"] else "not registered")
    print(f"status shown:  {data['status']}\n"
          f"connection:    {connection}\n"
          f"connections:   {data['connections']}\n"
          f"agent:         {'running' if data['running'] else 'down'}, starts: {data['starts']}")


LOOKING = (
    Verb("send", "send a message of your own",
         lambda a: ("send", {"text": _read("-").strip() if a.json == "-" else a.json,
                             "unchecked": a.unchecked}), _send_arguments),
    Verb("watch", "show the messages both ways as they happen (Ctrl-C ends it)",
         lambda a: ("watch", {"count": a.count}),
         lambda parser: parser.add_argument("--count", metavar="N", type=count_of, default=0,
                                            help="end after N messages") and None),
    Verb("state", "show how the device is (exit status 0 while it is registered)",
         lambda a: ("state", {}), output=_state),
)

# -- the Wi-Fi daemon -----------------------------------------------------------------------

def _payload_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("json", metavar="JSON", help='any JSON value; "-" is standard input')


def _payload(command: str) -> Callable[[argparse.Namespace], Request]:
    def request(arguments: argparse.Namespace) -> Request:
        text = _read("-") if arguments.json == "-" else arguments.json
        try:
            return command, {"payload": json.loads(text)}
        except ValueError as error:
            raise BadUsage(f"not JSON: {error}") from None
    return request


WIFID = (
    Verb("wifid answer", "give the daemon an answer of the controller", _payload("wifid-answer"),
         _payload_arguments),
    Verb("wifid event", "have the daemon raise an event for the controller",
         _payload("wifid-event"), _payload_arguments),
    Verb("wifid register", "have the daemon register with the controller",
         _payload("wifid-register"), _payload_arguments),
)

GROUPS: tuple[tuple[Verb, ...], ...] = (CONFIG, FIRMWARE, RUN, STATS, PROBES, DIRECTIVES, LOCAL,
                                        LOOKING, WIFID, FAULTS)
GROUP_HELP = {"config": "the device's configuration", "stats": "the device's statistics",
              "run": "commands on the device; Ctrl-C stops them there",
              "fault": "what can go wrong around the device, on demand",
              "wifid": "the device's Wi-Fi daemon and its talk with the controller"}
