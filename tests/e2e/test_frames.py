"""Websocket frames one by one: what the agent's are like and what it takes."""

import json

import pytest
from framed import answer, answered_once, info_request

from lab import rawpeer
from lab.onboarding import redirect


@pytest.fixture
def raw(start):
    """A lab whose agent is registered with the frame-level controller."""
    def begin(**options):
        lab = start(**options)
        lab.onboarding.reply = redirect(rawpeer.URL)
        lab.wait_registered()
        return lab
    return begin


def test_the_agents_frames(raw):
    lab = raw()
    frame = lab.rawpeer.wait_frame(rawpeer.BINARY)
    assert (frame.fin, frame.reserved, frame.masked) == (True, 0, True)
    assert json.loads(frame.payload)["msgType"] == 100
    ping = lab.rawpeer.wait_frame(rawpeer.PING)
    assert (ping.fin, ping.masked) == (True, True)
    lab.log.wait("Received Pong message from Orvanta")


def test_one_frame_of_any_size(raw):
    lab = raw()
    lab.rawpeer.wait_frame(rawpeer.BINARY)
    for size in (123, 125, 126, 4095, 4096, 4097, 10000, 65535, 65536, 200000):
        request = info_request(size)
        assert len(request) == size
        lab.rawpeer.send_frame(rawpeer.TEXT, request)
        answered_once(lab)
    lab.log.wait("Total payload len is greater than 4k allocate memory , payload len is 10000")


def test_a_message_in_fragments(raw):
    lab = raw()
    lab.rawpeer.wait_frame(rawpeer.BINARY)
    for sizes in ((10,), (1, 1, 1), (4096, 4096), (5000, 10, 3000), (0, 9000, 0), (9999,),
                  (10000,)):
        lab.rawpeer.send_fragments(info_request(10000), sizes)
        answered_once(lab)


def test_a_ping_between_fragments_is_answered(raw):
    lab = raw()
    lab.rawpeer.wait_frame(rawpeer.BINARY)
    request = info_request(6000)
    lab.rawpeer.send_frame(rawpeer.TEXT, request[:5000], fin=False)
    lab.rawpeer.send_frame(rawpeer.PING, b"are you there")
    assert lab.rawpeer.wait_frame(rawpeer.PONG).payload == b"are you there"
    lab.rawpeer.send_frame(rawpeer.CONTINUATION, request[5000:])
    answered_once(lab)


def test_a_message_that_trickles_in(raw):
    lab = raw()
    lab.rawpeer.wait_frame(rawpeer.BINARY)
    wire = rawpeer.encode(rawpeer.TEXT, info_request(9000))
    for at in range(0, len(wire), 1500):
        lab.rawpeer.send_bytes(wire[at:at + 1500])
    answered_once(lab)


def test_many_messages_at_once(raw):
    lab = raw()
    lab.rawpeer.wait_frame(rawpeer.BINARY)
    lab.rawpeer.send_bytes(rawpeer.encode(rawpeer.TEXT, b'{"msgType": 115}') * 50)
    for _ in range(50):
        assert answer(lab)["msgType"] == 415


def test_binary_messages_are_taken_like_text(raw):
    lab = raw()
    lab.rawpeer.wait_frame(rawpeer.BINARY)
    lab.rawpeer.send_frame(rawpeer.BINARY, info_request(5000))
    answered_once(lab)


def test_a_message_beyond_all_measure_ends_the_connection(raw):
    lab = raw()
    lab.rawpeer.wait_connected()
    size = 17 * 1024 * 1024
    lab.rawpeer.send_bytes(rawpeer.encode(rawpeer.TEXT, b"x" * 4096, length=size))
    lab.rawpeer.wait_ended()
    lab.log.wait("DA_STATE_DISCONNECTED")
    lab.rawpeer.wait_connected()


def test_fragments_beyond_all_measure_end_the_connection(raw):
    lab = raw()
    lab.rawpeer.wait_connected()
    piece = b"x" * (1024 * 1024)
    with pytest.raises(Exception):  # noqa: B017 - whichever way the connection breaks
        lab.rawpeer.send_frame(rawpeer.TEXT, piece, fin=False)
        for _ in range(40):
            lab.rawpeer.send_frame(rawpeer.CONTINUATION, piece, fin=False)
    lab.rawpeer.wait_ended()
    lab.log.wait("DA_STATE_DISCONNECTED")
    lab.rawpeer.wait_connected()


def test_a_lost_connection_leaves_no_half_message(raw):
    lab = raw()
    lab.rawpeer.wait_connected()
    lab.rawpeer.send_frame(rawpeer.TEXT, info_request(9000)[:6000], fin=False)
    lab.log.wait("LWS_CALLBACK_CLIENT_RECEIVE")
    lab.rawpeer.close_raw()
    lab.rawpeer.wait_connected()
    lab.wait_registered()
    for _ in range(2):  # one REGISTER each
        lab.rawpeer.wait_frame(rawpeer.BINARY)
    lab.rawpeer.send_frame(rawpeer.TEXT, info_request(9000))
    answered_once(lab)


@pytest.mark.parametrize("wire", [
    rawpeer.encode(3, b"reserved opcode"), rawpeer.encode(rawpeer.CONTINUATION, b"of nothing"),
    bytes([0xF1, 1]) + b"x", rawpeer.encode(rawpeer.PING, b"x" * 126)],
    ids=["reserved opcode", "stray continuation", "reserved bits", "long ping"])
def test_broken_frames_end_the_connection(raw, wire):
    lab = raw()
    lab.rawpeer.wait_connected()
    lab.rawpeer.send_bytes(wire)
    lab.rawpeer.wait_ended()
    lab.rawpeer.wait_connected()
    lab.wait_registered()


def test_the_close_frame_of_sigterm(raw):
    lab = raw()
    lab.supervisor.send_signal(15)
    frame = lab.rawpeer.wait_frame(rawpeer.CLOSE)
    assert frame.payload == b"\x03\xe8DEV_CFG_UPDATE"
    assert (frame.fin, frame.masked) == (True, True)
