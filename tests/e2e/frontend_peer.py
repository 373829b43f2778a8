#!/usr/bin/python3
"""The agent's end of the front-end socket, by script; it runs inside the device.

It is named as the agent is, takes one connection at a time like the agent and is moved by lines on
standard input: {"send": MESSAGE}, {"close": true}, {"run": ARGV} (a child of its own), {"end": true}
(of that child). It tells on standard output: "ready", "accepted", "closed", and each packet received.
"""

import json
import os
import select
import socket
import subprocess
import sys

PATH = "/var/tmp/agent_cgiserver"


def tell(text: str) -> None:
    """One line for the test."""
    print(text, flush=True)


def main() -> None:
    """Serves until standard input ends."""
    with open("/proc/self/comm", "w", encoding="ascii") as name:
        name.write("device-agent")
    if os.path.exists(PATH):
        os.unlink(PATH)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    listener.bind(PATH)
    listener.listen(5)
    client = None
    child = None
    tell("ready")
    while True:
        waiting = [sys.stdin.fileno(), listener] + ([client] if client else [])
        ready = select.select(waiting, [], [])[0]
        if listener in ready:
            client = listener.accept()[0]  # the older one is dropped
            tell("accepted")
        elif client in ready:
            packet = client.recv(65536)
            tell(packet.decode() if packet else "closed")
            if not packet:
                client = None
            elif json.loads(packet)["msgType"] == 110 and child:
                child.kill()
                child.wait()
                child = None
        elif sys.stdin.fileno() in ready:
            line = os.read(sys.stdin.fileno(), 65536).decode()
            if not line:
                return
            for order in map(json.loads, line.splitlines()):
                if "send" in order:
                    client.send(json.dumps(order["send"]).encode())
                elif "close" in order:
                    client.close()
                    client = None
                elif "run" in order:
                    child = subprocess.Popen(order["run"])
                    tell("running")


if __name__ == "__main__":
    main()
