"""A device that starts with nothing there: it registers by itself once all has come, in any order."""

import os
import time
from typing import Callable, NamedTuple

import pytest
from expect import CLOUD, board, fence, onboarding_request, until

from lab import network
from lab.wallclock import WallClock

SPEED = "+0 x40"
"""A failed pass is followed by the next after 60 to 79 s of this clock."""
FAILED = "Unable to discover Orvanta URL (re-discover in"
CONFIG = "/mnt/flash/config"
RESOLVER = f"nameserver {network.WORLD_ADDRESS}\n"
HEARTBEAT = "da_alive_cb: Kicking the DA watchdog"
UNRESOLVED = (f"Not able to resolve  {CLOUD} ", "Resolving URL")
NO_CREDENTIALS = ("Required on-boarding credentials not configured, cannot attempt on-boarding.",
                  "Velmora-ID Not Configured")

SILENT = {"cable", "address"}
"""Without these, questions to the name server leave and no answer comes: such a pass waits for six
true seconds (the resolver's patience is not sped up), so the tests see one of them and no more."""

LINES_PER_MINUTE = 60
"""Of the agent's clock: one pass, or two, of at most 25 lines."""
CPU_SHARE = 0.35
"""Of the time that passes. The clock runs 40 times too fast, and so does the work it asks for."""


class Thing(NamedTuple):
    """What a device needs: how it is taken away, and how it comes."""

    take: Callable
    bring: Callable


def ip(*commands):
    """Commands of `ip` for the device's network."""
    return lambda lab: network.run_batch("ip", lab.network.device_fd, *commands)


def take_configuration(lab):
    """An empty flash, and a board that was never given its serial number."""
    lab.device.run(["rm", "-rf", CONFIG], check=True)
    board(lab, serialNumber=None)


def bring_configuration(lab):
    """An installer's account token, which takes the serial number's place."""
    lab.device.run(["mkdir", "-p", CONFIG], check=True)
    lab.device.write_text(f"{CONFIG}/velmora_id", "abc:def\n")


# The address alone leads nowhere (a host prefix), so that the route is a thing of its own.
THINGS = {
    "cable": Thing(lambda lab: lab.network.cut(), lambda lab: lab.network.restore()),
    "address": Thing(ip("address flush dev eth0"),
                     ip(f"address add {network.DEVICE_ADDRESS}/32 dev eth0")),
    "route": Thing(ip("route flush dev eth0"),
                   ip(f"route add {network.WORLD_ADDRESS} dev eth0",
                      f"route add default via {network.WORLD_ADDRESS} dev eth0")),
    "names": Thing(lambda lab: lab.device.write_text("/etc/resolv.conf", ""),
                   lambda lab: lab.device.write_text("/etc/resolv.conf", RESOLVER)),
    "configuration": Thing(take_configuration, bring_configuration),
    "clock": Thing(lambda lab: None, lambda lab: lab.clock.set()),
}
NEEDED = [name for name in THINGS if name != "clock"]
"""Without a clock the agent registers: certificates that are not valid yet will do."""


@pytest.fixture
def bare(lab, start):
    """Starts the agent in a device without some things: bare("cable", ...)."""
    def begin(*missing):
        lab.clock = WallClock(lab.device)
        environment = lab.clock.unset()
        if "clock" not in missing:
            lab.clock.set()
        THINGS["address"].take(lab)
        for name in THINGS:
            if name in missing:
                THINGS[name].take(lab)
        for name in ("address", "route"):
            if name not in missing:
                THINGS[name].bring(lab)
        return start(faketime=SPEED, env=environment)
    return begin


def wait_failed_pass(lab, complaint, status):
    """Waits for a whole pass from now on that fails in this way, and for the status shown then."""
    since = lab.journal.position
    lab.log.wait("DA_STATE_DISCOVERY", since=since)
    lab.log.wait(complaint, since=since)
    lab.log.wait(FAILED, since=since)
    until(lab, lambda: lab.status() == status, f"the status {status!r}")


def work_done(lab):
    """The seconds of processor time used by the agent so far, and the time of day."""
    fields = open(f"/proc/{lab.supervisor.pid}/stat", encoding="ascii").read().rsplit(")", 1)[1]
    ticks = sum(int(text) for text in fields.split()[11:13])
    return ticks / os.sysconf("SC_CLK_TCK"), time.monotonic()


def assert_idle(lab, before):
    """Most of the time since `before` the agent did nothing."""
    seconds, passed = (now - then for now, then in zip(work_done(lab), before))
    assert seconds < CPU_SHARE * passed, f"it works {seconds:g} s out of {passed:g} s"


def assert_quiet(lab):
    """Waits for a minute of the agent's clock, the time between two heartbeats, and counts."""
    first = lab.log.wait(HEARTBEAT, since=lab.journal.position)
    second = lab.log.wait(HEARTBEAT, since=first.index)
    lines = [event["message"] for event in lab.journal.events("log", first.index)
             if event.index < second.index]
    assert len(lines) < LINES_PER_MINUTE, f"it writes {len(lines)} lines in a minute"
    assert sum("DA_STATE_DISCOVERY" in line for line in lines) <= 2


@pytest.mark.parametrize("thing, expected", [
    ("cable", UNRESOLVED), ("address", UNRESOLVED), ("route", UNRESOLVED), ("names", UNRESOLVED),
    ("configuration", NO_CREDENTIALS)])
def test_one_thing_comes_last(bare, thing, expected):
    lab = bare(thing)
    before = work_done(lab)
    wait_failed_pass(lab, *expected)
    if thing not in SILENT:
        assert_quiet(lab)
    assert_idle(lab, before)
    assert not lab.onboarding.requests()
    THINGS[thing].bring(lab)
    lab.wait_registered()
    assert lab.supervisor.starts == 1


def test_the_clock_comes_last(bare):
    """Registered in 1970; the right time changes nothing until certificates are looked at again."""
    lab = bare("clock")
    lab.wait_registered()
    lab.log.wait("Certificate is not yet valid, check the certificate host name ")
    assert lab.log.lines()[0].startswith("1970-01-01 00:0")
    lab.clock.set()
    fence(lab)
    since = lab.journal.position
    assert len(lab.controller.connections) == 1
    lab.controller.kill()
    lab.wait_registered()
    later = [event["line"] for event in lab.journal.events("log", since)]
    assert not [line for line in later if line.startswith("1970")]
    assert not [line for line in later if "not yet valid" in line]
    assert lab.supervisor.starts == 1


def rotations(names):
    """Each order that begins at another place, so that each name is the last in one."""
    return [names[at:] + names[:at] for at in range(len(names))]


@pytest.mark.parametrize("order", rotations(list(THINGS)) + [
    ["clock", "configuration", "names", "route", "address", "cable"],
    ["route", "names", "address", "clock", "cable", "configuration"]], ids="-".join)
def test_everything_comes_in_some_order(bare, order):
    lab = bare(*THINGS)
    wait_failed_pass(lab, *NO_CREDENTIALS)
    missing = set(THINGS)
    before = work_done(lab)
    for thing in order:
        THINGS[thing].bring(lab)
        missing.remove(thing)
        expected = NO_CREDENTIALS if "configuration" in missing else UNRESOLVED
        # Some steps are waited for; the others come while the agent is busy with these.
        still = missing & set(NEEDED)
        if still and not still <= SILENT and thing in ("cable", "names", "configuration"):
            wait_failed_pass(lab, *expected)
    lab.wait_registered()
    assert lab.onboarding.requests() == [onboarding_request(serial="", token="abc:def")]
    fence(lab)
    assert_idle(lab, before)
    assert lab.supervisor.starts == 1
