"""What the simulated access point's own files say: identity, name service, certificates, tools.

The tools that would change a real device are recorders here: each appends its arguments to a
record file and otherwise does what a test has asked for (`/run/lab/status/NAME` holds an exit
status, `/run/lab/output/NAME` a text to print). Where the device has a configuration, its shell is
a program as well (`lab.scmd.shell`), and the shutdown script notes why the device reboots.
"""

import json
from pathlib import Path
from typing import Any

from lab import network

_REPOSITORY = Path(__file__).resolve().parent.parent
HOSTNAME = "quill-lab"
SERIAL_NUMBER = "QL-0042-7781"
SOFTWARE_VERSION = "4.2.1"
BOARD_FILE = "/etc/velmora/board.json"
BOARD: dict[str, Any] = {
    "sku": 6,
    "deviceModel": "Strata SA",
    "serialNumber": SERIAL_NUMBER,
    "otherVersion": "4.1.9",
}

RECORDED_TOOLS = {
    "flash_leds": "/usr/bin/flash_leds",
    "clish": "/usr/bin/clish",
    "shutdown.sh": "/usr/bin/scripts/shutdown.sh",
    "upgrade.sh": "/usr/bin/scripts/upgrade.sh",
    "techsupport.sh": "/usr/bin/scripts/techsupport.sh",
    "date": "/bin/date",
}

VOLATILE = {
    "/tmp": "mode=1777",
    "/run": "mode=755",
    "/var/tmp": "mode=1777",
    "/var/log": "mode=755",
    "/etc/ssl/certs": "mode=755",
}

_ARGUMENT_END = "\x1f"
_RECORD_END = "\x1e" + _ARGUMENT_END

_RECORDER = """#!/bin/sh
# Stands in for a tool of the device: records its arguments, changes nothing.
name={name}
{before}printf '%s\\037' "$@" "$(printf '\\036')" >> "/run/lab/records/$name"
{after}[ ! -e "/run/lab/output/$name" ] || cat "/run/lab/output/$name"
[ ! -e "/run/lab/status/$name" ] || exit "$(cat "/run/lab/status/$name")"
exit 0
"""

# Showing the time is harmless and scripts need it; everything else of `date` is recorded.
_DATE_SHOWS = """case "${1-+}" in +*|-u|-R|-I*) exec /usr/bin/date.real "$@" ;; esac
"""
_SHUTDOWN_TELLS = """printf '%s:%s' "$(/usr/bin/date.real +%s)" "${1-}" > /mnt/flash/.last_reboot_reason
echo reboot > /run/lab/requests
"""
# The device's own scripts, unless a test has said how they end; their clock is the true one.
_SCRIPT_WORKS = f"""if [ ! -e "/run/lab/status/$name" ]; then
    unset LD_PRELOAD
    exec /bin/sh "{_REPOSITORY}/lab/tools/$name" "$@"
fi
"""
# A bare device (lab.exec) has no configuration, and a tool that a test has scripted is no program.
_SHELL_WORKS = f"""if [ -d /run/scmd ] && [ ! -e /run/lab/status/clish ]; then
    unset LD_PRELOAD
    cd /
    export PYTHONPATH="{_REPOSITORY}"
    exec /usr/bin/python3 -SBm lab.scmd.shell "$@"
fi
"""


def parse_records(text: str) -> list[list[str]]:
    """Splits a record file into calls, each a list of arguments."""
    calls = text.split(_RECORD_END)[:-1]
    return [call.split(_ARGUMENT_END)[:-1] if call else [] for call in calls]


def _file(path: str, text: str, mode: int = 0o644) -> dict[str, Any]:
    return {"path": path, "text": text, "mode": mode}


def _recorder(name: str) -> dict[str, Any]:
    text = _RECORDER.replace("{name}", name)
    text = text.replace("{before}", _DATE_SHOWS if name == "date" else "")
    after = {"shutdown.sh": _SHUTDOWN_TELLS, "clish": _SHELL_WORKS, "upgrade.sh": _SCRIPT_WORKS,
             "techsupport.sh": _SCRIPT_WORKS}
    text = text.replace("{after}", after.get(name, ""))
    return _file(RECORDED_TOOLS[name], text, 0o755)


def device_files(trusted: dict[str, str], board: dict[str, Any],
                 active: str = SOFTWARE_VERSION, bank: str = "a") -> list[dict[str, Any]]:
    """All files of a device that has just started with this firmware, from this bank; `trusted`
    maps file names in "/etc/ssl/certs" to PEM texts, `board` is who the device is."""
    files = [
        _file("/etc/version", f"NAME=quill\nVERSION={active}\n"),
        _file(BOARD_FILE, json.dumps(board) + "\n"),
        _file("/etc/velmora/bank", bank + "\n"),
        _file("/etc/hostname", HOSTNAME + "\n"),
        _file("/etc/hosts", f"127.0.0.1 localhost\n127.0.1.1 {HOSTNAME}\n"),
        _file("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n"),
        _file("/etc/resolv.conf", f"nameserver {network.WORLD_ADDRESS}\n"),
        {"path": "/usr/bin/date.real", "copy": "/usr/bin/date"},
    ]
    files += [_file(f"/etc/ssl/certs/{name}", text) for name, text in trusted.items()]
    files += [_recorder(name) for name in RECORDED_TOOLS]
    return files
