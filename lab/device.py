"""The simulated access point: a private copy of this machine that behaves like the device.

Its root file system is an overlay over the host's, thrown away at every (simulated) reboot; only
"/mnt/flash" and the lab's records live on. Its process, network, host-name and IPC namespaces are
its own. Needs root, changes nothing of the host and leaves nothing behind.
"""

import json
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any, Callable, Optional

from lab import banks, device_image, linux

REPOSITORY = Path(__file__).resolve().parent.parent
PYTHON = "/usr/bin/python3"
BASE_ENVIRONMENT = {
    "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "HOME": "/root",
    "LANG": "C.UTF-8",
}
FOLDER_PREFIX = "quill-lab-"
_START_SECONDS = 20.0
_PID = re.compile(r"pid (\d+)\n")
_NAMESPACES = {"net": linux.CLONE_NEWNET, "uts": linux.CLONE_NEWUTS, "ipc": linux.CLONE_NEWIPC,
               "mnt": linux.CLONE_NEWNS}


class DeviceError(RuntimeError):
    """The device could not be made or is not running."""


def require_root() -> None:
    """Ends the program with one clear line unless it runs as root."""
    if os.geteuid() != 0:
        words = " ".join(sys.orig_argv)
        sys.exit(f"lab: mounts and namespaces need root; try: sudo {words}")


