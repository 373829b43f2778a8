"""Runs the agent in the lab and shows what it does.

    sudo /usr/bin/python3 -m lab.run [--until registered] [OPTION]... [-- AGENT OPTION...]

Ctrl-C (or q) ends it and leaves nothing behind.
"""

import argparse
import contextlib
import os
import select
import sys
import termios
import threading
import time
import tty
from collections.abc import Iterator
from typing import Any, Optional
from urllib.parse import urlsplit

from lab import needs

if needs.complaint():
    sys.exit(needs.complaint())

from lab.console import server as console  # noqa: E402 - after the check of what they import
from lab.ctlserver import CtlServer  # noqa: E402
from lab.device import require_root  # noqa: E402
from lab.faults import FaultError  # noqa: E402
from lab.lab import Lab, find_agent  # noqa: E402
from lab.liveview import Printer  # noqa: E402
from lab.stopping import Stop, on_signals  # noqa: E402

_HELP = """keys: c = kill the controller's connection   n = cut / restore the network
      k = kill the agent   r = reboot the device   s = status   q = quit (or Ctrl-C)"""
_WIFID_REGISTRATION = {"daemon": "wifid", "radios": ["2.4GHz", "5GHz"]}
_TICK_SECONDS = 0.2


def _console_port(text: str) -> int:
    """A port for the console, 0 for none."""
    if text == "off":
        return 0
    if not 0 < int(text) < 65536:
        raise ValueError(text)
    return int(text)


_console_port.__name__ = "port or off"  # argparse names it so in its complaints


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="python3 -m lab.run", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--agent", default="build/device-agent", metavar="PATH",
                        help="the agent's program (default: %(default)s)")
    parser.add_argument("--until", choices=["registered"],
                        help="end with status 0 as soon as the device is registered")
    parser.add_argument("--timeout", type=float, default=90.0, metavar="SECONDS",
                        help="how long --until may take (default: %(default)g)")
    parser.add_argument("--faketime", default="", metavar="SPEC",
                        help='speed the agent\'s clock, for instance "+0 x10"')
    parser.add_argument("--sku", type=int, metavar="N", default=5,
                        help="the hardware variant: 0 to 2 can scan 5GHz, 3 to 5 2.4GHz (default: 5)")
    parser.add_argument("--dhcp", action="store_true",
                        help="give the device its address by DHCP (default: a fixed one)")
    parser.add_argument("--dhcp-url", metavar="URL",
                        help="by DHCP, with this controller in option 43")
    parser.add_argument("--dhcp-domain", metavar="DOMAIN",
                        help="by DHCP, with this domain in option 15")
    parser.add_argument("--console", type=_console_port, default=None, metavar="PORT|off",
                        help=f"where to serve the web console (default: {console.PORT} or the next "
                             "free port; with --until: off)")
    parser.add_argument("agent_options", nargs="*", metavar="AGENT OPTION",
                        help="options of the agent (default: -d 3)")
    return parser.parse_args()


class _Keys:
    """Single keys from the terminal, if standard input is one."""

    def __init__(self) -> None:
        self.active = sys.stdin is not None and sys.stdin.isatty()
        self._saved: Optional[list[Any]] = None

    def __enter__(self) -> "_Keys":
        if self.active:
            self._saved = termios.tcgetattr(sys.stdin)
            tty.setcbreak(sys.stdin)
        return self

    def __exit__(self, *_exc: object) -> None:
        if self._saved is not None:
            termios.tcsetattr(sys.stdin, termios.TCSADRAIN, self._saved)

    def get(self, timeout: float) -> str:
        """The next key within the time, or an empty text."""
        if not self.active:
            time.sleep(timeout)
            return ""
        if select.select([sys.stdin], [], [], timeout)[0]:
            # one key at a time and past the stream's buffer, which select does not see
            return os.read(sys.stdin.fileno(), 1).decode(errors="replace") or "q"
        return ""


