"""Moves the controller of a running lab from another terminal.

"--->" marks what goes to the device, "<---" what comes from it.
Exit status: 0 done, 1 failed (or no lab, no device, no answer), 2 typed wrongly.
"""

import argparse
import json
import os
import signal
import socket
import sys
import time
from typing import Any, Optional, TextIO

from lab import ctlplace
from lab.ctlverb import BadUsage, Verb
from lab.ctlverbs import GROUP_HELP, GROUPS

_ARROWS = {"sent": "--->", "received": "<---"}
_WIDTH = 150


class _NoLab(Exception):
    """There is nobody to talk to; the text says why."""


def _common() -> argparse.ArgumentParser:
    """The options that may stand before and behind the verb."""
    parser = argparse.ArgumentParser(add_help=False, argument_default=argparse.SUPPRESS)
    parser.add_argument("--lab", metavar="NAME", help="which lab, where several are running")
    parser.add_argument("--timeout", metavar="SECONDS", type=_seconds,
                        help="how long an answer may take (default: 30, for clock 120, for upgrade 900)")
    parser.add_argument("--full", action="store_true", help="show messages in their full length")
    return parser


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="./dev ctl", description=__doc__, parents=[_common()],
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.set_defaults(lab=None, timeout=None, full=False)
    verbs = parser.add_subparsers(metavar="VERB", required=True)
    groups: dict[str, Any] = {}
    for verb in (verb for group in GROUPS for verb in group):
        *group, word = verb.words.split()
        place = verbs
        if group:
            if group[0] not in groups:
                inner = verbs.add_parser(group[0], help=GROUP_HELP[group[0]],
                                         description=GROUP_HELP[group[0]])
                groups[group[0]] = inner.add_subparsers(metavar="VERB", required=True)
            place = groups[group[0]]
        one = place.add_parser(word, help=verb.help, description=verb.help, parents=[_common()])
        verb.arguments(one)
        one.set_defaults(verb=verb)
    return parser


def _seconds(text: str) -> float:
    value = float(text)
    if not 0 < value <= 86400:
        raise ValueError(text)
    return value


_seconds.__name__ = "number of seconds"  # argparse names it so in its complaints


def _place(name: Optional[str]) -> ctlplace.Place:
    """The lab that is meant."""
    running = ctlplace.running()
    names = ", ".join(place.name for place in running)
    if not running:
        raise _NoLab("no lab is running; start one in another terminal: ./dev run")
    if name is not None:
        for place in running:
            if place.name == name:
                return place
        raise _NoLab(f"lab {name} is not running; running: {names}")
    if len(running) > 1:
        raise BadUsage(f"several labs are running, say which with --lab: {names}")
    return running[0]


class _Output:
    """Output of the device as it is, but for control characters. Not all of it ends with a line feed."""

    within_a_line = False

    @classmethod
    def show(cls, text: str) -> None:
        """Prints a piece of it."""
        print("".join(char if char in "\n\t" or char.isprintable() else "?" for char in text),
              end="", flush=True)
        cls.within_a_line = not text.endswith("\n") if text else cls.within_a_line

    @classmethod
    def end_line(cls) -> None:
        """What comes next begins a line of its own."""
        if cls.within_a_line:
            print(flush=True)
        cls.within_a_line = False


def _show(what: dict[str, Any], stream: TextIO, full: bool) -> None:
    """Prints one line, or piece of output, of the lab's answer."""
    if what["kind"] == "output":
        _Output.show(what["text"])
        return
    _Output.end_line()
    if what["kind"] == "note":
        line = f"({what['text']})"
    else:
        seconds = what["time"]
        line = time.strftime("%H:%M:%S", time.localtime(seconds)) + f".{int(seconds * 10) % 10} "
        if what["kind"] == "event":
            line += f"* {what['text']}"
        else:
            text = what["text"]
            if not full:
                text = " ".join(text.split())
                text = text if len(text) <= _WIDTH else text[:_WIDTH - 3] + "..."
            number = "?" if what["number"] is None else what["number"]
            line += f"{_ARROWS[what['kind']]} {number} {what['name']}: {text}"
    print(line, file=stream, flush=True)


class _Stop:
    """The first Ctrl-C asks the lab to bring the command to an end, the second one ends us."""

    def __init__(self) -> None:
        self.asked = False
        self._client: Optional[socket.socket] = None

    def over(self, client: socket.socket) -> None:
        """From now on, by closing our side of this connection."""
        self._client = client
        signal.signal(signal.SIGINT, self._interrupted)

    def _interrupted(self, _number: int, _frame: Any) -> None:
        if self.asked or self._client is None:
            raise KeyboardInterrupt
        self.asked = True
        self._client.shutdown(socket.SHUT_WR)


def _talk(place: ctlplace.Place, request: dict[str, Any], stream: TextIO,
          full: bool, stop: Optional[_Stop] = None) -> dict[str, Any]:
    """Sends the request, shows what comes, returns the end."""
    gone = _NoLab("the lab ended before it answered")
    try:
        with ctlplace.connect(place) as client, client.makefile("rw", encoding="utf-8") as lines:
            lines.write(json.dumps(request) + "\n")
            lines.flush()
            if stop is not None:
                stop.over(client)
            for line in lines:
                what = json.loads(line)
                if what["kind"] == "end":
                    return what
                _show(what, stream, full)
    except BrokenPipeError:
        raise
    except OSError:
        raise gone from None
    raise gone


def _finish(verb: Verb, arguments: argparse.Namespace, end: dict[str, Any],
            stream: TextIO) -> int:
    if end["outcome"] == "refused":
        raise BadUsage(end["text"])
    if end["data"]:
        verb.output(arguments, end["data"])
    done = end["outcome"] == "done"
    _Output.end_line()
    if end["text"]:
        print(("done: " if done else "failed: ") + end["text"],
              file=stream if done else sys.stderr)
    sys.stdout.flush()
    return 0 if done else 1


def _run(arguments: argparse.Namespace) -> int:
    verb: Verb = arguments.verb
    command, details = verb.request(arguments)
    stream = sys.stderr if verb.bare else sys.stdout
    request = {"command": command, "arguments": details, "timeout": arguments.timeout}
    stop = _Stop() if verb.stoppable else None
    end = _talk(_place(arguments.lab), request, stream, arguments.full, stop)
    status = _finish(verb, arguments, end, stream)
    return 130 if stop is not None and stop.asked else status


def main() -> int:
    """See the text at the top."""
    arguments = _parser().parse_args()
    if os.geteuid() != 0:
        print("ctl: the lab is root's; try: sudo ./dev ctl ...", file=sys.stderr)
        return 1
    try:
        return _run(arguments)
    except BadUsage as error:
        print(f"ctl: {error}", file=sys.stderr)
        return 2
    except _NoLab as error:
        print(f"ctl: {error}", file=sys.stderr)
        return 1
    except BrokenPipeError:  # whoever read our output has had enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
