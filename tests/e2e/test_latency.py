"""The latency test, with real ICMP to a host that is as late as it is told to be."""

import os
import struct
import subprocess

import pytest
from expect import agent_pid_inside, fence, until

from lab.ctlserver import CtlServer
from lab.device import PYTHON, REPOSITORY
from lab.echo import ADDRESS, NAME, checksum, echo_reply

HERE = ["--lab", str(os.getpid())]
SLOW = 0.1
"""A speed at which a second of refusal is long enough for a busy machine."""

REFUSED = {"msgType": 712, "code": "BadRequest", "message": "Latency test already in progress"}


@pytest.fixture
def timely(start):
    """A registered device whose clock is the true one from now on."""
    lab = start(faketime="", speed=20.0)
    lab.wait_registered()
    lab.supervisor.run_at(1.0)
    return lab


def ask(lab, destination, **members):
    """Asks for a test."""
    lab.controller.send({"msgType": 112, "destination": destination, **members})


def result(lab):
    """The average of the next result."""
    return lab.controller.wait_message(412, timeout=15.0)["avgLatency"]


def idle_again(lab):
    """Waits until a test is taken, and lets it begin."""
    def taken():
        refusals = len(lab.controller.messages(712))
        lab.controller.send({"msgType": 112, "destination": ADDRESS})
        fence(lab)
        return len(lab.controller.messages(712)) == refusals
    until(lab, taken, "a test to be taken")


def test_three_probes_are_answered(timely):
    timely.echo.fates = [0.010, 0.020, 0.031]
    ask(timely, NAME, tries=10)
    assert 20 <= result(timely) < 100
    timely.log.wait(f"Test latency with destination: {NAME}  tries 10")
    timely.log.wait("Latency Test Complete seq=3")
    pid = agent_pid_inside(timely) & 0xFFFF
    data = bytes(range(48, 48 + 55)) + b"\0"
    probes = timely.echo.requests()
    assert [(p["identifier"], p["sequence"], p["hops"]) for p in probes] == [
        (pid, 1, 255), (pid, 2, 255), (pid, 3, 255)]
    for probe in probes:
        icmp = probe["icmp"]
        assert icmp[:2] == b"\x08\0" and icmp[8:] == data and checksum(icmp) == 0
        assert struct.unpack("!HH", icmp[4:8]) == (pid, probe["sequence"])


def test_refused_while_it_runs_and_a_second_after(timely):
    timely.supervisor.run_at(SLOW)
    timely.echo.fates = [0.005, 0.300, 0.005]
    ask(timely, ADDRESS)
    timely.echo.wait_request(2)
    ask(timely, ADDRESS)
    assert timely.controller.wait_message(712) == REFUSED
    assert 8 <= result(timely) < 100, "310 ms, a tenth of them by its clock"
    ask(timely, ADDRESS)
    assert timely.controller.wait_message(712) == REFUSED
    timely.supervisor.run_at(20.0)
    idle_again(timely)
    result(timely)
    assert len(timely.echo.requests()) == 6


def test_lost_probes(timely):
    timely.echo.fates = [None, 0.025, None]
    ask(timely, ADDRESS)
    assert 25 <= result(timely) < 120
    for line in ("No latency response for seq 1", "Got echo reply! seq=2",
                 "No latency response for seq 3", "Total responses=1 "):
        timely.log.wait(line)
    timely.supervisor.run_at(20.0)
    timely.echo.fates = [None] * 9
    idle_again(timely)
    assert result(timely) == -1


def test_a_foreign_packet_uses_up_the_probe(timely):
    timely.echo.fates = [0.4, 0.006, 0.008]
    ask(timely, ADDRESS)
    timely.echo.wait_request(1)
    timely.echo.send(echo_reply(agent_pid_inside(timely) + 1 & 0xFFFF, 1, b"another ping's"))
    timely.log.wait("Not our message s=1 seq=1, ignoring")
    assert 6 <= result(timely) < 100
    timely.log.wait("Total responses=2 ")
    assert [p["sequence"] for p in timely.echo.requests()] == [1, 2, 3]


def test_a_destination_that_is_not_known_or_not_there(timely):
    online = timely
    online.supervisor.run_at(SLOW)
    ask(online, "nowhere.example")
    assert result(online) == -1
    online.log.wait("Not able to resolve nowhere.example")
    ask(online, ADDRESS)
    assert online.controller.wait_message(712) == REFUSED
    assert online.echo.requests() == []
    online.supervisor.run_at(20.0)
    idle_again(online)
    result(online)
    answered = len(online.controller.messages(412))
    online.controller.send({"msgType": 112})
    online.controller.send({"msgType": 112, "destination": 5}, unchecked=True)
    fence(online)
    assert len(online.controller.messages(412)) == answered
    assert online.supervisor.starts == 1


def test_a_device_without_raw_sockets(lab, binary):
    lab.supervisor.start(["/usr/bin/setpriv", "--bounding-set", "-net_raw", str(binary), "-d", "3"],
                         faketime="+0 x60")
    lab.wait_registered()
    ask(lab, ADDRESS)
    lab.log.wait("socket() failed errno=1")
    fence(lab)
    assert lab.controller.messages(412) == []
    assert "socket: Operation not permitted" in lab.supervisor.output()
    for _ in range(2):
        ask(lab, ADDRESS)
        assert lab.controller.wait_message(712) == REFUSED
        fence(lab)
    assert lab.echo.requests() == []


def test_from_the_controllers_command_line(timely):
    def ctl(*words):
        return subprocess.run([PYTHON, "-m", "lab.ctl", *HERE, "latency", *words], cwd=REPOSITORY,
                              capture_output=True, text=True, timeout=60, check=False)
    timely.echo.fates = [0.010, 0.020, 0.030]
    with CtlServer(timely):
        done = ctl(NAME, "--tries", "5")
        assert (done.returncode, done.stderr) == (0, "")
        first, second, last = done.stdout.splitlines()
        assert first.endswith('---> 112 latency-test: {"msgType": 112, "destination": "far.example", '
                              '"tries": 5}')
        assert "<--- 412 latency-result: " in second
        assert last.startswith("done: ") and last.endswith(" ms to far.example")
        assert 20 <= int(last.split()[1]) < 100
        timely.supervisor.run_at(20.0)
        idle_again(timely)
        timely.supervisor.run_at(SLOW)
        done = ctl(NAME)
        assert (done.returncode, done.stderr) == (
            1, "failed: BadRequest: Latency test already in progress\n")
        timely.supervisor.run_at(20.0)
        until(timely, lambda: "did not answer" in ctl("nowhere.example").stderr, "the refusal's end")
    assert ctl(NAME).returncode == 1, "there is no lab"
