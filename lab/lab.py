"""The whole lab in one object: device, network, controller, onboarding, neighbours, supervisor.

    with Lab() as lab:
        lab.start_agent("build/device-agent", ["-d", "3"])
        lab.wait_registered()

Everything ends with the `with` block, whatever happens in it.
"""

import asyncio
import os
import re
import shlex
import threading
from pathlib import Path
from typing import Callable, Optional, Sequence, Union

from lab import names as names_module
from lab.authority import Authority, Certificates
from lab.configd import ConfigDaemon
from lab.controller import Controller
from lab.device import REPOSITORY, Device, require_root
from lab.dhcp import Dhcp
from lab.echo import ADDRESS as ECHO_ADDRESS
from lab.echo import NAME as ECHO_NAME
from lab.echo import Echo
from lab.filestore import FileStore
from lab.firmware import KEY_FILE, Firmware
from lab.faults import Faults
from lab.journal import Event, Journal
from lab.lldpd import Lldpd
from lab.logfile import LogFile
from lab.names import Names
from lab.network import Network
from lab.onboarding import Onboarding
from lab.programs import Programs
from lab.radio import Radio
from lab.rawpeer import RawPeer
from lab.reports import Reports
from lab.shownstatus import PATH as STATUS_FILE
from lab.shownstatus import ShownStatus
from lab.supervisor import Supervisor
from lab.switch import Switch
from lab.wifid import Wifid
from lab.world import World

HELPERS = ("fw_dl", "s3upload")
"""Programs beside the agent that it looks for on its search path."""
_LOGGED = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d( \d+ |:LWS: )|$")
"""Lines of the agent's output that its log files hold as well."""


def find_agent(binary: Union[str, Path]) -> Path:
    """The agent's program, which must lie in the repository: only that is seen in the device."""
    path = (REPOSITORY / binary).resolve()
    if not path.is_file():
        raise FileNotFoundError(f"there is no agent at {path}; build it first: ./dev build")
    if not path.is_relative_to(REPOSITORY):
        raise FileNotFoundError(f"{path} is outside the repository and not seen in the device")
    return path


