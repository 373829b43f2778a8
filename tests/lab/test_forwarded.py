"""Events of local programs are told apart from what the agent itself says, and nothing else is."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab.forwarded import Forwarded, as_forwarded, shown  # noqa: E402 - needs the path above


@pytest.mark.parametrize("datagram, forwarded", [
    (b"", b""), (b"event", b"event"), (b"a\0b", b"a"), (b"\0", b""),
    (b"x" * 2048, b"x" * 2048), (b"x" * 2049, b"x" * 2048), (b"\xff\n", b"\xff\n")])
def test_what_arrives_of_a_datagram(datagram: bytes, forwarded: bytes) -> None:
    assert as_forwarded(datagram) == forwarded


@pytest.mark.parametrize("data, text", [
    (b'{"a": 1}', '{"a": 1}'), ("\u20ac".encode(), "\u20ac"), (b"a\xff", "a\\xff"),
    (b"\x1b[2J\n", "\\x1b[2J\\n"), ("\u202e".encode(), "\\u202e")])
def test_an_event_does_not_move_the_terminal(data: bytes, text: str) -> None:
    assert shown(data) == text


def test_an_announcement_is_good_for_one_message() -> None:
    events = Forwarded()
    events.announce(b"event")
    events.announce(b"event")
    assert [events.take(b"event") for _ in range(3)] == [True, True, False]


def test_nothing_but_the_announced_bytes_is_taken() -> None:
    events = Forwarded()
    events.announce(b'{"msgType": 116}')
    for other in (b'{"msgType":116}', b'{"msgType": 116} ', b"", b'{"msgType": 100}', b"\xff", b"[699]",
                  b'{"msgType": "699"}', b'{"msgtype": 699}', b"699", b"[" * 100000):
        assert not events.take(other), other[:40]


@pytest.mark.parametrize("text", [b'{"msgType": 699}', b'{"a":[1],"msgType":699}\n'])
def test_an_event_by_its_type_needs_no_announcement(text: bytes) -> None:
    assert Forwarded().take(text)
