"""Runs the agent inside the device and starts it again whenever it ends, as the maker's does."""

import re
import signal
import subprocess
import threading
import time
from pathlib import Path
from typing import Optional, Sequence

from lab.device import BASE_ENVIRONMENT, Device
from lab.journal import Event, Journal

RESTART_SECONDS = 1.0
_STOP_SECONDS = 10.0
_FAKETIME_FOLDERS = ("/usr/lib", "/usr/lib64", "/usr/local/lib")
_SANITIZER_REPORT = re.compile(
    r"ERROR: (?:Address|Leak|Thread|Memory)Sanitizer|runtime error: |AddressSanitizer:DEADLYSIGNAL")
_SANITIZERS = {
    "ASAN_OPTIONS": "verify_asan_link_order=0",
    "UBSAN_OPTIONS": "print_stacktrace=1",
}


def find_faketime() -> str:
    """The library that speeds up a program's clock."""
    for folder in _FAKETIME_FOLDERS:
        for path in sorted(Path(folder).glob("**/faketime/libfaketime.so.1")):
            return str(path)
    raise FileNotFoundError("libfaketime.so.1 is missing; get it with: apt-get install faketime")


class Clock:
    """The clock of a running program, in a file that its faketime library reads at each look.

    It counts from when the program has loaded it, which is a little after the start that is known
    here: a change of speed lets it jump ahead by as much, never back.
    """

    _LOADED_WITHIN = 0.5
    """Seconds of a start."""

    def __init__(self, path: Path, seen_at: str, speed: float) -> None:
        """`path` is the file, `seen_at` its name inside the device."""
        self._path = path
        self._started = time.monotonic()
        self._offset = 0.0
        self._speed = speed
        self._write()
        self.environment = {"FAKETIME_TIMESTAMP_FILE": seen_at, "FAKETIME_NO_CACHE": "1"}

    def run_at(self, speed: float) -> None:
        """Runs this many times as fast as the real one from now on."""
        elapsed = time.monotonic() - self._started
        if speed > self._speed:
            elapsed -= self._LOADED_WITHIN
        self._offset += elapsed * (self._speed - speed)
        self._speed = speed
        self._write()

    def _write(self) -> None:
        fresh = self._path.with_suffix(".new")
        fresh.write_text(f"{self._offset:+.6f} x{self._speed:g}\n", encoding="ascii")
        fresh.rename(self._path)


