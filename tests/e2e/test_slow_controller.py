"""A controller that asks faster than it reads: order, size and budget of what waits for it."""

import json
import re

import pytest
from expect import until

from lab import rawpeer
from lab.onboarding import redirect

BUDGET = 1048576
FRAME = 4096
LOCATE = rawpeer.encode(rawpeer.TEXT, b'{"msgType": 115}')
LETTERS = str.maketrans("0123456789", "abcdefghij")
DIGITS = str.maketrans("abcdefghij", "0123456789")
FULL = re.compile(r"write_to_orv: TXQ full txq_mem_size=(\d+) txq_depth=(\d+) dropping messages")


def broken(number):
    """A text whose reply, a 999, names its number."""
    token = f"{number:06d}".translate(LETTERS)  # only letters are told as one token
    return rawpeer.encode(rawpeer.TEXT, f'{{"msgType": {token}}}'.encode())


def number_of(message):
    """The number of the text that this 999 answers."""
    return int(re.search(r"near '(\w{6})", message["message"])[1].translate(DIGITS))


@pytest.fixture
def slow(start):
    """A lab whose agent is registered with a controller that has stopped reading."""
    lab = start("-d", "0", faketime="+0 x5")  # its pings must not be missed meanwhile
    lab.onboarding.reply = redirect(rawpeer.URL)
    lab.rawpeer.wait_frame(rawpeer.BINARY, timeout=30)
    lab.rawpeer.pause()
    return lab


def flood(lab, count):
    """Sends so many texts at once; returns the numbers of those that the log says are answered."""
    lab.rawpeer.send_bytes(b"".join(map(broken, range(count))))
    last = f"near '{count - 1:06d}'".translate(LETTERS)
    until(lab, lambda: last in lab.supervisor.output(), "the last text to be dealt with", 30)
    answered, dropped = [], False
    for line in lab.supervisor.output().splitlines():  # the log file turns over too quickly
        if FULL.search(line):
            dropped = True  # the reply to the text that the next line is about
        elif "near '" in line:
            if not dropped:
                answered.append(number_of({"message": line}))
            dropped = False
    return answered


def heard(lab, last):
    """Reads on, until the answer to text number `last` and one more; all that was said, parsed."""
    lab.rawpeer.resume()
    token = f"near '{last:06d}'".translate(LETTERS).encode()
    lab.journal.wait("raw-frame", lambda e: token in e["frame"].payload, 30)
    lab.rawpeer.send_bytes(LOCATE)
    lab.journal.wait("raw-frame", lambda e: e["frame"].payload == b'{"msgType": 415}', 30)
    frames = [f for f in lab.rawpeer.frames() if f.opcode != rawpeer.PING]
    assert all(len(f.payload) <= FRAME and f.masked for f in frames)
    assert all(f.opcode == rawpeer.BINARY and f.fin for f in frames), "each message is one frame"
    assert len(lab.journal.events("raw-connected")) == 1
    return [json.loads(f.payload) for f in frames][1:-1]  # without REGISTER and the last one


def test_two_thousand_answers_at_once(slow):
    assert flood(slow, 2000) == list(range(2000))
    assert [number_of(m) for m in heard(slow, 1999)] == list(range(2000))


def test_what_is_beyond_the_budget_is_dropped_and_told(slow):
    count = 16000
    answered = flood(slow, count)
    assert 0 < len(answered) < count
    full = list(FULL.finditer(slow.supervisor.output()))
    assert len(answered) + len(full) == count
    sizes = [int(line[1]) for line in full]
    assert min(sizes) >= BUDGET and max(sizes) < BUDGET + FRAME
    assert int(full[0][2]) * 100 < BUDGET < int(full[0][2]) * 130, "the length of such an answer"
    assert [number_of(m) for m in heard(slow, answered[-1])] == answered


def test_what_waits_is_lost_with_its_connection(slow):
    """An answer belongs to the connection on which it was asked for."""
    count = 16000
    assert 0 < len(flood(slow, count)) < count
    slow.rawpeer.wait_connected()
    slow.rawpeer.close_raw()
    slow.rawpeer.resume()
    slow.rawpeer.wait_ended()
    anew = slow.rawpeer.wait_connected()
    since = slow.journal.wait("raw-frame", lambda e: b'"sessId"' in e["frame"].payload,
                              since=anew.index, what="REGISTER").index
    slow.rawpeer.send_frame(rawpeer.TEXT, b'{"msgType": 115}')
    last = slow.journal.wait("raw-frame", lambda e: e["frame"].payload == b'{"msgType": 415}',
                             since=since, what="the answer on the new connection")
    said = [json.loads(event["frame"].payload)["msgType"]
            for event in slow.journal.events("raw-frame", since=anew.index)
            if event.index <= last.index and event["frame"].opcode != rawpeer.PING]
    assert said == [100, 415]
