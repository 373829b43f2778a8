"""The lab's handle on the device's configuration daemon: starts it, breaks it, reads its files."""

import json
import select
import subprocess
from typing import Any, Optional

from lab.device import BASE_ENVIRONMENT, PYTHON, REPOSITORY, Device, DeviceError
from lab.scmd import faults

CONFIG = "/mnt/flash/config/config.txt"
_FAULT = "shared/scmd-fault"
_READY_SECONDS = 20.0


class ConfigDaemon:
    """`lab.scmd.daemon` in the device. Starting it is part of the device's own start: it puts the
    stored configuration into force."""

    def __init__(self, device: Device) -> None:
        self._device = device
        self._process: Optional[subprocess.Popen] = None

    def start(self) -> None:
        """Starts it and waits until it listens."""
        with open(self._device.folder / "scmd.out", "ab") as complaints:
            self._process = self._device.popen(
                [PYTHON, "-SBm", "lab.scmd.daemon"], cwd=str(REPOSITORY), env=BASE_ENVIRONMENT,
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=complaints, text=True)
        ready = select.select([self._process.stdout], [], [], _READY_SECONDS)[0]
        if not ready or self._process.stdout.readline() != "ready\n":
            raise DeviceError(f"the configuration daemon did not start: {self.output()}")

    def stop(self) -> None:
        """Kills it; its socket stays behind, as with any daemon that died."""
        if self._process is not None:
            self._process.kill()
            self._process.wait()
            self._process.stdout.close()
            self._process = None

    def output(self) -> str:
        """What it complained about."""
        return (self._device.folder / "scmd.out").read_text(encoding="utf-8", errors="replace")

    def fail(self, kind: str, **details: Any) -> None:
        """Makes it misbehave from now on; the kinds and details are those of `lab.scmd.faults`."""
        if kind not in faults.KINDS:
            raise ValueError(f"fault {kind!r} is none of {faults.KINDS}")
        beside = self._device.folder / (_FAULT + ".new")
        beside.write_text(json.dumps({"kind": kind, **details}), encoding="utf-8")
        beside.rename(self._device.folder / _FAULT)

    def behave(self) -> None:
        """Ends `fail`."""
        (self._device.folder / _FAULT).unlink(missing_ok=True)

    def messages(self) -> list[dict[str, Any]]:
        """The messages that it has received so far, but for those about statistics."""
        return [json.loads(line) for line in self._record("scmd")]

    def statistics_requests(self) -> list[str]:
        """The requests for statistics that it has received so far, as they came."""
        return self._record("scmd-statistics")

    def _record(self, name: str) -> list[str]:
        try:
            text = (self._device.folder / "records" / name).read_text(encoding="utf-8")
        except FileNotFoundError:
            return []
        return text.splitlines()

    def running(self) -> dict[str, Any]:
        """The configuration in force on the device, as an object."""
        return json.loads(self._device.read_text("/run/scmd/running.json"))

    def stored(self) -> str:
        """The stored configuration, in the text form."""
        return self._device.read_text(CONFIG)
