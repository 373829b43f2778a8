"""Tells a story about the device, live, with every step really seen.

The exit status is 0 only if each step was seen; Ctrl-C ends it and leaves nothing behind.
"""

import argparse
import sys

from lab import needs

if needs.complaint():
    sys.exit(needs.complaint())

from lab import rollback  # noqa: E402 - after the check of what they import
from lab.ctlserver import CtlServer  # noqa: E402
from lab.desk import Failed  # noqa: E402
from lab.device import require_root  # noqa: E402
from lab.lab import Lab, find_agent  # noqa: E402
from lab.liveview import Printer  # noqa: E402
from lab.stopping import Stop, on_signals  # noqa: E402
from lab.story import Narrator  # noqa: E402

STORIES = {"rollback": ("a configuration cuts the device off, and it finds its way back",
                        rollback.prepare, rollback.tell)}


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="./dev demo", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("story", choices=STORIES,
                        help="; ".join(f"{name}: {about}" for name, (about, *_) in STORIES.items()))
    parser.add_argument("--agent", default="build/device-agent", metavar="PATH",
                        help="the agent's program (default: %(default)s)")
    parser.add_argument("--speed", type=int, default=30, metavar="TIMES",
                        help="how much faster the device's clock runs (default: %(default)d)")
    parser.add_argument("--limit", type=float, default=90.0, metavar="SECONDS",
                        help="how long the story may take (default: %(default)g)")
    return parser.parse_args()


def _run(arguments: argparse.Namespace, printer: Printer) -> int:
    about, prepare, tell = STORIES[arguments.story]
    printer.line(f"Setting up a simulated access point: {about}.\nTimes are minutes and seconds of "
                 f"the device, whose clock runs {arguments.speed} times faster here.\n", "note")
    with Lab() as lab, CtlServer(lab):
        prepare(lab)
        story = Narrator(lab, printer.line, arguments.speed, arguments.limit)
        lab.start_agent(arguments.agent, ["-d", "3"], faketime=f"+0 x{arguments.speed}")
        try:
            tell(story)
        except Failed as error:
            printer.line(f"The story went wrong: {error}\n{lab.explain()}", "bad")
            return 1
    printer.line("\nEvery step was seen.", "state")
    return 0


def main() -> int:
    """See the text at the top."""
    arguments = _arguments()
    require_root()
    printer = Printer()
    on_signals()
    try:
        find_agent(arguments.agent)
        return _run(arguments, printer)
    except Stop:
        printer.line("stopped; everything is taken down")
        return 1
    except (OSError, RuntimeError) as error:
        printer.line(f"demo: {error}", "bad")
        return 1


if __name__ == "__main__":
    sys.exit(main())
