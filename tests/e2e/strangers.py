"""A program in the device that speaks to one of the agent's sockets as somebody else."""

import textwrap

from lab.device import PYTHON
from lab.lab import Lab

STRANGER = 65534

_PROGRAM = textwrap.dedent("""
    import os, socket, sys
    kind, path, user, group = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
    os.setgroups([])
    os.setgid(group)
    os.setuid(user)
    end = socket.socket(socket.AF_UNIX, getattr(socket, kind))
    try:
        end.connect(path)
        end.send(b"\\x03{}")
        print("taken")
    except PermissionError:
        print("refused")
""")


def speak_as(lab: Lab, kind: str, path: str, user: int = STRANGER, group: int = STRANGER) -> str:
    """Connects and sends a datagram as this user: "taken" or "refused"."""
    done = lab.device.run([PYTHON, "-c", _PROGRAM, kind, path, str(user), str(group)], check=True)
    return done.stdout.strip()
