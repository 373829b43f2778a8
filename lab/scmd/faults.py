"""What the daemon does wrong when a test asks for it.

The lab writes one JSON object into the file: "kind", and optionally "mType" (only for messages of
this type; without it for all but statistics, which come at any time), "text", "times" or "seconds".
It counts until the file is removed.
"""

import json
import socket
import struct
import time
from pathlib import Path
from typing import Any, Optional

STATISTICS = "STATS-GET"
FILE = Path("/run/lab/shared/scmd-fault")
KINDS = ("reject", "slow", "silent", "dead", "die", "garbage", "lying", "huge", "shape", "close",
         "several", "text")


def wanted(m_type: str) -> Optional[dict[str, Any]]:
    """The fault to show on a message of this type."""
    try:
        fault = json.loads(FILE.read_text(encoding="utf-8"))
    except (OSError, ValueError):
        return None
    concerned = fault.get("mType") or (m_type if m_type != STATISTICS else None)
    return fault if concerned == m_type else None


def show(fault: dict[str, Any], connection: socket.socket, reply: bytes) -> Optional[bytes]:
    """Misbehaves on the connection. Returns the framed answer that is still to be sent, if any."""
    kind = fault["kind"]
    if kind == "slow":  # byte by byte, so that each wait of the peer gets something
        for byte in reply:
            time.sleep(fault.get("seconds", 1.0))
            connection.sendall(bytes([byte]))
    elif kind == "silent":
        time.sleep(fault.get("seconds", 60.0))
    elif kind == "dead":  # in the middle of its answer
        connection.sendall(reply[:-3])
    elif kind == "lying":
        connection.sendall(struct.pack("!I", len(reply) + 100) + reply[4:])
    elif kind == "huge":
        connection.sendall(struct.pack("!I", 0xFFFFFFFF) + reply[4:])
    elif kind == "garbage":
        return struct.pack("!I", 6) + b"{\xff\x00nop"
    elif kind == "several":
        return reply * fault.get("times", 3)
    elif kind == "text":  # in place of the answer
        text = fault["text"].encode()
        return struct.pack("!I", len(text)) + text
    elif kind == "shape":
        return struct.pack("!I", 2) + b"[]"
    return None
