"""What comes from the network in the smallest pieces, and what claims to be larger than it is."""

import asyncio
import re

import pytest
from framed import answer, answered_once, info_request
from vitals import FORGETFUL

from lab import names, network, rawpeer
from lab.onboarding import Reply, redirect

RELAY_PORT = 8448
NOT_HAD = "Not able  to allocate memory for payload , return error"
MIB = 1024 * 1024


class Crumbs:
    """A relay in front of a port of the world that hands the agent each byte on its own."""

    def __init__(self, world, target):
        self._world = world
        self._target = target
        self.writes = 0
        self._server = world.wait(
            asyncio.start_server(self._serve, network.WORLD_ADDRESS, RELAY_PORT))

    def close(self):
        """Takes no further connection."""
        self._world.call(self._server.close)

    async def _serve(self, reader, writer):
        server_reader, server_writer = await asyncio.open_connection(
            network.WORLD_ADDRESS, self._target)
        try:
            await asyncio.gather(self._pass(reader, server_writer, 65536),
                                 self._pass(server_reader, writer, 1))
        except ConnectionError:
            pass
        finally:
            writer.close()
            server_writer.close()

    async def _pass(self, reader, writer, size):
        while piece := await reader.read(65536):
            for at in range(0, len(piece), size):  # asyncio sends at once, without Nagle's delay
                writer.write(piece[at:at + size])
                await writer.drain()
                self.writes += size == 1
        writer.close()


@pytest.fixture
def crumbs(lab):
    """Makes the relay: crumbs(port)."""
    made = []

    def begin(target):
        made.append(Crumbs(lab.world, target))
        return made[0]
    yield begin
    for relay in made:
        relay.close()


def fragments_with_pings(lab, size, sizes, send):
    """Sends a request in fragments, each but the last followed by a ping, which is answered.

    The next fragment waits for that: of pings that come in a row the library may answer only one.
    """
    text, opcode = info_request(size), rawpeer.TEXT
    for cut in sizes:
        send(rawpeer.encode(opcode, text[:cut], fin=False) +
             rawpeer.encode(rawpeer.PING, f"behind {cut}".encode()))
        assert lab.rawpeer.wait_frame(rawpeer.PONG).payload == f"behind {cut}".encode()
        text, opcode = text[cut:], rawpeer.CONTINUATION
    send(rawpeer.encode(opcode, text))


def test_the_whole_way_in_segments_of_one_byte(lab, start, crumbs):
    relay = crumbs(rawpeer.PORT)
    lab.onboarding.reply = redirect(f"https://{names.CONTROLLER_HOST}:{RELAY_PORT}/ws")
    start()
    lab.wait_registered()
    assert answer(lab)["msgType"] == 100
    lab.rawpeer.send_frame(rawpeer.TEXT, info_request(5000))
    answered_once(lab)
    fragments_with_pings(lab, 5000, (1, 125, 4096), lab.rawpeer.send_bytes)
    answered_once(lab)
    assert relay.writes > 10000
    assert len(lab.journal.events("raw-connected")) == 1


@pytest.fixture
def raw(start):
    """A lab whose agent is registered with the frame-level controller."""
    def begin(**options):
        lab = start(**options)
        lab.onboarding.reply = redirect(rawpeer.URL)
        lab.wait_registered()
        lab.rawpeer.wait_connected()
        assert answer(lab)["msgType"] == 100
        return lab
    return begin


@pytest.mark.parametrize("size", [1, 2, 7])
def test_tiny_tls_records(raw, size):
    lab = raw()
    lab.rawpeer.send_records(rawpeer.encode(rawpeer.TEXT, info_request(3000)), size)
    answered_once(lab)
    fragments_with_pings(lab, 3000, (0, 1, 2000),
                         lambda wire: lab.rawpeer.send_records(wire, size))
    answered_once(lab)


def test_an_onboarding_answer_in_records_of_one_byte(lab, start):
    lab.onboarding.reply = Reply(record_size=1)
    start()
    lab.log.wait("Received 1 bytes")
    lab.log.wait("Received full data")
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1


def memory_peak(lab):
    """The most memory that the agent has ever held, in bytes."""
    with open(f"/proc/{lab.supervisor.pid}/status", encoding="ascii") as status:
        return int(re.search(r"VmHWM:\s+(\d+) kB", status.read())[1]) * 1024


def refused(lab, wire, log=NOT_HAD, room=4 * MIB):
    """Sends what must end the connection; checks log, memory and the way back."""
    before = memory_peak(lab)
    pid = lab.supervisor.pid
    lab.rawpeer.send_bytes(wire)
    if log:
        lab.log.wait(log)
    lab.log.wait("LWS_CALLBACK_CLOSED")
    lab.rawpeer.wait_ended()
    lab.rawpeer.wait_connected()
    lab.wait_registered()
    assert lab.supervisor.pid == pid, "it is the same process"
    assert memory_peak(lab) - before < room
    assert answer(lab)["msgType"] == 100
    lab.rawpeer.send_frame(rawpeer.TEXT, info_request(100))
    answered_once(lab)


@pytest.mark.parametrize("claim", [16 * MIB + 101, 17 * MIB, 2**31, 2**32, 2**32 + 100, 2**62,
                                   2**63 - 1])
def test_a_length_that_cannot_be_had(raw, claim):
    refused(raw(), rawpeer.encode(rawpeer.TEXT, b"x" * 100, length=claim))


@pytest.mark.parametrize("claim", [2**63, 2**64 - 1])
def test_a_length_that_no_frame_may_have(raw, claim):
    refused(raw(), rawpeer.encode(rawpeer.TEXT, b"x" * 100, length=claim), log="")


def test_a_continuation_that_cannot_be_had(raw):
    refused(raw(), rawpeer.encode(rawpeer.TEXT, b"x" * 100, fin=False) +
            rawpeer.encode(rawpeer.CONTINUATION, b"x" * 100, length=2**62))


def test_fragments_that_never_end(raw):
    piece = b"x" * (MIB - 1000)
    wire = rawpeer.encode(rawpeer.TEXT, piece, fin=False)
    wire += rawpeer.encode(rawpeer.CONTINUATION, piece, fin=False) * 16
    # It holds sixteen of them, in a buffer that grows by doubling.
    refused(raw(faketime="+0 x5", env=FORGETFUL), wire, room=34 * MIB)


def test_the_longest_message_is_taken(raw):
    lab = raw(faketime="+0 x5")
    lab.rawpeer.send_frame(rawpeer.TEXT, info_request(16 * MIB))
    answered_once(lab)


def test_a_claim_costs_nothing_until_the_bytes_come(raw):
    lab = raw()
    before = memory_peak(lab)
    lab.rawpeer.send_bytes(rawpeer.encode(rawpeer.TEXT, b"x" * 100, length=16 * MIB))
    lab.log.wait("Not received PONG for the last ping (1)")  # the pongs count as payload
    assert memory_peak(lab) - before < MIB
    lab.rawpeer.close_raw()
    lab.rawpeer.wait_connected()
    lab.wait_registered()
