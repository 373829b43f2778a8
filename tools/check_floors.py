#!/usr/bin/python3
"""Holds the includes of the agent against its floors.

A file may include what stands on its own floor or below, never what is above; no two modules (a header with its
source) may reach each other in a circle; and of the device library the agent knows only what a maker's library brings
too. Prints every offence as FILE:LINE and exits with 1 if there is one. With --list it prints the floors and what
stands on each.
"""

import pathlib
import re
import sys

# Lowest floor first: name, and the modules (folder/name, or a whole folder) that stand on it.
FLOORS = [
    ("device library", ["device/"]),
    ("ground", [
        "agent/build-constants", "agent/da", "agent/debug-log", "agent/enter-state", "agent/environment",
        "agent/ev", "agent/fatal", "agent/hooks", "agent/local-socket", "agent/lws-log", "agent/named-timer",
        "agent/owners", "agent/piped-child", "agent/reasons", "agent/run", "agent/signal-mask", "agent/state-file", "agent/text",
        "agent/utils",
    ]),
    ("device", ["platform/"]),
    ("controller link", [
        "discovery/", "agent/reboot-sequence", "agent/txq", "agent/ws-close", "agent/ws-link", "agent/ws-ping", "agent/ws-rx",
        "agent/ws-session", "agent/ws-target", "agent/ws-timers",
    ]),
    ("messages", [
        "protocol/command-output", "protocol/device-info", "protocol/directives", "protocol/error-codes", "protocol/managed-info",
        "protocol/message", "protocol/received", "protocol/register", "protocol/replies", "protocol/session-id",
        "protocol/scan-failure", "protocol/wifid-payload",
    ]),
    ("jobs", ["operations/", "platform/event-trap", "stats/"]),
    ("state machine", [
        "agent/cfg-restore-timer", "agent/config-change", "agent/registration", "agent/state-connected",
        "agent/state-connecting", "agent/state-disconnected", "agent/state-discovery", "agent/state-idle",
    ]),
    ("dispatcher", ["protocol/dispatcher"]),
    ("start", ["agent/main", "agent/signals", "agent/start", "agent/wiring"]),
    ("tool for people", ["agentctl/"]),
    ("helper programs", ["transfer/"]),
]

# What the agent may know of the device library: the headers that a maker's own library stands behind, and the
# framing, which is ours in every build.
DEVICE_LIBRARY = ["device/frames", "device/scm", "device/scmd", "device/scmintf", "device/tavosmac2name",
                  "device/tavosutils"]

FOLDERS = ["agent", "agentctl", "device", "discovery", "operations", "platform", "protocol", "stats",
           "transfer"]
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def module_of(path: str) -> str:
    """The header and the source of one name are one module."""
    return re.sub(r"\.(h|cpp|h\.in)$", "", path)


def floor_of(module: str) -> int:
    """The number of the floor a module stands on, its own name before its folder's; -1 when it stands nowhere."""
    floors = {room: number for number, (_, rooms) in enumerate(FLOORS) for room in rooms}
    return floors.get(module, floors.get(module.split("/")[0] + "/", -1))


def read_includes(root: pathlib.Path) -> list[tuple[str, int, str]]:
    """Every include of a file of ours by another one: (file, line number, included file)."""
    found = []
    for folder in FOLDERS:
        for path in sorted((root / folder).glob("**/*")):
            if not path.name.endswith((".h", ".cpp", ".h.in")):
                continue
            name = str(path.relative_to(root))
            for number, line in enumerate(path.read_text().splitlines(), 1):
                match = INCLUDE.match(line)
                if match and match[1].split("/")[0] in FOLDERS:
                    found.append((name, number, match[1]))
    return found


def upward(includes: list[tuple[str, int, str]]) -> list[str]:
    """Includes that climb, and files that stand on no floor."""
    offences = []
    for name, number, included in includes:
        for path in (name, included):
            if floor_of(module_of(path)) < 0:
                offences.append(f"{name}:{number}: {path} stands on no floor; add it to tools/check_floors.py")
        own, other = floor_of(module_of(name)), floor_of(module_of(included))
        if 0 <= own < other:
            offences.append(f"{name}:{number}: {FLOORS[own][0]} includes {included} of {FLOORS[other][0]}")
    return offences


def inward(includes: list[tuple[str, int, str]]) -> list[str]:
    """Includes of our device library's own rooms: a build with a maker's library does not have them."""
    return [f"{name}:{number}: {included} is not there when DEVICE_LIBRARY is off"
            for name, number, included in includes
            if included.startswith("device/") and not name.startswith("device/")
            and module_of(included) not in DEVICE_LIBRARY]


def circles(includes: list[tuple[str, int, str]]) -> list[str]:
    """One line for each circle of modules."""
    graph: dict[str, set[str]] = {}
    for name, _, included in includes:
        if module_of(name) != module_of(included):
            graph.setdefault(module_of(name), set()).add(module_of(included))
    offences, done = [], set()

    def walk(module: str, trail: list[str]) -> None:
        if module in trail:
            offences.append("circle: " + " -> ".join(trail[trail.index(module):] + [module]))
            return
        if module in done:
            return
        for below in sorted(graph.get(module, ())):
            walk(below, trail + [module])
        done.add(module)

    for module in sorted(graph):
        walk(module, [])
    return offences


def main() -> int:
    root = pathlib.Path(__file__).resolve().parent.parent
    if "--list" in sys.argv[1:]:
        for name, rooms in reversed(FLOORS):
            print(f"{name}: {', '.join(rooms)}")
        return 0
    includes = read_includes(root)
    offences = upward(includes) + inward(includes) + circles(includes)
    print("\n".join(offences) if offences else f"floors: {len(includes)} includes, none climbs, no circle")
    return 1 if offences else 0


if __name__ == "__main__":
    sys.exit(main())
