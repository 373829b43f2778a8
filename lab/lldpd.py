"""A real switch's LLDP: the lldpd daemon at the world's ends of "eth0" and "eth1".

It stands beside the lab's own stand-in (`lab.switch`), which is silent while it runs. The daemon
has the world's network, and a process and mount namespace of its own with a private "/run": no
other lldpd of this machine is disturbed, and nothing of it outlives the lab.
"""

import json
import signal
import subprocess
import time
from pathlib import Path
from typing import Any, Optional

from lab import linux, network
from lab.switch import Switch
from lab.world import World

_PROGRAM = "/usr/sbin/lldpd"
_CONTROL = "/usr/sbin/lldpcli"
_READY = "lldpd should resume operations"
_READY_SECONDS = 10.0

# Process 1 of the namespace stays root: lldpd changes its user, and the kernel then forgets that
# it was to die with its parent.
_SCRIPT = """
mount -t tmpfs tmpfs /run && mkdir /run/lldpd && printf %s "$3" > /run/config || exit 1
"$1" -d -d -d -k -i -I "$2" -C "$2" -S "A switch of the lab" -u /run/socket -O /run/config &
wait
"""
_INTERVAL = "configure lldp tx-interval 500ms\n"
_MARKER = "configure lldp custom-tlv oui 02,4f,56 subtype 171 oui-info 01\n"


class Lldpd:
    """The daemon: start it as the maker's switch or as any other, ask it what it has heard."""

    def __init__(self, world: World, switch: Switch) -> None:
        self._world = world
        self._switch = switch
        self._log = Path()
        self._process: Optional[subprocess.Popen] = None

    def start(self, log: Path, marked: bool = True,
              interfaces: tuple[str, ...] = ("eth0", "eth1")) -> None:
        """Announces itself twice a second at the far ends of `interfaces`, with the maker's marker
        if `marked`; `log` is a file for what it says. It announces when this returns."""
        if not Path(_PROGRAM).exists():
            raise FileNotFoundError("lldpd is missing; get it with: apt-get install lldpd")
        self._log = log
        self._switch.mode = "silent"
        ports = ",".join(network.PORTS[name] for name in interfaces)
        config = _INTERVAL + (_MARKER if marked else "")
        argv = ["unshare", "--mount", "--pid", "--fork", "--kill-child=SIGKILL",
                "sh", "-c", _SCRIPT, "sh", _PROGRAM, ports, config]
        with open(log, "wb") as output:
            self._process = self._world.call(self._launch, argv, output)
        self._await_ready()

    @staticmethod
    def _launch(argv: list[str], output: Any) -> subprocess.Popen:
        """Runs in the world's thread, so that the daemon lives in the world's network."""
        return subprocess.Popen(
            argv, stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True,
            preexec_fn=lambda: linux.die_with_parent(signal.SIGKILL))

    def _await_ready(self) -> None:
        """The daemon begins to announce when its configuration has been read to the end."""
        deadline = time.monotonic() + _READY_SECONDS
        while _READY not in self._said():
            if time.monotonic() > deadline or self._process.poll() is not None:
                raise TimeoutError(f"lldpd did not start; it said: {self._said()}")
            time.sleep(0.02)

    def _said(self) -> str:
        return self._log.read_text(encoding="utf-8", errors="replace")

    def _ask(self, *words: str) -> dict[str, Any]:
        starter = self._process.pid
        inside = Path(f"/proc/{starter}/task/{starter}/children").read_text(encoding="ascii").strip()
        done = subprocess.run(["nsenter", "--target", inside, "--mount", _CONTROL, "-u", "/run/socket",
                               "-f", "json0", "show", *words],
                              capture_output=True, text=True, check=True, timeout=10)
        return json.loads(done.stdout)

    def chassis_mac(self) -> str:
        """The MAC address by which the switch names itself, in upper case."""
        chassis = self._ask("chassis")["local-chassis"][0]["chassis"][0]
        assert chassis["id"][0]["type"] == "mac", chassis
        return chassis["id"][0]["value"].upper()

    def neighbours(self) -> dict[str, dict[str, Any]]:
        """What the switch knows of the devices at its ports, by "eth0" and "eth1"."""
        names = {port: name for name, port in network.PORTS.items()}
        tables = self._ask("neighbors", "details")["lldp"]
        return {names[entry["name"]]: entry
                for table in tables for entry in table.get("interface", [])}

    def stop(self) -> None:
        """Ends the daemon; harmless when it does not run."""
        if self._process is None:
            return
        self._process.kill()
        self._process.wait()
        self._process = None
