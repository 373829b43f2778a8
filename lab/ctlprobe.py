"""The words of `./dev ctl scan` and `./dev ctl latency`, and how a scan looks in a terminal."""

import argparse
from typing import Any

from lab.ctlstats import columns
from lab.ctlverb import Verb, count_of
from lab.neighbourhood import BANDS


def _scan_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("band", metavar="BAND", choices=BANDS, help=" or ".join(BANDS))


def _printable(text: str) -> str:
    """A text out of the air cannot steer the terminal."""
    return "".join(char if char.isprintable() else "?" for char in text)


def _print_scan(_arguments: argparse.Namespace, data: dict[str, Any]) -> None:
    result = data["result"]
    channels = [["channel", "interference", "noise", "access points"]]
    channels += [[str(row[name]) for name in ("channel", "interference", "noise", "numAps")]
                 for row in result["channelInfo"]]
    neighbours = [["BSSID", "channel", "signal", "encryption", "manufacturer", "SSID"]]
    neighbours += [[_printable(str(row[name])) for name in (
        "bssid", "channel", "signal", "encryption", "manufacturer", "ssid")]
        for row in result["neighborInfo"]]
    print(f"{result['band']}\n{columns(channels)}\n\n{columns(neighbours)}")


def _latency_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("host", metavar="HOST", help="a name or an IPv4 address")
    parser.add_argument("--tries", metavar="N", type=count_of,
                        help="sent along; the device always tries three times")


PROBES = (
    Verb("scan", "scan a radio band: channels and access points around the device",
         lambda a: ("scan", {"band": a.band}), _scan_arguments, _print_scan),
    Verb("latency", "measure the way from the device to a host",
         lambda a: ("latency", {"host": a.host, "tries": a.tries}), _latency_arguments),
)
