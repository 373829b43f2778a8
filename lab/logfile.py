"""Follows the agent's log inside the device, through rotations, restarts and reboots."""

import asyncio
import os
import re
from typing import Optional

from lab.device import Device, DeviceError
from lab.journal import Event, Journal
from lab.world import World

PATH = "/var/log/device-agent.log"
_POLL_SECONDS = 0.05
LINE = re.compile(r"^(?P<time>\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) (?P<pid>\d+) "
                  r"(?P<file>[^:]*):(?P<line>\d+):(?P<message>.*)$", re.DOTALL)


def message_of(line: str) -> str:
    """The message of a log line, without time, process and place."""
    found = LINE.match(line)
    return found["message"] if found else line


class LogFile:
    """Notes each line of the log as a "log" event with "line" and "message"."""

    def __init__(self, world: World, journal: Journal, device: Device) -> None:
        self._world = world
        self._journal = journal
        self._device = device
        self._file_id: Optional[tuple[int, int]] = None
        self._fd = -1
        self._rest = b""
        self._task: Optional[asyncio.Task] = None

    def start(self) -> None:
        """Follows from now on."""
        self._world.call(self._begin)

    def _begin(self) -> None:
        self._task = self._world.loop.create_task(self._follow())

    def stop(self) -> None:
        """Reads what is left and ends."""
        if self._task is not None:
            self._world.call(self._finish)
            self._task = None

    def _finish(self) -> None:
        self._task.cancel()
        self._poll()
        self._let_go()

    async def _follow(self) -> None:
        while True:
            self._poll()
            await asyncio.sleep(_POLL_SECONDS)

    def _poll(self) -> None:
        """Reads what is new; where the file was moved away, first the rest of the old one."""
        self._drain()
        try:
            path = f"/proc/{self._device.pid}/root{PATH}"
            status = os.stat(path)
            if (status.st_dev, status.st_ino) == self._file_id:
                return
            fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
        except (OSError, DeviceError):
            return
        self._drain()
        self._let_go()
        status = os.fstat(fd)
        self._fd, self._file_id = fd, (status.st_dev, status.st_ino)
        self._drain()

    def _let_go(self) -> None:
        if self._fd != -1:
            os.close(self._fd)
        self._fd, self._file_id, self._rest = -1, None, b""

    def _drain(self) -> None:
        while self._fd != -1:
            piece = os.read(self._fd, 65536)
            if not piece:
                return
            *lines, self._rest = (self._rest + piece).split(b"\n")
            for raw in lines:
                line = raw.decode("utf-8", "replace")
                self._journal.note("log", line=line, message=message_of(line))

    def lines(self) -> list[str]:
        """All lines so far."""
        return [event["line"] for event in self._journal.events("log")]

    def tail(self, count: int = 40) -> str:
        """The last lines as one text."""
        return "\n".join(self.lines()[-count:])

    def wait(self, text: str, timeout: float = 20.0, since: int = 0) -> Event:
        """The next line whose message contains `text`; earlier lines stay for other waits."""
        return self._journal.wait("log", lambda e: text in e["message"], timeout, since,
                                  what=f"the log line {text!r}")
