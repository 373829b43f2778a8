"""The device's configuration shell, "/usr/bin/clish".

    clish -f FILE      carries out each line of the file
    clish -e COMMAND   carries out one command
    clish              takes commands from standard input

Commands: set ..., delete ssid NAME, defaults, show running, show stored, save, quit. Wrong lines are
reported and passed over; the exit status is 1 if there was one.
"""

import sys

from lab.scmd import model, store


def _complain(texts: list[str]) -> int:
    for text in texts:
        print(f"clish: {text}", file=sys.stderr)
    return 1 if texts else 0


def carry_out(lines: list[str]) -> int:
    """Carries out lines of the text form on the running configuration, all in one step."""
    with store.alone():
        before = store.running()
        config, complaints = store.carried_out(lines, before)
        if config != before:
            store.put_in_force(config)
    return _complain(complaints)


def command(line: str) -> int:
    """Carries out one command, of the shell's own or of the text form."""
    words = line.split()
    if words == ["save"]:
        with store.alone():
            store.save()
        return 0
    if words == ["show", "running"]:
        print("\n".join(model.to_lines(store.running())))
        return 0
    if words == ["show", "stored"]:
        sys.stdout.write(store.CONFIG.read_text(encoding="utf-8", errors="replace"))
        return 0
    return carry_out([line])


def _interactive() -> int:
    status = 0
    for line in sys.stdin:
        if line.strip() in ("quit", "exit"):
            break
        status |= command(line)
    return status


def main(arguments: list[str]) -> int:
    """See the text at the top."""
    try:
        if not arguments:
            return _interactive()
        if len(arguments) == 2 and arguments[0] == "-e":
            return command(arguments[1])
        if len(arguments) == 2 and arguments[0] == "-f":
            with open(arguments[1], encoding="utf-8", errors="replace") as file:
                lines = file.read().splitlines()
            return carry_out(lines)
    except OSError as error:
        return _complain([f"{error.filename or arguments[-1]}: {error.strerror}"])
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
