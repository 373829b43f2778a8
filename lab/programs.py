"""Programs of the device that talk to the agent: they raise events and log lines."""

import subprocess
from typing import Union

from lab.device import PYTHON, REPOSITORY, Device
from lab.forwarded import Forwarded

_TOOL = str(REPOSITORY / "lab" / "tools" / "send_local.py")
_SECONDS = 60.0


class Programs:
    """Each call is a process of its own inside the device, run to its end."""

    def __init__(self, device: Device, forwarded: Forwarded) -> None:
        self._device = device
        self._forwarded = forwarded

    def _send(self, socket: str, data: Union[str, bytes], count: int, user: int,
              group: int) -> subprocess.CompletedProcess:
        raw = data.encode() if isinstance(data, str) else data
        command = [PYTHON, _TOOL, socket, "--hex", f"--count={count}", f"--user={user}",
                   f"--group={group}"]
        return self._device.run(command, input=raw.hex(), timeout=_SECONDS)

    def raise_event(self, data: Union[str, bytes], count: int = 0, user: int = 0,
                    group: int = 0) -> str:
        """Sends the agent an event, or `count` of them, each with its number behind a blank.
        Returns "", or why it could not be sent."""
        raw = data.encode() if isinstance(data, str) else data
        for one in [raw + b" %d" % number for number in range(count)] or [raw]:
            self._forwarded.announce(one)
        return self._send("event", data, count, user, group).stderr.strip()

    def log(self, line: Union[str, bytes], count: int = 0, user: int = 0, group: int = 0) -> str:
        """The same with a line for the device's log."""
        return self._send("log", line, count, user, group).stderr.strip()
