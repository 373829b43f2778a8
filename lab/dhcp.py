"""The device's address by DHCP, with real programs at both ends.

In the world dnsmasq hands out an address and the two options that may name the controller; in the
device busybox's udhcpc asks for them, and its hook is the one that a maker ships,
`device/dhcp/udhcpc-hook`. Nothing of it runs unless it is asked for: the lab's device has a fixed
address otherwise.

    lab.dhcp.offer(url="https://onprem.example")    # option 43; `domain` is option 15
    lab.dhcp.connect()                              # gives up the fixed address, gets a lease
    lab.dhcp.offer(domain="branch.example")         # the server has other words from now on...
    lab.dhcp.renew()                                # ...and the device hears them
"""

import os
import select
import shutil
import signal
import subprocess
import time
from pathlib import Path
from typing import Optional, Union

from lab import linux, network
from lab.device import REPOSITORY, Device
from lab.journal import Event, Journal
from lab.world import World

HOOK = REPOSITORY / "device" / "dhcp" / "udhcpc-hook"
URL_FILE = "/tmp/orv_dhcp_43_url"
DOMAIN_FILE = "/tmp/orv_dhcp_15_domain"

_OPTION_LIMIT = 255
_REPORTING_HOOK = "/run/lab/udhcpc-hook"
_READY_SECONDS = 5.0

# The lab is told when the hook has done its work, not when it begins.
_REPORTING_HOOK_TEXT = f"""#!/bin/sh
{HOOK} "$@"
echo "hook: $1 $?" >&2
"""


def _url_option(value: Union[str, bytes]) -> str:
    """Option 43 as a line of dnsmasq's option file; hexadecimal, so that any bytes will do."""
    data = value if isinstance(value, bytes) else value.encode()
    if not 2 <= len(data) <= _OPTION_LIMIT:
        raise ValueError(f"dnsmasq cannot be made to send {len(data)} bytes as one option")
    return f"43,{data.hex(':')}\n"


def _domain_option(value: str) -> str:
    """Option 15 likewise; dnsmasq takes it as text only."""
    if not 1 <= len(value) <= _OPTION_LIMIT or "," in value or "\n" in value:
        raise ValueError(f"dnsmasq cannot be made to send {value!r} as a domain")
    return f"15,{value}\n"


