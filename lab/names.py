"""The world's name service: dnsmasq, answering only what the lab tells it."""

import os
import select
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path
from typing import Optional

from lab import linux, network
from lab.world import World

CLOUD_HOST = "cloud.orvanta.example"
CONTROLLER_HOST = "controller-1.cloud.orvanta.example"

_NOWHERE_PORT = 5399
_RELOAD_SECONDS = 5.0


class Names:
    """A name server at the world's address; names come and go while it runs."""

    def __init__(self, world: World, more: Optional[dict[str, str]] = None) -> None:
        """`more` are names with addresses of their own."""
        self._world = world
        self._addresses = {CLOUD_HOST: network.WORLD_ADDRESS,
                           CONTROLLER_HOST: network.WORLD_ADDRESS, **(more or {})}
        self._unanswered: set[str] = set()
        self._folder: Optional[Path] = None
        self._process: Optional[subprocess.Popen] = None
        self._nowhere: Optional[socket.socket] = None

    def start(self, folder: Path) -> None:
        """Starts the server, its files in a new `folder`; it answers when this returns."""
        program = shutil.which("dnsmasq", path="/usr/sbin:/usr/local/sbin:/usr/bin")
        if program is None:
            raise FileNotFoundError("dnsmasq is missing; get it with: apt-get install dnsmasq-base")
        self._folder = folder
        folder.mkdir()
        self._write()
        argv = [program, "--keep-in-foreground", "--conf-file=/dev/null", "--no-resolv",
                "--no-hosts", "--no-poll", "--user=root", "--group=root", "--pid-file",
                "--log-facility=-",
                "--bind-interfaces", f"--listen-address={network.WORLD_ADDRESS}",
                f"--addn-hosts={self._folder}/hosts", f"--servers-file={self._folder}/servers",
                "--address=/#/"]
        self._world.call(self._launch, argv)
        self._await_line("read ")

    def _launch(self, argv: list[str]) -> None:
        """Runs in the world's thread, so that the server lives in the world's network.

        User and group stay root's: a change would make the kernel forget that the server is to
        die with the lab, however the lab ends.
        """
        self._nowhere = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._nowhere.bind((network.WORLD_ADDRESS, _NOWHERE_PORT))
        self._process = subprocess.Popen(
            argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            start_new_session=True, preexec_fn=lambda: linux.die_with_parent(signal.SIGKILL))

    def stop(self) -> None:
        """Ends the server."""
        if self._process is not None:
            self._process.kill()
            self._process.wait()
            self._process.stderr.close()
            self._process = None
        if self._nowhere is not None:
            self._nowhere.close()
            self._nowhere = None

    def add(self, name: str, address: str = network.WORLD_ADDRESS) -> None:
        """Gives `name` this address (in place of an earlier one)."""
        self._addresses[name] = address
        self._unanswered.discard(name)
        self._reload()

    def remove(self, name: str) -> None:
        """Makes `name` unknown: the answer is that there is no such name."""
        self._addresses.pop(name, None)
        self._unanswered.discard(name)
        self._reload()

    def leave_unanswered(self, name: str) -> None:
        """Swallows every question about `name`."""
        self._addresses.pop(name, None)
        self._unanswered.add(name)
        self._reload()

    def pause(self) -> None:
        """Stops answering anything, as a dead name server would."""
        self._process.send_signal(signal.SIGSTOP)

    def resume(self) -> None:
        """Answers again."""
        self._process.send_signal(signal.SIGCONT)

    def _write(self) -> None:
        assert self._folder is not None
        lines = [f"{address} {name}\n" for name, address in self._addresses.items()]
        (self._folder / "hosts").write_text("".join(lines), encoding="ascii")
        lines = [f"server=/{name}/{network.WORLD_ADDRESS}#{_NOWHERE_PORT}\n"
                 for name in sorted(self._unanswered)]
        (self._folder / "servers").write_text("".join(lines), encoding="ascii")

    def _reload(self) -> None:
        self._write()
        self._process.send_signal(signal.SIGHUP)
        self._await_line("read ")

    def _await_line(self, start: str) -> None:
        """Reads the server's messages until one tells that it has (re)read the names."""
        assert self._process is not None
        fd = self._process.stderr.fileno()
        os.set_blocking(fd, False)
        text = ""
        deadline = time.monotonic() + _RELOAD_SECONDS
        while not any(f": {start}{self._folder}/hosts" in line for line in text.splitlines()):
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([fd], [], [], left)[0]:
                raise TimeoutError(f"dnsmasq did not read its names; it said: {text}")
            piece = os.read(fd, 65536)
            if not piece:
                raise OSError(0, f"dnsmasq ended; it said: {text}")
            text += piece.decode(errors="replace")
