#!/usr/bin/python3
"""A program of the device: sends datagrams to one of the agent's sockets.

    echo '{"msgType": 699, "eId": "Test"}' | send_local.py event
    echo "hostapd: up" | send_local.py log

What stands on standard input is one datagram, without its last line feed. Ends with 0, or with 1
and the reason when the agent is not there or does not listen to this user.
"""

import argparse
import os
import socket
import sys

SOCKETS = {"event": "/tmp/heron_event_sock", "log": "/var/tmp/agent_logserver"}


def main() -> int:
    """Sends as the command line says."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("socket", choices=SOCKETS)
    parser.add_argument("--hex", action="store_true", help="standard input is in hexadecimal")
    parser.add_argument("--count", type=int, default=0, metavar="N",
                        help="send N of them, each with its number behind it")
    parser.add_argument("--user", type=int, default=0, metavar="UID")
    parser.add_argument("--group", type=int, default=0, metavar="GID")
    arguments = parser.parse_args()
    data = sys.stdin.buffer.read().removesuffix(b"\n")
    data = bytes.fromhex(data.decode()) if arguments.hex else data
    os.setgroups([])
    os.setgid(arguments.group)
    os.setuid(arguments.user)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
        try:
            sender.connect(SOCKETS[arguments.socket])
            for number in range(arguments.count):
                sender.send(data + b" %d" % number)
            if not arguments.count:
                sender.send(data)
        except OSError as error:
            print(error.strerror, file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