class Dhcp:
    """Server and client. What the client says and does is noted as "dhcp" events."""

    def __init__(self, world: World, journal: Journal, device: Device, space: network.Network,
                 ) -> None:
        self._world = world
        self._journal = journal
        self._device = device
        self._network = space
        self._folder: Optional[Path] = None
        self._server: Optional[subprocess.Popen] = None
        self._client: Optional[subprocess.Popen] = None
        self._heard = b""

    # -- the server -------------------------------------------------------------------------

    def offer(self, url: Union[str, bytes, None] = None, domain: Optional[str] = None,
              address: str = network.DEVICE_ADDRESS, router: bool = True) -> None:
        """What the server answers from now on; starts it the first time.

        `url` is option 43, any 2 to 255 bytes; `domain` is option 15; None leaves one out.
        """
        folder = self._device.folder / "dhcp"
        folder.mkdir(exist_ok=True)
        self._folder = folder
        options = f"option:dns-server,{network.WORLD_ADDRESS}\n"
        # Without a line of its own dnsmasq names itself as the router.
        options += f"option:router,{network.WORLD_ADDRESS}\n" if router else "option:router\n"
        options += _url_option(url) if url is not None else ""
        options += _domain_option(domain) if domain is not None else ""
        (folder / "options").write_text(options, encoding="utf-8")
        (folder / "hosts").write_text(f"{network.MACS['eth0']},{address}\n", encoding="ascii")
        if self._server is None:
            self._world.call(self._serve)
        else:
            self._server.send_signal(signal.SIGHUP)
        self._await_read(f"read {folder}/options")

    def _serve(self) -> None:
        """Starts the server in the world's thread, and so in its network."""
        program = shutil.which("dnsmasq", path="/usr/sbin:/usr/local/sbin:/usr/bin")
        if program is None:
            raise FileNotFoundError("dnsmasq is missing; get it with: apt-get install dnsmasq-base")
        subnet = network.WORLD_ADDRESS.rsplit(".", 1)[0] + ".0"
        argv = [program, "--keep-in-foreground", "--conf-file=/dev/null", "--port=0",
                "--user=root", "--group=root", "--pid-file", "--log-facility=-", "--no-ping",
                "--interface=world0", "--bind-interfaces", "--dhcp-authoritative",
                f"--dhcp-range={subnet},static,255.255.255.0,120s",
                f"--dhcp-leasefile={self._folder}/leases",
                f"--dhcp-hostsfile={self._folder}/hosts",
                f"--dhcp-optsfile={self._folder}/options"]
        self._server = subprocess.Popen(
            argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            start_new_session=True, preexec_fn=lambda: linux.die_with_parent(signal.SIGKILL))

    def _await_read(self, words: str) -> None:
        """Reads the server's messages until one says that it has (re)read a file."""
        assert self._server is not None and self._server.stderr is not None
        fd = self._server.stderr.fileno()
        os.set_blocking(fd, False)
        text = ""
        deadline = time.monotonic() + _READY_SECONDS
        while words not in text:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([fd], [], [], left)[0]:
                raise TimeoutError(f"the DHCP server did not read its files; it said: {text}")
            piece = os.read(fd, 65536)
            if not piece:
                raise OSError(0, f"the DHCP server ended; it said: {text}")
            text += piece.decode(errors="replace")

    def withdraw(self) -> None:
        """The server is gone: nobody answers until the next `offer`."""
        if self._server is not None:
            self._server.kill()
            self._server.wait()
            self._server.stderr.close()
            self._server = None

    # -- the client -------------------------------------------------------------------------

    def connect(self, wait: bool = True, options: tuple[str, ...] = ()) -> None:
        """Takes the fixed address away and starts the client; returns when it has a lease, or at
        once unless `wait`. `options` are more of udhcpc's."""
        network.run_batch("ip", self._network.device_fd, "address flush dev eth0")
        self._run_client(options)
        if wait:
            self.wait_lease()

    def _run_client(self, options: tuple[str, ...] = ()) -> None:
        self._device.write_text(_REPORTING_HOOK, _REPORTING_HOOK_TEXT, 0o755)
        self._client = self._device.popen(
            ["busybox", "udhcpc", "-f", "-i", "eth0", "-O", "43", "-s", _REPORTING_HOOK,
             "-t", "3", "-T", "1", "-A", "1", *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        os.set_blocking(self._client.stderr.fileno(), False)
        self._world.call(self._world.loop.add_reader, self._client.stderr, self._hear)

    def _hear(self) -> None:
        piece = os.read(self._client.stderr.fileno(), 65536)
        if not piece:
            self._world.loop.remove_reader(self._client.stderr)
            return
        *lines, self._heard = (self._heard + piece).split(b"\n")
        for line in lines:
            self._journal.note("dhcp", text=line.decode(errors="replace"))

    def wait_hook(self, *events: str, timeout: float = 10.0, since: int = 0) -> Event:
        """The next time that the hook has done its work for one of these events of udhcpc."""
        texts = [f"hook: {event} " for event in events]
        done = self._journal.wait("dhcp", lambda e: e["text"].startswith(tuple(texts)), timeout,
                                  since, what=f"the DHCP client's event {' or '.join(events)}")
        assert done["text"].endswith(" 0"), f"the hook failed: {done['text']}"
        return done

    def wait_lease(self, timeout: float = 10.0, since: int = 0) -> None:
        """Waits until the device has an address, new or renewed."""
        self.wait_hook("bound", "renew", timeout=timeout, since=since)

    def renew(self) -> None:
        """Makes the device ask again, as it does on its own at half of the lease's time."""
        since = self._journal.position
        self._client.send_signal(signal.SIGUSR1)
        self.wait_lease(since=since)

    def release(self) -> None:
        """Makes the device give its lease back: it has no address then."""
        since = self._journal.position
        self._client.send_signal(signal.SIGUSR2)
        self.wait_hook("deconfig", since=since)

    # -- life -------------------------------------------------------------------------------

    def _drop_client(self) -> bool:
        if self._client is None:
            return False
        self._world.call(self._world.loop.remove_reader, self._client.stderr)
        self._client.kill()
        self._client.wait()
        self._client.stderr.close()
        self._client, self._heard = None, b""
        return True

    def rebooted(self) -> None:
        """Starts the client again if one ran before the device went down."""
        if self._drop_client():
            self._run_client()

    def stop(self) -> None:
        """Ends client and server."""
        self._drop_client()
        self.withdraw()
