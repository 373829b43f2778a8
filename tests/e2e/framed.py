"""What the tests at the frame level share: requests of a given size and the answers to them."""

import json
from typing import Any

from lab import rawpeer
from lab.lab import Lab


def info_request(size: int) -> bytes:
    """A device-info request of exactly `size` bytes."""
    text = json.dumps({"msgType": 123, "padding": ""})
    return text.replace('""', '"' + "x" * (size - len(text)) + '"').encode()


def answer(lab: Lab) -> dict[str, Any]:
    """The next message from the agent, parsed."""
    return json.loads(lab.rawpeer.wait_frame(rawpeer.BINARY).payload)


def answered_once(lab: Lab) -> None:
    """Asserts that exactly one device info has come, and that all goes on."""
    assert answer(lab)["msgType"] == 423
    lab.rawpeer.send_frame(rawpeer.TEXT, b'{"msgType": 115}')
    assert answer(lab)["msgType"] == 415
