"""The lab's network: two namespaces joined by veth pairs, with a cable one can cut.

"device" holds the access point's "eth0" and "eth1". "world" holds their far ends "port0" and
"port1" as ports of a bridge, "world0", where the lab's services listen. Both namespaces are held
by descriptors alone, so they vanish with the lab however it ends, and the host never sees them.
"""

import os
import subprocess

from lab import linux

DEVICE_ADDRESS = "10.77.0.2"
WORLD_ADDRESS = "10.77.0.1"
PREFIX_LENGTH = 24
PORTS = {"eth0": "port0", "eth1": "port1"}
MACS = {"eth0": "02:4f:56:10:20:30", "eth1": "02:4f:56:10:20:31"}
SWITCH_MAC = "02:4f:56:aa:bb:01"


def run_batch(tool: str, namespace_fd: int, *commands: str) -> None:
    """Runs the lines of `commands` through `ip` or `tc` inside the namespace; all or an error."""
    def work() -> subprocess.CompletedProcess:
        linux.setns(namespace_fd, linux.CLONE_NEWNET)
        return subprocess.run([tool, "-batch", "-"], input="\n".join(commands) + "\n", text=True,
                              capture_output=True, check=False)
    done = linux.in_thread(work)
    if done.returncode != 0:
        raise OSError(0, f"{tool}: {done.stderr.strip()} (in: {'; '.join(commands)})")


class Network:
    """Both namespaces, the veth pairs between them, and the state of the cable at "eth0"."""

    def __init__(self) -> None:
        self.device_fd = -1
        self.world_fd = -1
        self._dropping: set[tuple[int, str]] = set()

    def start(self) -> None:
        """Makes everything; the cable is in and the addresses are set when this returns."""
        self.device_fd = linux.new_network_namespace()
        self.world_fd = linux.new_network_namespace()
        device = f"/proc/{os.getpid()}/fd/{self.device_fd}"
        commands = [f"link add world0 address {SWITCH_MAC} type bridge",
                    "link set dev world0 addrgenmode none"]
        for name, port in PORTS.items():
            commands += [
                f"link add {port} type veth peer name {name} address {MACS[name]} netns {device}",
                f"link set dev {port} addrgenmode none master world0",
                f"link set dev {port} up",
            ]
        commands += [f"address add {WORLD_ADDRESS}/{PREFIX_LENGTH} dev world0",
                     "link set dev world0 up", "link set dev lo up"]
        run_batch("ip", self.world_fd, *commands)
        device_commands = ["link set dev lo up"]
        for name in PORTS:
            device_commands += [f"link set dev {name} addrgenmode none", f"link set dev {name} up"]
        device_commands += [
            f"address add {DEVICE_ADDRESS}/{PREFIX_LENGTH} dev eth0",
            f"route add default via {WORLD_ADDRESS}",
        ]
        run_batch("ip", self.device_fd, *device_commands)

    def stop(self) -> None:
        """Lets go of both namespaces; the kernel removes them once nobody is left inside."""
        for fd in (self.device_fd, self.world_fd):
            if fd != -1:
                os.close(fd)
        self.device_fd = self.world_fd = -1

    def cut(self, name: str = "eth0") -> None:
        """Pulls the cable: both ends lose their carrier."""
        run_batch("ip", self.world_fd, f"link set dev {PORTS[name]} down")

    def restore(self, name: str = "eth0") -> None:
        """Undoes `cut` and `black_hole`: the link is up and frames pass again."""
        run_batch("ip", self.world_fd, f"link set dev {PORTS[name]} up")
        for namespace_fd, link in self._dropping.intersection(self._ends(name)):
            run_batch("tc", namespace_fd, f"qdisc del dev {link} root")
            self._dropping.discard((namespace_fd, link))

    def black_hole(self, name: str = "eth0", direction: str = "both") -> None:
        """Drops every frame while the link stays up: "both", "from-device" or "to-device"."""
        world, device = self._ends(name)
        for namespace_fd, link in {"both": (world, device), "from-device": (device,),
                                   "to-device": (world,)}[direction]:
            run_batch("tc", namespace_fd, f"qdisc replace dev {link} root blackhole")
            self._dropping.add((namespace_fd, link))

    def _ends(self, name: str) -> tuple[tuple[int, str], tuple[int, str]]:
        return (self.world_fd, PORTS[name]), (self.device_fd, name)

    def __enter__(self) -> "Network":
        self.start()
        return self

    def __exit__(self, *_exc: object) -> None:
        self.stop()
