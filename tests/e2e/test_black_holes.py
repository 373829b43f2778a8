"""Connections that die without a sign, in one direction or in both: when they are given up."""

import pytest
from expect import fence, seconds_between

CLOCK = "+0 x40"


def events_on(lab, kind, connection):
    """The controller's events of one connection."""
    return [event for event in lab.journal.events(kind) if event["connection"] is connection]


def given_up(lab):
    """Waits until the agent has given its connection up, and checks when it did."""
    missed = lab.log.wait("Not received PONG for the last ping (1)")
    calls = [e for e in lab.journal.events("log") if "ping call back" in e["message"]
             and e.index < missed.index]
    unanswered = calls[-2]  # the cycle before the one that misses the first pong
    last = lab.log.wait("Missed 5 consecutive PONGS, disconnecting with server")
    assert 75 <= seconds_between(unanswered, last) <= 145 + 5 * 2 + 1
    gone = lab.log.wait("DA_STATE_DISCONNECTED", since=last.index)
    assert seconds_between(last, gone) <= 30 + 5 + 2 * 2 + 1
    return last


@pytest.mark.parametrize("direction", ["both", "from-device", "to-device"])
def test_a_black_hole_is_given_up_in_time(start, direction):
    lab = start(faketime=CLOCK)
    lab.wait_registered()
    lab.log.wait("Received Pong message from Orvanta")
    lost = lab.controller.current
    pings = len(events_on(lab, "ping", lost))
    lab.network.black_hole(direction=direction)
    last = given_up(lab)
    heard = len(events_on(lab, "ping", lost)) - pings
    if direction == "to-device":
        assert heard >= 1, "the controller heard the pings"
    else:
        assert heard <= 1, "at most one was under way when the network died"
    lab.network.restore()
    lab.log.wait("Previous state 4 new state 0", since=last.index)
    lab.wait_registered()
    assert lab.controller.current.number == 2
    assert fence(lab)["lastCloseReason"] == "DEV_PING_TIMEOUT"
