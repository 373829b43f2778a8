"""fw_dl and s3upload inside the device, as the agent runs them, and the agent's end of them."""

import os
import select
import signal
import socket
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Optional

from lab.device import BASE_ENVIRONMENT
from lab.lab import Lab
from lab.supervisor import find_faketime
from toolbox import SANITIZERS

IMAGE = "/tmp/firmware"
EVENTS = "/tmp/heron_event_sock"
FAST, FASTER = "+0 x5", "+0 x15"
"""Their clock in most tests, and where a server stalls. Their patience with a connection shrinks, too:
30 seconds are 6, or 2, of a machine that may be busy; a try that fails so is one more try."""
IN_A_HURRY = "+0 x100"
"""Their clock where all tries are in vain, some perhaps for that reason."""
_SECONDS = 60.0


class EventSocket:
    """The agent's event socket inside the device, without an agent."""

    def __init__(self, lab: Lab) -> None:
        self._path = f"/proc/{lab.device.pid}/root{EVENTS}"
        self._socket: Optional[socket.socket] = None
        self.open()

    def open(self) -> None:
        """Binds it anew."""
        self.close()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setblocking(False)
        self._socket.bind(self._path)

    def close(self) -> None:
        """Nobody listens, and the socket's name is gone, too."""
        if self._socket is not None:
            self._socket.close()
            self._socket = None
        if os.path.lexists(self._path):
            os.unlink(self._path)

    def leave(self) -> None:
        """Nobody listens at the name that stays, as after a crash."""
        assert self._socket is not None
        self._socket.close()
        self._socket = None

    def fill(self) -> None:
        """Nothing more fits in until somebody takes something out."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other:
            other.setblocking(False)
            try:
                while True:
                    other.sendto(b"filling", self._path)
            except BlockingIOError:
                pass

    def take(self) -> list[bytes]:
        """All that has come."""
        assert self._socket is not None
        found = []
        while select.select([self._socket], [], [], 0)[0]:
            found.append(self._socket.recv(65536))
        return found


@dataclass
class Ended:
    """A program that has run to its end."""

    status: int
    lines: list[str]
    reports: list[bytes]

    @property
    def tries(self) -> int:
        """How often it has tried."""
        return 1 + sum("trying again in" in line for line in self.lines)

    @property
    def report(self) -> str:
        """The one report; that there is just one is asserted."""
        assert len(self.reports) == 1, (self.reports, self.lines)
        return self.reports[0].decode()


class Running:
    """A program under way."""

    def __init__(self, process: subprocess.Popen, events: EventSocket) -> None:
        self.process = process
        self._events = events
        self._lines: list[str] = []

    def wait_line(self, text: str) -> str:
        """Waits for a line with this text on its standard output."""
        deadline = time.monotonic() + _SECONDS
        while time.monotonic() < deadline:
            left = max(deadline - time.monotonic(), 0)
            assert select.select([self.process.stdout], [], [], left)[0], self._lines
            line = self.process.stdout.readline().decode()
            assert line, f"it ended without {text!r}: {self._lines}"
            self._lines.append(line.rstrip("\n"))
            if text in line:
                return self._lines[-1]
        raise AssertionError(f"no {text!r} in {self._lines}")

    def signal(self, number: int) -> None:
        """Sends it a signal."""
        self.process.send_signal(number)

    def end(self) -> Ended:
        """Waits for its end."""
        try:
            output, _ = self.process.communicate(timeout=_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            output, _ = self.process.communicate()
            raise AssertionError(f"it does not end: {self._lines} {output.decode()}") from None
        text = output.decode()
        assert "Sanitizer" not in text and "runtime error" not in text, text
        return Ended(self.process.returncode, self._lines + text.splitlines(), self._events.take())


class Helpers:
    """Starts the programs that stand beside the agent's."""

    def __init__(self, lab: Lab, agent: Path, events: EventSocket) -> None:
        self.lab = lab
        self.events = events
        self._folder = agent.resolve().parent

    def start(self, name: str, *words: str, clock: str = FAST, env: Optional[dict[str, str]] = None,
              prefix: tuple[str, ...] = (), folder: Optional[Path] = None,
              **options: object) -> Running:
        """Starts one; `prefix` is a command to run it with, `folder` another build's."""
        preload = {"LD_PRELOAD": find_faketime(), "FAKETIME": clock} if clock else {}
        argv = [*prefix, str((folder or self._folder) / name), *words]
        options.setdefault("stdout", subprocess.PIPE)
        process = self.lab.device.popen(
            argv, env={**BASE_ENVIRONMENT, **SANITIZERS, **preload, **(env or {})},
            stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT, bufsize=0, **options)
        return Running(process, self.events)

    def fw_dl(self, url: str, **options: object) -> Ended:
        """Runs a download to its end."""
        return self.start("fw_dl", url, EVENTS, **options).end()

    def start_fw_dl(self, url: str, **options: object) -> Running:
        """Starts a download."""
        return self.start("fw_dl", url, EVENTS, **options)

    def s3upload(self, url: str, path: str, content_type: str = "application/gzip",
                 name: str = "support.tar.gz", **options: object) -> Ended:
        """Runs an upload to its end."""
        return self.start("s3upload", url, path, content_type, name, EVENTS, **options).end()

    # -- files of the device ----------------------------------------------------------------

    def path(self, inside: str) -> Path:
        """A path inside the device as the host sees it; mind symbolic links."""
        return Path(f"/proc/{self.lab.device.pid}/root{inside}")

    def image(self) -> Optional[bytes]:
        """The image, None when there is none."""
        path = self.path(IMAGE)
        return path.read_bytes() if os.path.lexists(path) else None

    def names(self) -> set[str]:
        """What lies in the device's /tmp beside the event socket."""
        return set(os.listdir(self.path("/tmp"))) - {os.path.basename(EVENTS)}

    def clean(self) -> None:
        """Empties the device's /tmp."""
        self.events.open()
        for name in self.names():
            self.lab.device.run(["rm", "-rf", f"/tmp/{name}"], check=True)

    def held_bytes(self) -> int:
        """The bytes that the device's /tmp holds, files without a name included."""
        found = os.statvfs(self.path("/tmp"))
        return (found.f_blocks - found.f_bfree) * found.f_frsize


def killed(ended: Ended) -> bool:
    """It was ended by SIGKILL."""
    return ended.status == -signal.SIGKILL


def peak_kib(running: Running) -> int:
    """The most memory that it has had at once so far."""
    with open(f"/proc/{running.process.pid}/status", encoding="ascii") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmHWM:"))