class _Session:
    """One run: the lab, what is printed, and what the keys do."""

    def __init__(self, lab: Lab, printer: Printer) -> None:
        self._lab = lab
        self._printer = printer

    def press(self, key: str) -> None:
        """Does what a key stands for."""
        actions = {"c": self._kill_connection, "n": self._switch_network, "k": self._kill_agent,
                   "r": self._power_cycle, "s": self._show_status, "q": self._quit}
        action = actions.get(key.lower())
        if action is None:
            return
        try:
            action()
        except (AssertionError, FaultError, OSError, RuntimeError) as error:
            self._printer.line(str(error).splitlines()[0], "bad", stamp=True)

    def _kill_connection(self) -> None:
        self._lab.faults.begin("drop-connection")

    def _is_cut(self) -> bool:
        return "link-cut" in self._lab.faults.active

    def _switch_network(self) -> None:
        (self._lab.faults.end if self._is_cut() else self._lab.faults.begin)("link-cut")

    def _kill_agent(self) -> None:
        self._lab.faults.begin("kill-agent")

    def _power_cycle(self) -> None:
        self._lab.faults.begin("power-cycle")

    def _show_status(self) -> None:
        lab = self._lab
        self._printer.line(f"status shown on the device: {lab.status_or_reason()!r}; "
                           f"agent starts: {lab.supervisor.starts}; "
                           f"connections: {len(lab.controller.connections)}; "
                           f"network: {'cut' if self._is_cut() else 'in'}")

    def _quit(self) -> None:
        raise Stop


def _use_dhcp(lab: Lab, url: Optional[str], domain: Optional[str]) -> None:
    """Gives the device a lease. The hosts that it then looks for are known by name here."""
    if url:
        host = urlsplit(url if "//" in url else f"//{url}").hostname
        lab.names.add(host or url)
    if domain:
        lab.names.add(f"orvanta.{domain}")
    lab.dhcp.offer(url, domain)
    lab.dhcp.connect()


@contextlib.contextmanager
def _serving(lab: Lab, port: int) -> Iterator[str]:
    """The web console's address, "" where there is none."""
    if not port:
        yield ""
        return
    with console.Console(lab, port) as served:
        yield served.url


def _run(arguments: argparse.Namespace, printer: Printer) -> int:
    registered = threading.Event()

    def look(event: Any) -> None:
        if event.kind == "log" and "MSG_REGISTER_SUCCESS received" in event["message"]:
            registered.set()

    port = arguments.console
    if port is None:
        port = 0 if arguments.until else console.PORT
    with Lab(progress=printer.line) as lab, CtlServer(lab), _serving(lab, port) as url, \
            _Keys() as keys:
        lab.journal.subscribe(printer.event)
        lab.journal.subscribe(look)
        session = _Session(lab, printer)
        lab.wifid.registration = _WIFID_REGISTRATION
        if arguments.sku is not None:
            lab.device.set_board(sku=arguments.sku)
        if arguments.dhcp or arguments.dhcp_url or arguments.dhcp_domain:
            _use_dhcp(lab, arguments.dhcp_url, arguments.dhcp_domain)
        lab.start_agent(arguments.agent, arguments.agent_options or ["-d", "3"],
                        faketime=arguments.faketime)
        printer.line(f"look inside from another terminal: sudo nsenter -a -t {lab.device.pid} sh\n"
                     "move the controller from there, too: ./dev ctl --help "
                     f"(this is lab {os.getpid()})\n"
                     + (_HELP if keys.active else "Ctrl-C ends it")
                     + (f"\nconsole: {url}" if url else ""))
        deadline = time.monotonic() + arguments.timeout
        while not (arguments.until and registered.is_set()):
            if arguments.until and time.monotonic() > deadline:
                printer.line(f"the device was not registered within {arguments.timeout:g} s\n"
                             + lab.explain(), "bad")
                return 1
            key = keys.get(_TICK_SECONDS)
            if key:
                session.press(key)
        problems = lab.problems()
        for problem in problems:
            printer.line(problem, "bad")
        if not problems:
            printer.line("the device is registered", "state")
        return 1 if problems else 0


def main() -> int:
    """Runs until told to stop; see the text at the top."""
    arguments = _arguments()
    require_root()
    printer = Printer()
    on_signals()
    try:
        find_agent(arguments.agent)
        return _run(arguments, printer)
    except Stop:
        printer.line("stopped; everything is taken down")
        return 1 if arguments.until else 0
    except (OSError, RuntimeError, ValueError) as error:
        printer.line(f"lab: {error}", "bad")
        return 1


if __name__ == "__main__":
    sys.exit(main())
