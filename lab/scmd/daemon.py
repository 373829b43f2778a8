"""The device's configuration and statistics daemon, at "/var/tmp/scmd_server".

A message is four bytes, unsigned, big-endian, with the length, then that many bytes of JSON with a
member "mType". `HANDLERS` names a function for each type, which returns the answer. As the device
starts, the daemon puts the stored configuration into force before it listens.
"""

import json
import os
import socket
import socketserver
import struct
import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

from lab.scmd import faults, model, store
from lab.scmd.stats import request

SOCKET = "/var/tmp/scmd_server"
MESSAGE_LIMIT = 4 * 1024 * 1024
_RECORDS = Path("/run/lab/records")
Message = dict[str, Any]
OK: Message = {"status": "ok"}


def _error(text: str) -> Message:
    return {"status": "error", "error": text}


# -- the configuration ----------------------------------------------------------------------

def _device_json_config(message: Message) -> Message:
    part = message.get("config")
    if not isinstance(part, dict):
        return _error("config is not an object")
    with store.alone():
        base = model.defaults() if message.get("overwrite") == 1 else store.running()
        store.put_in_force(model.merged(base, part))
        store.save()
    return OK


def _device_native_config(message: Message) -> Message:
    text = message.get("config")
    if not isinstance(text, str):
        return _error("the native configuration is not a text")
    with store.alone():
        config, complaints = store.carried_out(text.splitlines(), store.running())
        if complaints:
            return _error(complaints[0])
        store.put_in_force(config)
        store.save()
    return OK


def _config_set(message: Message) -> Message:
    name, value = message.get("name"), message.get("value")
    if not isinstance(name, str) or not isinstance(value, str) or not name:
        return _error("an item needs a name and a value")
    with store.alone():
        store.stage(name, value)
    return OK


def _config_apply(_message: Message) -> Message:
    with store.alone():
        store.apply_staged()
    return OK


def _action(message: Message) -> Message:
    """What the radios are asked to do; there are none, and no clients at them."""
    if message.get("cmd") != "delete-client" or not isinstance(message.get("mac"), str):
        return _error("unknown action")
    return OK


HANDLERS: dict[str, Callable[[Message], Message]] = {
    "DEVICE-JSON-CONFIG": _device_json_config,
    "DEVICE-NATIVE-CONFIG": _device_native_config,
    "CONFIG-SET": _config_set,
    "CONFIG-APPLY": _config_apply,
    "ACTION-REQ": _action,
    faults.STATISTICS: request.answer,
}


def answer(text: bytes) -> tuple[str, Message]:
    """The type of a message and the answer to it."""
    try:
        message = json.loads(text)
        m_type = message["mType"]
        handler = HANDLERS[m_type]
    except (ValueError, KeyError, TypeError):
        return "", _error("unknown message")
    try:
        return m_type, handler(message)
    except model.Wrong as wrong:
        return m_type, _error(str(wrong))
    except OSError as error:
        return m_type, _error(f"{error.filename}: {error.strerror}")


# -- the socket -----------------------------------------------------------------------------

def _receive(connection: socket.socket, size: int) -> bytes:
    pieces = bytearray()
    while len(pieces) < size:
        piece = connection.recv(size - len(pieces))
        if not piece:
            raise ConnectionError("the peer has gone")
        pieces += piece
    return bytes(pieces)


def framed(reply: Message) -> bytes:
    """An answer as it goes over the socket."""
    text = json.dumps(reply).encode()
    return struct.pack("!I", len(text)) + text


def _record(m_type: str, text: bytes) -> None:
    """Statistics have a record of their own: they come all the time."""
    name = "scmd-statistics" if m_type == faults.STATISTICS else "scmd"
    with open(_RECORDS / name, "ab") as file:
        file.write(text + b"\n")


class _Conversation(socketserver.BaseRequestHandler):
    """One connection: messages and answers until the peer has had enough."""

    def handle(self) -> None:
        try:
            while True:
                size, = struct.unpack("!I", _receive(self.request, 4))
                if size > MESSAGE_LIMIT:
                    return
                if not self._one(_receive(self.request, size)):
                    return
        except OSError:
            return

    def _one(self, text: bytes) -> bool:
        m_type = _type_of(text)
        _record(m_type, text)
        fault = faults.wanted(m_type)
        if fault and fault["kind"] == "die":
            os._exit(1)
        if fault and fault["kind"] == "reject":
            reply = _error(fault.get("text", "rejected on demand"))
        else:
            reply = answer(text)[1]
        wire = framed(reply)
        if fault and fault["kind"] != "reject":
            wire = faults.show(fault, self.request, wire) or b""
        self.request.sendall(wire)
        return bool(wire)


def _type_of(text: bytes) -> str:
    try:
        return str(json.loads(text)["mType"])
    except (ValueError, KeyError, TypeError):
        return ""


class _Server(socketserver.ThreadingUnixStreamServer):
    daemon_threads = True
    request_queue_size = 64


def main() -> int:
    """Puts the stored configuration into force, then serves; says "ready" when it does."""
    for complaint in store.boot():
        print(f"{store.CONFIG}: {complaint}", file=sys.stderr)
    Path(SOCKET).unlink(missing_ok=True)
    with _Server(SOCKET, _Conversation) as server:
        os.chmod(SOCKET, 0o660)
        print("ready", flush=True)
        server.serve_forever()
    return 0


if __name__ == "__main__":
    sys.exit(main())
