"""A real server program, such as nginx, that runs in the world and dies with the lab.

Its configuration and logs are files in a folder of the lab. It is process 1 of a process namespace
of its own: its workers end with it, and it ends with `unshare`, which ends with the lab however
that ends.
"""

import os
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path
from typing import Callable, Optional, Sequence

from lab import linux, network
from lab.authority import Leaf
from lab.world import World

_PATH = "/usr/sbin:/usr/local/sbin:/usr/bin"
_WAIT_SECONDS = 10.0


class RealServer:
    """One program that listens at one port of the world."""

    def __init__(self, world: World, folder: Path, name: str, port: int,
                 logs: Sequence[str] = ("log", "access")) -> None:
        """`folder` is made by `prepare`; `logs` are the files in it that tell what happened."""
        self.name = name
        self.folder = folder
        self._world = world
        self._port = port
        self._logs = ("out", *logs)
        self._process: Optional[subprocess.Popen] = None
        program = shutil.which(name, path=_PATH)
        if program is None:
            raise FileNotFoundError(f"{name} is missing; get it with: apt-get install {name}")
        self.program = program

    # -- life -------------------------------------------------------------------------------

    def prepare(self, leaf: Leaf, config: str) -> Path:
        """Makes the folder with "leaf.pem" (certificate and key) and the configuration, whose
        path it returns."""
        self.folder.mkdir(exist_ok=True)
        both = self.folder / "leaf.pem"
        both.touch(0o600)
        both.write_text(leaf.certificate + leaf.key, encoding="ascii")
        path = self.folder / "config"
        path.write_text(config, encoding="utf-8")
        return path

    def start(self, *arguments: str) -> None:
        """Runs the program; it listens when this returns."""
        self._world.call(self._launch, [self.program, *arguments])
        self.wait_until(self.answers, "listen")

    def _launch(self, argv: list[str]) -> None:
        """Runs in the world's thread, so that the server lives in the world's network."""
        with open(self.folder / "out", "ab") as output:
            self._process = subprocess.Popen(
                ["unshare", "--pid", "--fork", "--kill-child", "--", *argv],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, cwd=self.folder,
                start_new_session=True, preexec_fn=lambda: linux.die_with_parent(signal.SIGKILL))

    def kill(self) -> None:
        """Ends it at once, as a crash would: connections are cut, nothing is told to anybody."""
        if self._process is not None:
            self._process.kill()
            self._process.wait()
            self._process = None
            self.wait_until(lambda: not self.answers(), "be gone")

    def stop(self) -> None:
        """Kills it with all its workers and removes its files; harmless when stopped."""
        self.kill()
        shutil.rmtree(self.folder, ignore_errors=True)

    # -- what is running --------------------------------------------------------------------

    @property
    def running(self) -> bool:
        """Whether it has been started and not killed."""
        return self._process is not None

    @staticmethod
    def _children(pid: int) -> list[int]:
        try:
            text = Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii")
        except FileNotFoundError:
            return []
        return [int(word) for word in text.split()]

    def master(self) -> int:
        """The server's first process, as the host numbers it."""
        assert self._process is not None, f"{self.name} is not running"
        return self._children(self._process.pid)[0]

    def workers(self) -> list[int]:
        """The processes that serve connections, as the host numbers them."""
        return self._children(self.master())

    def signal(self, number: int) -> None:
        """Sends the first process a signal."""
        os.kill(self.master(), number)

    def _connects(self) -> bool:
        with socket.socket() as probe:
            probe.settimeout(1.0)
            return probe.connect_ex((network.WORLD_ADDRESS, self._port)) == 0

    def answers(self) -> bool:
        """Whether it takes connections."""
        return self._world.call(self._connects)

    def wait_until(self, condition: Callable[[], bool], what: str) -> None:
        """Waits for the condition; `what` says in the failure what the server did not do."""
        deadline = time.monotonic() + _WAIT_SECONDS
        while not condition():
            ended = self._process is not None and self._process.poll() is not None
            if ended or time.monotonic() > deadline:
                raise AssertionError(f"{self.name} did not {what}; it said:\n{self.output()}")
            time.sleep(0.02)

    def output(self) -> str:
        """What it has logged so far."""
        found = [self.folder / name for name in self._logs]
        return "".join(path.read_text(encoding="utf-8", errors="replace")
                       for path in found if path.exists())