class Device:
    """One access point. Start it, run programs in it, reboot it, stop it; or use it with `with`."""

    def __init__(self, network_fd: int, trusted: Optional[dict[str, str]] = None,
                 writable: tuple[str, ...] = (), files: Optional[dict[str, str]] = None) -> None:
        """`network_fd` is the network namespace to live in; `trusted` the CA files to install;
        `writable` names folders of the host that the device may change (for reports); `files` are
        more files that belong to it, by their paths."""
        self._network_fd = network_fd
        self._trusted = trusted or {}
        self._files = files or {}
        self._writable = writable
        self._folder: Optional[Path] = None
        self._keeper: Optional[subprocess.Popen] = None
        self._lifeline = -1
        self._pid = 0
        self._spawner: Optional[ThreadPoolExecutor] = None
        self._started: list[subprocess.Popen] = []
        self.board = dict(device_image.BOARD)
        """Who the device is; change it with `set_board`."""
        self.requests_fd = -1
        """Readable when a program of the device asked for a reboot: one line "reboot" each."""

    @property
    def folder(self) -> Path:
        """The host folder behind this device (flash, records); gone after `stop`."""
        if self._folder is None:
            raise DeviceError("the device is not started")
        return self._folder

    @property
    def pid(self) -> int:
        """The device's process 1 as the host numbers it."""
        if not self._pid:
            raise DeviceError("the device is not running")
        return self._pid

    # -- life -------------------------------------------------------------------------------

    def start(self) -> None:
        """Makes the device and returns when it is ready to run programs."""
        try:
            self._folder = Path(tempfile.mkdtemp(prefix=f"{FOLDER_PREFIX}{os.getpid()}-"))
            for name in ("base", "flash/config", "records", "output", "status", "shared"):
                (self._folder / name).mkdir(parents=True)
            banks.fill(self._folder / "flash")
            os.mkfifo(self._folder / "requests")
            self.requests_fd = os.open(self._folder / "requests",
                                       os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
            self._boot()
        except BaseException:
            self.stop()
            raise

    def stop(self) -> None:
        """Ends every process of the device and removes all its traces; harmless when stopped."""
        self._halt()
        if self.requests_fd != -1:
            os.close(self.requests_fd)
            self.requests_fd = -1
        if self._folder is not None:
            shutil.rmtree(self._folder, ignore_errors=True)
            self._folder = None

    def reboot(self) -> None:
        """Stops everything, empties all but flash and records, starts again."""
        self._halt()
        self._boot()

    def __enter__(self) -> "Device":
        self.start()
        return self

    def __exit__(self, *_exc: object) -> None:
        self.stop()

    def _describe(self, status_fd: int, lifeline_fd: int) -> dict[str, Any]:
        """The description that the device's first process works from."""
        binds = [
            {"source": str(REPOSITORY), "path": str(REPOSITORY), "writable": False},
            {"source": str(self.folder / "flash"), "path": "/mnt/flash", "writable": True},
        ]
        for name in ("records", "output", "status", "shared", "requests"):
            binds.append({"source": str(self.folder / name), "path": f"/run/lab/{name}",
                          "writable": True})
        for name in self._writable:
            path = str(Path(name).resolve())
            binds.append({"source": path, "path": path, "writable": True})
        flash = self.folder / "flash"
        active, self.board["otherVersion"] = banks.boot(flash)
        return {
            "folder": str(self.folder), "base": str(self.folder / "base"),
            "hostname": device_image.HOSTNAME, "network_fd": self._network_fd,
            "status_fd": status_fd, "lifeline_fd": lifeline_fd,
            "tmpfs": device_image.VOLATILE, "binds": binds,
            "folders": ["/mnt/flash/config", "/etc/velmora"],
            "files": [*device_image.device_files(self._trusted, self.board, active,
                                                 banks.starting(flash)),
                      *({"path": path, "text": text, "mode": 0o644}
                        for path, text in self._files.items())],
        }

    def _boot(self) -> None:
        status_read, status_write = os.pipe()
        lifeline_read, self._lifeline = os.pipe()
        try:
            self._keeper = subprocess.Popen(
                [PYTHON, "-m", "lab.device_init"], cwd=REPOSITORY, stdin=subprocess.PIPE,
                pass_fds=(status_write, lifeline_read, self._network_fd),
                start_new_session=True, text=True)
            spec = self._describe(status_write, lifeline_read)
            os.close(status_write)
            status_write = -1
            with self._keeper.stdin as stdin:
                stdin.write(json.dumps(spec))
            self._await_ready(status_read)
        finally:
            for fd in (status_read, status_write, lifeline_read):
                if fd != -1:
                    os.close(fd)
        self._spawner = self._make_spawner()

    def _await_ready(self, status_fd: int) -> None:
        """Reads the report: the first process's number, and its "ready" or what went wrong.

        The two come from two processes, in either order.
        """
        text = ""
        deadline = time.monotonic() + _START_SECONDS
        while not ("ready" in text and _PID.search(text)):
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([status_fd], [], [], left)[0]:
                raise DeviceError(f"the device did not start in time; it said {text!r}")
            piece = os.read(status_fd, 4096).decode()
            if not piece:
                raise DeviceError(f"the device could not be made: {text.strip() or 'no report'}")
            text += piece
        self._pid = int(_PID.search(text)[1])

    def _make_spawner(self) -> ThreadPoolExecutor:
        """A thread whose children are born into the device's process namespace."""
        pid_namespace = os.open(f"/proc/{self.pid}/ns/pid", os.O_RDONLY | os.O_CLOEXEC)
        spawner = ThreadPoolExecutor(max_workers=1, thread_name_prefix="lab-spawner")
        try:
            spawner.submit(linux.setns, pid_namespace, linux.CLONE_NEWPID).result()
        finally:
            os.close(pid_namespace)
        return spawner

    def _halt(self) -> None:
        """Kills process 1, and with it, by the kernel's hand, every process of the device."""
        if self._pid:
            try:
                os.kill(self._pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self._pid = 0
        else:  # it may be half made: the keeper ends it
            self._let_lifeline_go()
        if self._spawner is not None:
            self._spawner.shutdown()
            self._spawner = None
        # The kernel lets process 1 go only when every process inside has been reaped, and those
        # that were started from here are ours to reap.
        for process in self._started:
            process.wait()
        self._started = []
        if self._keeper is not None:
            self._await_keeper(self._keeper)
            self._keeper = None
        self._let_lifeline_go()

    def _let_lifeline_go(self) -> None:
        if self._lifeline != -1:
            os.close(self._lifeline)
            self._lifeline = -1

    @staticmethod
    def _await_keeper(keeper: subprocess.Popen) -> None:
        try:
            keeper.wait(timeout=_START_SECONDS)
        except subprocess.TimeoutExpired:
            keeper.kill()
            keeper.wait()

    # -- programs ---------------------------------------------------------------------------

    def _entry(self, cwd: str) -> Callable[[], None]:
        """What a new process does between fork and exec to be inside the device."""
        descriptors = {kind: os.open(f"/proc/{self.pid}/ns/{name}", os.O_RDONLY | os.O_CLOEXEC)
                       for name, kind in _NAMESPACES.items()}

        def enter() -> None:
            linux.die_with_parent(signal.SIGKILL)
            for kind, fd in descriptors.items():
                linux.setns(fd, kind)
            os.chdir(cwd)
            for capability in (linux.CAP_SYS_TIME, linux.CAP_SYS_MODULE, linux.CAP_SYS_RAWIO):
                linux.drop_capability(capability)

        enter.descriptors = descriptors.values()  # type: ignore[attr-defined]
        return enter

    def popen(self, argv: list[str], *, cwd: str = "/", env: Optional[dict[str, str]] = None,
              **options: Any) -> subprocess.Popen:
        """Starts a program inside the device. Its pid is the host's number for it, so the usual
        methods of Popen work. `env` replaces the device's plain environment."""
        if self._spawner is None:
            raise DeviceError("the device is not running")
        enter = self._entry(cwd)
        options.setdefault("start_new_session", True)
        try:
            return self._spawner.submit(self._spawn, argv, preexec_fn=enter,
                                        env=BASE_ENVIRONMENT if env is None else env,
                                        **options).result()
        finally:
            for fd in enter.descriptors:  # type: ignore[attr-defined]
                os.close(fd)

    def _spawn(self, argv: list[str], **options: Any) -> subprocess.Popen:
        process = subprocess.Popen(argv, **options)
        self._started = [known for known in self._started if known.poll() is None]
        self._started.append(process)
        return process

    def run(self, argv: list[str], *, timeout: float = 30.0, check: bool = False,
            input: Optional[str] = None, **options: Any) -> subprocess.CompletedProcess:
        """Runs a program to its end inside the device and returns its outputs as text."""
        options.setdefault("stdout", subprocess.PIPE)
        options.setdefault("stderr", subprocess.PIPE)
        options.setdefault("stdin", subprocess.DEVNULL if input is None else subprocess.PIPE)
        process = self.popen(argv, text=True, **options)
        try:
            out, err = process.communicate(input, timeout)
        except BaseException:
            process.kill()  # and do not read on: a grandchild may hold the pipes
            process.wait()
            for pipe in (process.stdin, process.stdout, process.stderr):
                if pipe is not None:
                    pipe.close()
            raise
        if check and process.returncode != 0:
            raise subprocess.CalledProcessError(process.returncode, argv, out, err)
        return subprocess.CompletedProcess(argv, process.returncode, out, err)

    # -- files ------------------------------------------------------------------------------

    def _open(self, path: str, flags: int, mode: int = 0o644) -> int:
        root = os.open(f"/proc/{self.pid}/root", os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
        try:
            return linux.open_in_root(root, path, flags, mode)
        finally:
            os.close(root)

    def read_text(self, path: str) -> str:
        """The text of a file inside the device."""
        with open(self._open(path, os.O_RDONLY), encoding="utf-8", errors="replace") as file:
            return file.read()

    def write_text(self, path: str, text: str, mode: int = 0o644) -> None:
        """Writes a file inside the device; the folder must exist."""
        flags = os.O_WRONLY | os.O_CREAT | os.O_TRUNC
        with open(self._open(path, flags, mode), "w", encoding="utf-8") as file:
            file.write(text)

    def stat(self, path: str) -> os.stat_result:
        """The status of a file inside the device."""
        fd = self._open(path, os.O_PATH)
        try:
            return os.fstat(fd)
        finally:
            os.close(fd)

    def exists(self, path: str) -> bool:
        """Whether there is such a file inside the device."""
        try:
            self.stat(path)
        except FileNotFoundError:
            return False
        return True

    def unlink(self, path: str, missing_ok: bool = False) -> None:
        """Removes a file inside the device."""
        folder = self._open(os.path.dirname(path), os.O_PATH | os.O_DIRECTORY)
        try:
            os.unlink(os.path.basename(path), dir_fd=folder)
        except FileNotFoundError:
            if not missing_ok:
                raise
        finally:
            os.close(folder)

    def link(self, path: str, target: str) -> None:
        """Makes a symbolic link inside the device, in place of what is there."""
        self.unlink(path, missing_ok=True)
        folder = self._open(os.path.dirname(path), os.O_PATH | os.O_DIRECTORY)
        try:
            os.symlink(target, os.path.basename(path), dir_fd=folder)
        finally:
            os.close(folder)

    # -- recorded tools ---------------------------------------------------------------------

    def set_board(self, **facts: Any) -> None:
        """Changes facts of the device such as sku=4, for good (but for the standby image's version,
        which is that of the other bank whenever the device starts)."""
        self.board.update(facts)
        if self._pid:
            self.write_text(device_image.BOARD_FILE, json.dumps(self.board) + "\n")

    def records(self, name: str) -> list[list[str]]:
        """The calls of a recorded tool so far, each as its list of arguments."""
        try:
            text = (self.folder / "records" / name).read_text(encoding="utf-8")
        except FileNotFoundError:
            return []
        return device_image.parse_records(text)

    def script_tool(self, name: str, status: int = 0, output: str = "") -> None:
        """Makes a recorded tool print `output` and end with `status` from now on."""
        (self.folder / "status" / name).write_text(str(status), encoding="utf-8")
        (self.folder / "output" / name).write_text(output, encoding="utf-8")

    def unscript_tool(self, name: str) -> None:
        """Ends `script_tool`."""
        for folder in ("status", "output"):
            (self.folder / folder / name).unlink(missing_ok=True)
