"""Two hundred lost connections, of every kind: nothing is left of any of them."""

import asyncio
import signal
import socket
import statistics
import struct

import pytest
from conftest import REPOSITORY
from expect import CONTROLLER, fence, until
from vitals import children, descriptors, private_memory

from lab import network
from lab.controller import Refusal
from lab.onboarding import redirect

RELEASED = "build/device-agent"
"""Memory is measured on the program that is shipped: a sanitizer keeps what is freed."""
RESET_PORT = 8447
ROUND = 50
LEAST_ROUNDS, MOST_ROUNDS = 4, 16
PAGE = 4096
"""Bytes: fifty losses that leave 100 each behind are over it."""


class Losses:
    """The ways to lose a connection; each leaves it to the agent to come back."""

    def __init__(self, lab):
        self.lab = lab

    def killed(self):
        """The controller's machine goes down."""
        self.lab.controller.kill()

    def closed(self):
        """The controller takes its leave."""
        self.lab.controller.close(1001, "maintenance")

    def rediscovered(self):
        """Somebody on the device asks for another discovery."""
        self.lab.supervisor.send_signal(signal.SIGUSR1)

    def refused(self):
        """It restarts and is not ready for the first attempt."""
        self.lab.controller.refuse_upgrades = [503]
        self.lab.controller.kill()

    def reset(self):
        """Something in between resets the next connection in its TLS handshake."""
        self.lab.onboarding.next_replies = [redirect(f"https://{CONTROLLER}:{RESET_PORT}/ws")]
        since = self.lab.journal.position
        self.lab.controller.kill()
        self.lab.log.wait("max_reconnect_attempts", 30, since)
        self.lab.supervisor.send_signal(signal.SIGUSR1)

    def unregistered(self):
        """The registration is refused once."""
        self.lab.controller.next_answers = [Refusal()]
        self.lab.controller.kill()

    def cut(self):
        """The cable is out until the agent has given the connection up."""
        since = self.lab.journal.position
        self.lab.network.cut()
        since = self.lab.log.wait("Missed 5 consecutive PONGS", 30, since).index
        self.lab.log.wait("DA_STATE_DISCONNECTED", 30, since)
        self.lab.network.restore()

    def round(self):
        """One round: mostly the quick ones, each of the slow ones too."""
        quick = [self.killed, self.closed, self.rediscovered, self.killed, self.closed,
                 self.rediscovered, self.closed, self.unregistered, self.refused, self.reset]
        return [quick[number % len(quick)] for number in range(ROUND - 1)] + [self.cut]


async def reset_every_connection():
    """A server that answers the first bytes with a reset."""
    async def reset(reader, writer):
        await reader.read(1)
        linger = struct.pack("ii", 1, 0)
        writer.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
        writer.transport.abort()
    return await asyncio.start_server(reset, network.WORLD_ADDRESS, RESET_PORT)


def go_through(lab, losses):
    """Loses the connection in these ways, one after the other, and is registered after each.

    Returns what memory the agent had after each.
    """
    memory = []
    for lose in losses:
        number = lab.controller.connections[-1].number
        lose()
        lab.journal.wait("from-agent", lambda e, n=number: e["message"].get("msgType") == 100
                         and e["connection"].number > n, 60, lab.journal.position - 100,
                         what=f"REGISTER after: {lose.__doc__}")
        until(lab, lambda: settled(lab), "the registration")
        memory.append(private_memory(lab))
    return memory


def settled(lab):
    """Whether the controller has accepted the newest connection, and the agent knows."""
    try:
        fence(lab)
    except AssertionError:
        return False
    return True


def at_rest(memory):
    """Whether two rounds running took no more than a page.

    How long the allocator takes to have what it keeps differs from run to run (some rounds; then
    it stays for hundreds of losses); what leaks grows in every round.
    """
    growth = [after - before for before, after in zip(memory, memory[1:])]
    return any(first <= PAGE and second <= PAGE for first, second in zip(growth, growth[1:]))


def test_two_hundred_reconnects_leave_nothing(lab):
    agent = REPOSITORY / RELEASED
    if not agent.is_file():
        pytest.fail(f"there is no {agent}; build it first: ./dev build")
    lab.start_agent(agent, ("-d", "3"), faketime="+0 x200")
    lab.wait_registered()
    server = lab.world.wait(reset_every_connection())
    losses = Losses(lab)
    memory, kinds = [], []
    while len(memory) < LEAST_ROUNDS or not at_rest(memory) and len(memory) < MOST_ROUNDS:
        memory.append(statistics.median(go_through(lab, losses.round())))
        kinds.append(descriptors(lab))
    lab.world.call(server.close)
    assert kinds == [kinds[0]] * len(kinds)
    assert at_rest(memory), memory
    assert children(lab) == []
    assert lab.supervisor.starts == 1 and lab.supervisor.exit_statuses == []
    assert len(lab.controller.connections) > ROUND * LEAST_ROUNDS
