"""Troubleshooting commands: asking, hearing, and programs that do as a test likes."""

import time
from typing import Any

from expect import fence
from vitals import children, lasting_descriptors

from lab.lab import Lab

STUBBORN = """#!/bin/sh
trap '' TERM INT HUP QUIT
(trap '' TERM INT HUP QUIT; while :; do sleep 1; done) &
echo begun
while :; do sleep 1; done
"""
"""Says "begun" and ends by no signal that can be caught, nor does its child."""


def ask(lab: Lab, command: str, duration: int = 0, **arguments: Any) -> None:
    """Sends a 109."""
    message = {"msgType": 109, "command": command, "arguments": arguments}
    lab.controller.send({**message, "duration": duration} if duration else message)


def output(lab: Lab, timeout: float = 20.0) -> str:
    """What a command says from its "Initiated" to its "Complete"."""
    assert lab.controller.wait_message(409, timeout)["status"] == "Initiated"
    text = ""
    while True:
        message = lab.controller.wait_message(409, timeout)
        text += message.get("output", "")
        if message["status"] == "Complete":
            return text


def until_said(lab: Lab, piece: str, timeout: float = 20.0) -> str:
    """The output up to the message that has this piece; "Initiated" comes first."""
    text = ""
    deadline = time.monotonic() + timeout
    while piece not in text:
        assert time.monotonic() < deadline, f"{piece!r} is not in {text[-2000:]!r}"
        text += lab.controller.wait_message(409, timeout)["output"]
    return text


def idle(lab: Lab) -> list[str]:
    """The agent's descriptors while nothing runs; no child is left."""
    fence(lab)
    assert children(lab) == []
    return lasting_descriptors(lab)


def program(lab: Lab, name: str, text: str) -> None:
    """Puts a program before the device's own of this name."""
    lab.device.write_text(f"/usr/local/sbin/{name}", text, 0o755)


def running(lab: Lab, name: str) -> bool:
    """Whether a process of the device has this word in its command line."""
    return name in lab.device.run(["ps", "-eo", "args"], check=True).stdout
