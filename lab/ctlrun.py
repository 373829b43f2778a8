"""The words of `./dev ctl run`: troubleshooting commands on the device."""

import argparse
from typing import Any, Callable, Optional

from lab.ctlverb import Request, Verb, count_of

_NAMES = {"icmp": "traceMethod", "dont_fragment": "dontFrag", "show_ttl": "showTtl"}
_BESIDE = ("duration", "lab", "timeout", "full", "verb")
"""What is typed and is no argument of the command."""


def _request(command: str) -> Callable[[argparse.Namespace], Request]:
    def request(typed: argparse.Namespace) -> Request:
        arguments: dict[str, Any] = {}
        for name, value in vars(typed).items():
            if name not in _BESIDE and value is not None and value is not False:
                arguments[_NAMES.get(name, name)] = "icmp" if name == "icmp" else value
        if "filter" in arguments:
            arguments["filter"] = " ".join(arguments["filter"])
        duration = getattr(typed, "duration", 0)
        return "run", {"command": command, "arguments": arguments, "duration": duration}
    return request


def _option(parser: argparse.ArgumentParser, name: str, words: str, flag: bool = False,
            metavar: Optional[str] = "N") -> None:
    if flag:
        parser.add_argument(name, action="store_true", help=words)
    else:
        kind = int if metavar == "N" else str
        parser.add_argument(name, metavar=metavar, type=kind, help=words)


def _with_duration(*add: Callable[[argparse.ArgumentParser], None],
                   ) -> Callable[[argparse.ArgumentParser], None]:
    def arguments(parser: argparse.ArgumentParser) -> None:
        for one in add:
            one(parser)
        parser.add_argument("--duration", metavar="SECONDS", type=count_of, default=0,
                            help="the device stops it after so long (default: no limit)")
    return arguments


def _host(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("host", metavar="HOST")


def _ping(parser: argparse.ArgumentParser) -> None:
    _host(parser)
    _option(parser, "--count", "end after N answers (-c)")
    _option(parser, "--size", "bytes of payload (-s)")
    _option(parser, "--ttl", "time to live (-t)")
    _option(parser, "--verbose", "tell more (-v)", flag=True)


def _traceroute(parser: argparse.ArgumentParser) -> None:
    _host(parser)
    _option(parser, "--icmp", "echo requests in place of UDP (-I)", flag=True)
    _option(parser, "--dont-fragment", "don't fragment (-F)", flag=True)
    _option(parser, "--show-ttl", "show it (-l); Debian's traceroute takes -l otherwise", flag=True)
    _option(parser, "--verbose", "tell more (-v); Debian's traceroute has no -v", flag=True)


def _tcpdump(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("filter", metavar="FILTER", nargs="*", default=[""],
                        help="such as: port 53 and udp")
    _option(parser, "--interface", "where (-i)", metavar="NAME")
    _option(parser, "--count", "end after N packets (-c)")
    _option(parser, "--size", "bytes taken of each packet (-s)")
    _option(parser, "--verbose", "tell more (-v)", flag=True)


def _macs(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("macs", metavar="MAC", nargs="+", help='"ALL" is every client')


def _verb(words: str, command: str, text: str,
          arguments: Callable[[argparse.ArgumentParser], None]) -> Verb:
    return Verb(f"run {words}", text, _request(command), arguments, bare=True, stoppable=True)


RUN = (
    _verb("ping", "ping", "ping a host", _with_duration(_ping)),
    _verb("traceroute", "traceroute", "trace the way to a host", _with_duration(_traceroute)),
    _verb("nslookup", "nslookup", "resolve a name", _host),
    _verb("tcpdump", "tcpdump", "capture packets", _with_duration(_tcpdump)),
    _verb("log", "log", "follow the device's log", _with_duration()),
    _verb("wifiperf", "wifiperf", "switch the end point of the Wi-Fi speed test on",
          lambda parser: None),
    _verb("disconnect", "disconnect-clients", "send Wi-Fi clients away", _macs),
    Verb("run stop", "stop the running command", lambda a: ("run-stop", {})),
)
