"""A stand-in for the Wi-Fi daemon: it registers with the controller, raises events and hears the
controller's answers, all through the agent."""

import json
import os
import socket
from typing import Any, Optional

from lab.device import Device
from lab.journal import Event, Journal
from lab.world import World

LISTENS_AT = "/var/tmp/device_agent_to_wifid_msgs"
AGENT_LISTENS_AT = "/var/tmp/wifid_to_device_agent_msgs"
EVENT, REGISTRATION = 1, 2
"""First byte of what it says: a payload for the controller, its registration."""
ANSWER, CONNECTED_STATE = 0, 2
"""First byte of what it hears: the controller's answer, whether the controller is connected."""
_DATAGRAM_LIMIT = 262144
_SEND_SECONDS = 2.0


class Wifid:
    """The daemon's socket inside the device; bind it again after the device has rebooted."""

    def __init__(self, world: World, journal: Journal, device: Device) -> None:
        self._world = world
        self._journal = journal
        self._device = device
        self._socket: Optional[socket.socket] = None
        self.registration: Any = None
        """What it registers with, by itself, whenever it hears that the controller is connected."""

    def start(self) -> None:
        """Binds the socket inside the (running) device and listens."""
        self._world.call(self._open)

    def _inside(self, path: str) -> str:
        return f"/proc/{self._device.pid}/root{path}"

    def _open(self) -> None:
        path = self._inside(LISTENS_AT)
        if os.path.lexists(path):
            os.unlink(path)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        self._socket.setblocking(False)
        self._world.loop.add_reader(self._socket, self._hear)

    def stop(self) -> None:
        """Stops listening; the agent's messages then fail to be delivered."""
        if self._socket is not None:
            self._world.call(self._close)

    def _close(self) -> None:
        self._world.loop.remove_reader(self._socket)
        self._socket.close()
        self._socket = None

    def _hear(self) -> None:
        try:
            datagram = self._socket.recv(_DATAGRAM_LIMIT)
        except OSError:
            return
        text = datagram[1:].decode("utf-8", "replace")
        try:
            payload: Any = json.loads(text)
        except ValueError:
            payload = None
            self._journal.note("problem", text=f"wifid got a message without JSON: {datagram!r}")
        self._journal.note("wifid", dest=datagram[0] if datagram else None, text=text,
                           payload=payload)
        if datagram[:1] == bytes([CONNECTED_STATE]) and payload == {"status": 1}:
            self._register_again()

    def _register_again(self) -> None:
        if self.registration is None:
            return
        try:
            self.register(self.registration)
        except OSError as error:  # the agent has gone away meanwhile; it will tell its state again
            self._journal.note("wifid-unheard", error=str(error))

    def send(self, dest: int, text: str) -> None:
        """Sends the agent one message with this text, JSON or not."""
        self.send_bytes(bytes([dest]) + text.encode())

    def send_bytes(self, datagram: bytes) -> None:
        """Sends the agent any datagram; raises OSError when the agent does not listen."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.settimeout(_SEND_SECONDS)
            sender.sendto(datagram, self._inside(AGENT_LISTENS_AT))
        self._journal.note("wifid-said", dest=datagram[0] if datagram else None,
                           text=datagram[1:].decode("utf-8", "replace"))

    def raise_event(self, payload: Any) -> None:
        """Has the agent pass this on to the controller (message 116)."""
        self.send(EVENT, json.dumps(payload))

    def register(self, payload: Any) -> None:
        """Registers with the controller (message 118)."""
        self.send(REGISTRATION, json.dumps(payload))

    def wait_answer(self, timeout: float = 10.0) -> Event:
        """The next answer of the controller: its "payload", and "text" as it came."""
        return self._journal.wait("wifid", lambda e: e["dest"] == ANSWER, timeout,
                                  what="an answer of the controller for wifid")

    def messages(self, dest: Optional[int] = None) -> list[Event]:
        """The messages heard so far: "dest", "text" and "payload"."""
        return [e for e in self._journal.events("wifid") if dest in (None, e["dest"])]

    def wait_state(self, status: int, timeout: float = 10.0) -> Event:
        """The next message that says the controller is connected (1) or not (0)."""
        return self._journal.wait(
            "wifid", lambda e: e["dest"] == CONNECTED_STATE and e["payload"] == {"status": status},
            timeout, what=f"wifid to be told status {status}")
