"""A stand-in for the device's web front end: one connection to the agent's request socket."""

import json
import os
import select
import socket
import struct
from typing import Any, Union

from lab.device import Device

AGENT_LISTENS_AT = "/var/tmp/agent_cgiserver"
_PACKET_LIMIT = 262144


class FrontEnd:
    """A connection, open from the start; use it with `with`."""

    def __init__(self, device: Device, timeout: float = 10.0) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        # waiting for a place in the queue, which Python's own time-out would not do
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO,
                                struct.pack("@ll", int(timeout), 0))
        try:
            self._socket.connect(f"/proc/{device.pid}/root{AGENT_LISTENS_AT}")
        except OSError:
            self._socket.close()
            raise
        self._socket.settimeout(timeout)

    def __enter__(self) -> "FrontEnd":
        return self

    def __exit__(self, *_exc: object) -> None:
        self._socket.close()

    def ask(self, request: Union[dict[str, Any], bytes]) -> None:
        """Sends one request, or any bytes as one packet."""
        self._socket.send(request if isinstance(request, bytes) else json.dumps(request).encode())

    def hear(self) -> str:
        """The next packet from the agent, "" when the agent has closed. Waits for either."""
        try:
            return self._socket.recv(_PACKET_LIMIT).decode()
        except ConnectionResetError:  # closed, with requests that it has not read
            return ""

    def silent(self) -> bool:
        """Whether there is nothing to hear, and the connection stands."""
        return not select.select([self._socket], [], [], 0)[0]

    def vanish(self) -> None:
        """Goes away without a word."""
        os.close(self._socket.detach())