class Supervisor:
    """The agent's keeper: counts its starts, keeps its exit statuses, collects its output."""

    def __init__(self, device: Device, journal: Journal) -> None:
        self._device = device
        self._journal = journal
        self._process: Optional[subprocess.Popen] = None
        self._thread: Optional[threading.Thread] = None
        self._leaving = threading.Event()
        self._lock = threading.Lock()
        self._argv: list[str] = []
        self._env: dict[str, str] = {}
        self._clock: Optional[Clock] = None
        self._speed = 0.0
        self.restart = True
        """Whether the agent is started again when it ends."""
        self.starts = 0
        self.exit_statuses: list[int] = []
        """As `subprocess` gives them: negative for a signal."""

    @property
    def output_path(self) -> Path:
        """The host's file that takes the agent's standard output and error."""
        return self._device.folder / "agent.out"

    @property
    def pid(self) -> int:
        """The running agent's process id as the host numbers it."""
        process = self._process
        if process is None or process.poll() is not None:
            raise AssertionError(f"the agent is not running\n{self._journal.explain()}")
        return process.pid

    @property
    def supervising(self) -> bool:
        """Whether an agent has been started here and not stopped."""
        return self._thread is not None

    @property
    def running(self) -> bool:
        """Whether the agent runs at this moment."""
        process = self._process
        return process is not None and process.poll() is None

    def start(self, argv: Sequence[str], env: Optional[dict[str, str]] = None,
              faketime: str = "", speed: float = 0.0) -> None:
        """Starts the agent and watches over it from now on.

        `faketime` is a setting such as "+0 x10": its clock then runs that much faster. With
        `speed` in its place it can be changed while the agent runs, see `run_at`.
        """
        if self._thread is not None:
            raise AssertionError("the agent is already being supervised")
        self._argv = list(argv)
        self._env = {**BASE_ENVIRONMENT, **_SANITIZERS, **(env or {})}
        if faketime and not speed:
            preloaded = f"{self._env.get('LD_PRELOAD', '')} {find_faketime()}".lstrip()
            self._env.update(LD_PRELOAD=preloaded, FAKETIME=faketime)
        self._speed = speed
        self.resume()

    def resume(self) -> None:
        """Starts the agent as `start` was told to; used again after `stop` or a reboot."""
        self._leaving.clear()
        self._launch()
        thread = threading.Thread(target=self._watch, name="lab-supervisor", daemon=True)
        thread.start()
        self._thread = thread  # only now: `stop`, from another thread, may join what has started

    def _launch(self) -> None:
        if self._speed:
            self._clock = Clock(self._device.folder / "shared/clock", "/run/lab/shared/clock",
                                self._speed)
            self._env.update(self._clock.environment, LD_PRELOAD=find_faketime())
        with open(self.output_path, "ab") as output:
            self._process = self._device.popen(
                self._argv, env=self._env, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        self.starts += 1
        self._journal.note("agent-started", pid=self._process.pid, count=self.starts)

    def _watch(self) -> None:
        while True:
            status = self._process.wait()
            self.exit_statuses.append(status)
            self._journal.note("agent-ended", status=status, said=self._last_words(status))
            if self._leaving.is_set() or not self.restart or self._leaving.wait(RESTART_SECONDS):
                return
            with self._lock:
                if self._leaving.is_set():
                    return
                self._launch()

    def _last_words(self, status: int) -> str:
        """The last line of the agent's output if it ended badly."""
        lines = self.output()[-4000:].strip().splitlines() if status else []
        return lines[-1] if lines else ""

    def run_at(self, speed: float) -> None:
        """Changes the speed of the agent's clock, which was started with a `speed`."""
        if self._clock is None:
            raise AssertionError("the agent was not started with a speed")
        self._clock.run_at(speed)

    def send_signal(self, number: int) -> None:
        """Sends the agent a signal."""
        self._process.send_signal(number)

    def stop(self, number: int = signal.SIGTERM) -> None:
        """Ends the agent for good; harmless when none runs."""
        thread = self._thread
        if thread is None:
            return
        with self._lock:
            self._leaving.set()
        deadline = time.monotonic() + _STOP_SECONDS
        self._process.send_signal(number)
        thread.join(deadline - time.monotonic())
        if thread.is_alive():
            self._process.kill()
            thread.join(_STOP_SECONDS)
        self._thread = None

    def abandon(self) -> None:
        """Stops watching because the device is going down; call before it does."""
        with self._lock:
            self._leaving.set()

    def abandoned(self) -> None:
        """Waits until the watching has ended after the device went down."""
        if self._thread is not None:
            self._thread.join(_STOP_SECONDS)
            self._thread = None

    def wait_ended(self, timeout: float = 20.0) -> Event:
        """The next end of the agent: its "status"."""
        return self._journal.wait("agent-ended", timeout=timeout, what="the agent to end")

    def wait_started(self, timeout: float = 20.0) -> Event:
        """The next start of the agent: its "count"."""
        return self._journal.wait("agent-started", timeout=timeout, what="the agent to start")

    def output(self) -> str:
        """All that the agent has written to its standard output and error."""
        try:
            return self.output_path.read_text(encoding="utf-8", errors="replace")
        except FileNotFoundError:
            return ""

    def sanitizer_report(self) -> str:
        """The first report of a sanitizer in the agent's output, or an empty text."""
        text = self.output()
        found = _SANITIZER_REPORT.search(text)
        return text[found.start():found.start() + 6000] if found else ""