class Lab:
    """One access point with everything around it. The parts are public: use them directly."""

    def __init__(self, progress: Callable[[str], None] = lambda line: None) -> None:
        """`progress` is told each step of the set-up in a few words."""
        self._progress = progress
        self._undo: list[Callable[[], None]] = []
        self._reboot_lock = threading.Lock()
        self.reboot_on_request = True
        """Whether "shutdown.sh" of the device reboots it (else it is only noted)."""
        self._helpers: Optional[Path] = None
        self.turn = asyncio.Lock()
        """Held by the command whose answers are being waited for (see `desk`)."""
        self.journal = Journal()
        self.journal.explain = self.explain
        self.network = Network()

    # -- life -------------------------------------------------------------------------------

    def start(self) -> "Lab":
        """Sets everything up; the agent is not started."""
        require_root()
        try:
            self._start()
        except BaseException:
            self.stop()
            raise
        return self

    def _start(self) -> None:
        self._step("making the network", self.network.start, self.network.stop)
        self._progress("making the certificate authority")
        self.authority = Authority()
        self.firmware = Firmware()
        self.device = Device(self.network.device_fd, self.authority.trusted_files(),
                             files={KEY_FILE: self.firmware.public_key})
        self._step("making the device", self.device.start, self.device.stop)
        self.world = World(self.network.world_fd, self._problem)
        self._step("starting the services", self.world.start, self.world.stop)
        leaf = self.authority.leaf([names_module.CLOUD_HOST, names_module.CONTROLLER_HOST])
        self.names = Names(self.world, {ECHO_NAME: ECHO_ADDRESS})
        self.onboarding = Onboarding(self.world, self.journal, Certificates(leaf))
        self.controller = Controller(self.world, self.journal, Certificates(leaf))
        self.rawpeer = RawPeer(self.world, self.journal, Certificates(leaf))
        self.switch = Switch(self.world, self.journal)
        self.scmd = ConfigDaemon(self.device)
        self.lldpd = Lldpd(self.world, self.switch)
        self.files = FileStore(self.world, self.names, self.authority, self.device.folder / "files")
        self.reports = Reports(self.device.folder / "reports.sqlite")
        self._undo.append(self.reports.close)
        self.journal.subscribe(self.reports.listen)
        self.programs = Programs(self.device, self.controller.forwarded)
        self.wifid = Wifid(self.world, self.journal, self.device)
        self.radio = Radio(self.world, self.journal, self.device)
        self.echo = Echo(self.world, self.journal)
        self.dhcp = Dhcp(self.world, self.journal, self.device, self.network)
        self.shown = ShownStatus(self.world, self.journal, self.device)
        self.log = LogFile(self.world, self.journal, self.device)
        self.supervisor = Supervisor(self.device, self.journal)
        self.faults = Faults(self)
        self._step("  name service", lambda: self.names.start(self.device.folder / "names"),
                   self.names.stop)
        self._step("  onboarding service", self.onboarding.start, self.onboarding.stop)
        self._step("  controller", self.controller.start, self.controller.stop)
        self._step("  frame-level controller", self.rawpeer.start, self.rawpeer.stop)
        self._step("  switch", self.switch.start, self.switch.stop)
        self._step("  configuration daemon", self.scmd.start, self.scmd.stop)
        self._undo.append(self.lldpd.stop)
        self._undo.append(self.files.stop)
        self._step("  Wi-Fi daemon", self.wifid.start, self.wifid.stop)
        self._step("", self.radio.start, self.radio.stop)
        self._step("  far host", self.echo.start, self.echo.stop)
        self._undo.append(self.dhcp.stop)
        self._step("", self.log.start, self.log.stop)
        self._step("", self.shown.start, self.shown.stop)
        self._undo.append(self.supervisor.stop)
        # Taken down before the supervisor: a reboot under way starts the agent at its end.
        self._step("", self._listen_for_reboots, self._listen_no_more)

    def _step(self, words: str, do: Callable[[], None], undo: Callable[[], None]) -> None:
        if words:
            self._progress(words)
        self._undo.append(undo)
        do()

    def stop(self) -> None:
        """Takes everything down again, the last thing first; every part is tried."""
        failures = []
        while self._undo:
            try:
                self._undo.pop()()
            except Exception as error:  # the rest must still go down
                failures.append(error)
        if failures:
            raise failures[0]

    def __enter__(self) -> "Lab":
        return self.start()

    def __exit__(self, *_exc: object) -> None:
        self.stop()

    # -- reboot -----------------------------------------------------------------------------

    def _listen_for_reboots(self) -> None:
        self.world.call(self.world.loop.add_reader, self.device.requests_fd, self._hear_request)

    def _listen_no_more(self) -> None:
        self.world.call(self.world.loop.remove_reader, self.device.requests_fd)
        with self._reboot_lock:  # a reboot under way ends first
            self.reboot_on_request = False

    def _hear_request(self) -> None:
        os.read(self.device.requests_fd, 4096)
        self.journal.note("reboot-requested", records=self.device.records("shutdown.sh"))
        if self.reboot_on_request:
            threading.Thread(target=self._reboot_as_asked, name="lab-reboot", daemon=True).start()

    def _reboot_as_asked(self) -> None:
        with self._reboot_lock:
            if self.reboot_on_request:
                self._reboot()

    def reboot(self) -> None:
        """Power-cycles the device: all ends, only flash stays; the agent starts again if it ran."""
        with self._reboot_lock:
            self._reboot()

    def _reboot(self) -> None:
        supervised = self.supervisor.supervising
        self.journal.note("rebooting")
        self.supervisor.abandon()
        self.wifid.stop()
        self.radio.stop()
        self.shown.stop()
        self.device.reboot()
        self.scmd.stop()  # it went down with the device
        self.scmd.start()
        self.supervisor.abandoned()
        self._install_helpers()
        self.wifid.start()
        self.radio.start()
        self.dhcp.rebooted()
        self.shown.start()
        self.journal.note("rebooted")
        if supervised:
            self.supervisor.resume()

    # -- the agent --------------------------------------------------------------------------

    def start_agent(self, binary: Union[str, Path], args: Sequence[str] = ("-d", "3"),
                    env: Optional[dict[str, str]] = None, faketime: str = "",
                    restart: bool = True, speed: float = 0.0) -> None:
        """Starts the agent under the supervisor; `faketime` such as "+0 x10" speeds its clock,
        `speed` does so until `supervisor.run_at` changes it."""
        path = find_agent(binary)
        self._helpers = path.parent
        self._install_helpers()
        self._progress(f"starting the agent: {shlex.join([str(binary), *args])}")
        self.supervisor.restart = restart
        self.supervisor.start([str(path), *args], env, faketime, speed)

    def _install_helpers(self) -> None:
        """Puts the helper programs of the agent's build into the device."""
        for name in HELPERS:
            if self._helpers is not None and (self._helpers / name).exists():
                self.device.link(f"/usr/bin/{name}", str(self._helpers / name))

    def install(self, name: str, script: str) -> None:
        """Puts a script into the place of a program on the device's search path, until it reboots."""
        self.device.unlink(f"/usr/bin/{name}", missing_ok=True)
        self.device.write_text(f"/usr/bin/{name}", script, 0o755)

    def wait_registered(self, timeout: float = 60.0) -> Event:
        """Waits until the agent has taken in that the controller accepted it."""
        return self.journal.wait("log", lambda e: "MSG_REGISTER_SUCCESS received" in e["message"],
                                 timeout, what="the device to be registered")

    def status(self) -> str:
        """The text of the connection status that the device shows, or "" when there is none."""
        try:
            return self.device.read_text(STATUS_FILE)
        except FileNotFoundError:
            return ""

    def _problem(self, text: str) -> None:
        self.journal.note("problem", text=text)

    def problems(self) -> list[str]:
        """What must not happen in any run: protocol violations and sanitizer reports."""
        found = [event["text"] for event in self.journal.events("problem")]
        report = self.supervisor.sanitizer_report()
        return found + ([f"sanitizer report:\n{report}"] if report else [])

    def explain(self) -> str:
        """The agent's last log lines and output, for failure messages."""
        if not hasattr(self, "log"):
            return ""
        others = [line for line in self.supervisor.output().splitlines()
                  if not _LOGGED.match(line)]
        output = "\n".join(others[-40:])
        return (f"--- status: {self.status_or_reason()}\n--- end of the agent's log:\n"
                f"{self.log.tail()}\n--- end of its output beside the log:\n{output}")

    def status_or_reason(self) -> str:
        """The shown status, or why there is none; never raises."""
        try:
            return self.status()
        except Exception as error:  # only for messages
            return f"({error})"
