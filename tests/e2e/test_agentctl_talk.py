"""agentctl's conversations: events, commands and scans, against a scripted end of the agent's sockets."""

import json
import os
import selectors
import signal
import socket
import subprocess
import time

import pytest
from toolbox import Agentctl

from lab.device import BASE_ENVIRONMENT, PYTHON, REPOSITORY

EVENTS = "/tmp/heron_event_sock"
PEER = str(REPOSITORY / "tests/e2e/frontend_peer.py")
RESERVED = '{"msgType":401,"x":1}'


@pytest.fixture
def ctl(lab, binary):
    """agentctl in the lab's device, where no agent runs."""
    return Agentctl(lab, binary)


class Peer:
    """The scripted end of the front-end socket."""

    def __init__(self, lab):
        self.process = lab.device.popen([PYTHON, PEER], env=BASE_ENVIRONMENT, text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.rest = b""
        self.selector = selectors.DefaultSelector()
        self.selector.register(self.process.stdout, selectors.EVENT_READ)
        assert self.line() == "ready"

    def line(self, timeout=10.0):
        """The next line it tells."""
        while b"\n" not in self.rest:
            assert self.selector.select(timeout), "the peer has heard nothing"
            self.rest += os.read(self.process.stdout.fileno(), 65536)
        line, self.rest = self.rest.split(b"\n", 1)
        return line.decode()

    def packet(self):
        """The next packet from agentctl."""
        return json.loads(self.line())

    def order(self, **what):
        """Has it do something."""
        self.process.stdin.write(json.dumps(what) + "\n")
        self.process.stdin.flush()

    def output(self, status, output=""):
        """Sends command output."""
        self.order(send={"msgType": 409, "status": status, "output": output})

    def close(self):
        """Ends it."""
        self.process.stdin.close()
        self.process.wait(10)
        self.process.stdout.close()


@pytest.fixture
def peer(lab):
    """A peer that listens."""
    end = Peer(lab)
    yield end
    end.close()


def ended(process, timeout=15.0):
    """Waits for a program: its status and outputs."""
    out, err = process.communicate(timeout=timeout)
    assert "Sanitizer" not in err, err
    return process.returncode, out, err


# -- run ------------------------------------------------------------------------------------

@pytest.mark.parametrize("words, request_text", [
    (["ping", "-c", "4", "-s", "64", "-t", "9", "10.0.0.1"],
     '{"msgType":109,"command":"ping","arguments":{"count":4,"size":64,"ttl":9,"host":"10.0.0.1"}}'),
    (["-d", "30", "traceroute", "-I", "-F", "-l", "-v", "host.example"],
     '{"msgType":109,"command":"traceroute","arguments":{"traceMethod":"icmp","dontFrag":true,'
     '"showTtl":true,"verbose":true,"host":"host.example"},"duration":30}'),
    (["nslookup", "a.example"],
     '{"msgType":109,"command":"nslookup","arguments":{"host":"a.example"}}'),
    (["tcpdump", "-i", "eth0", "-c", "1", "port", "53", "and", "udp"],
     '{"msgType":109,"command":"tcpdump","arguments":{"interface":"eth0","count":1,'
     '"filter":"port 53 and udp"}}'),
    (["tcpdump"], '{"msgType":109,"command":"tcpdump","arguments":{}}')])
def test_a_command_and_its_output(ctl, peer, words, request_text):
    running = ctl.popen("run", *words)
    assert peer.line() == "accepted"
    assert peer.line() == request_text
    peer.output("Initiated")
    peer.output("InProgress", "64 bytes from \x1b]0;evil\x07\n")
    peer.output("InProgress", "and more\n")
    peer.output("Complete")
    assert ended(running) == (0, "64 bytes from ?]0;evil?\nand more\n", "")
    assert peer.line() == "closed"


def test_a_name_that_does_not_resolve(ctl, peer):
    running = ctl.popen("run", "nslookup", "nowhere.example")
    peer.line(), peer.line()
    peer.output("Complete", "Name or service not known")
    assert ended(running)[:2] == (1, "Name or service not known\n")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_an_interrupt_sends_the_stop(ctl, peer, number):
    running = ctl.popen("run", "ping", "10.0.0.1")
    peer.line(), peer.line()
    peer.output("Initiated")
    peer.output("InProgress", "first\n")
    assert running.stdout.readline() == "first\n"
    running.send_signal(number)
    assert peer.line() == '{"msgType":110}'
    peer.output("InProgress", "last\n")
    peer.output("Complete")
    assert ended(running) == (130, "last\n", "")


def test_a_stop_that_is_not_answered(ctl, peer):
    running = ctl.popen("run", "ping", "10.0.0.1")
    peer.line(), peer.line()
    peer.output("Initiated")
    peer.output("InProgress", "first\n")
    running.stdout.readline()
    running.send_signal(signal.SIGINT)
    peer.line()
    code, _, err = ended(running)
    assert code == 130 and "has not said that it stopped" in err


def test_somebody_else_stops_it(ctl, peer):
    running = ctl.popen("run", "ping", "10.0.0.1")
    peer.line(), peer.line()
    peer.output("Initiated")
    peer.order(send={"msgType": 410})
    code, _, err = ended(running)
    assert code == 1 and "the command was stopped" in err


def test_a_refusal(ctl, peer):
    running = ctl.popen("run", "ping", "10.0.0.1")
    peer.line(), peer.line()
    peer.order(close=True)
    code, _, err = ended(running)
    assert code == 69 and "agentctl: the agent refused." in err


def test_the_agent_goes_away_in_the_middle(ctl, peer):
    running = ctl.popen("run", "ping", "10.0.0.1")
    peer.line(), peer.line()
    peer.output("Initiated")
    peer.output("InProgress", "first\n")
    running.stdout.readline()
    peer.order(close=True)
    code, _, err = ended(running)
    assert code == 69 and "the agent ended the connection" in err


def test_a_running_command_is_displaced_with_a_warning(ctl, peer):
    peer.order(run=["sleep", "1000"])
    assert peer.line() == "running"
    running = ctl.popen("run", "ping", "10.0.0.1")
    assert peer.line() == "accepted"
    assert peer.line() == '{"msgType":110}'
    assert peer.packet()["msgType"] == 109
    peer.order(send={"msgType": 410})  # the end of the old one, which is not ours
    peer.output("Complete")
    peer.output("Initiated")
    peer.output("InProgress", "ours\n")
    peer.output("Complete")
    code, out, err = ended(running)
    assert (code, out) == (0, "ours\n")
    assert 'warning: the agent was running "sleep 1000", which is stopped' in err


def test_another_front_end_is_displaced_with_a_warning(ctl, peer):
    first = ctl.popen("run", "ping", "10.0.0.1")
    peer.line(), peer.line()
    peer.output("Initiated")
    second = ctl.popen("run", "ping", "10.0.0.2")
    assert peer.line() == "accepted"
    peer.line()
    peer.output("Initiated")
    peer.output("Complete")
    code, _, err = ended(second)
    assert code == 0 and "warning: another front end was connected" in err
    code, _, err = ended(first)
    assert code == 69 and "another front end took its place" in err


def test_an_agent_that_is_not_there(ctl):
    for words in (["run", "ping", "a"], ["stop"], ["scan", "5GHz"], ["trap", "x"]):
        done = ctl.run(*words)
        assert done.returncode == 69 and "the agent is not there" in done.stderr, words


def test_an_agent_that_does_not_answer(ctl, peer):
    running = ctl.popen("run", "ping", "10.0.0.1")
    code, _, err = ended(running)
    assert code == 69 and "the agent does not answer" in err


# -- stop -----------------------------------------------------------------------------------

def test_stop(ctl, peer):
    peer.order(run=["sleep", "1000"])
    assert peer.line() == "running"
    done = ctl.run("stop")
    assert (done.returncode, done.stdout) == (0, "stopped\n")
    assert (peer.line(), peer.line()) == ("accepted", '{"msgType":110}')
    done = ctl.run("stop")
    assert done.stdout == "told to stop; no running command was seen\n"


# -- scan -----------------------------------------------------------------------------------

SCAN = {"msgType": 411, "status": "Complete", "band": "5GHz",
        "channelInfo": [{"channel": 36, "interference": 3, "noise": -95, "numAps": 2}],
        "neighborInfo": [{"bssid": "02-00-00-00-00-01", "manufacturer": "Unknown",
                          "ssid": "caf\u00e9\x1b[31m\nx", "channel": 36, "signal": -60,
                          "encryption": "WPA2"}]}


def test_a_scan_is_shown_as_tables(ctl, peer):
    running = ctl.popen("scan", "5GHz")
    assert (peer.line(), peer.line()) == ("accepted", '{"msgType":111,"band":"5GHz"}')
    peer.output("InProgress", "of another command")
    peer.order(send=SCAN)
    code, out, err = ended(running)
    assert (code, err) == (0, "")
    assert out.splitlines() == [
        "Band 5GHz: 1 channels, 1 neighbours", "",
        "Channel  Interference  Noise  Access points", "36       3             -95    2", "",
        "BSSID              Channel Signal  Encryption           Manufacturer             SSID",
        "02-00-00-00-00-01  36      -60     WPA2                 Unknown                  "
        "caf\u00e9?[31m x"]


def test_a_scan_as_json(ctl, peer):
    running = ctl.popen("scan", "--json", "2.4GHz")
    peer.line(), peer.line()
    peer.order(send=SCAN)
    code, out, _ = ended(running)
    assert code == 0 and json.loads(out) == SCAN


def test_a_scan_that_fails(ctl, peer):
    running = ctl.popen("scan", "2.4GHz")
    peer.line(), peer.line()
    peer.order(send={"msgType": 711, "code": "BadRequest",
                     "message": "Device does not support scanning requested band"})
    code, _, err = ended(running)
    assert code == 1
    assert err == "agentctl: the scan failed: Device does not support scanning requested band\n"


# -- trap -----------------------------------------------------------------------------------

@pytest.fixture
def events(lab):
    """The agent's event socket."""
    path = f"/proc/{lab.device.pid}/root{EVENTS}"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
        end.bind(path)
        end.settimeout(5)
        yield end
        os.unlink(path)


@pytest.mark.parametrize("text", ['{"msgType":699,"a":"\u00e9 %s%n"}', " ", "-x", "a" * 2048])
def test_an_event_is_passed_on_byte_for_byte(ctl, events, text):
    done = ctl.run("trap", text)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert events.recv(4096) == text.encode()
    assert ctl.run("trap", "-", input=text + "\n").returncode == 0
    assert events.recv(4096) == text.encode()


@pytest.mark.parametrize("text, complaint", [
    ("a" * 2049, "longer than 2048 bytes"), ("", "the event is empty"),
    (RESERVED, "the report of a firmware download"), ("a\0b", "NUL byte")])
def test_an_event_that_would_not_arrive_as_it_is(ctl, events, text, complaint):
    done = ctl.run("trap", "-", input=text)
    assert done.returncode == 64 and complaint in done.stderr
    events.setblocking(False)
    with pytest.raises(BlockingIOError):
        events.recv(4096)


def test_an_agent_that_takes_no_events(ctl, events):
    for _ in range(1000):
        began = time.monotonic()
        done = ctl.run("trap", "x")
        if done.returncode:
            break
    assert done.returncode == 69 and "has been full for 2 s" in done.stderr
    assert time.monotonic() - began < 10


def test_the_socket_of_an_agent_that_is_gone(lab, ctl, events):
    events.close()
    done = ctl.run("trap", "x")
    assert done.returncode == 69 and f"nobody listens at {EVENTS}" in done.stderr


def test_the_agent_passes_the_event_on_to_the_controller(online, ctl):
    event = '{"msgType":699,"eId":"FromAPerson"}'
    done = ctl.run("trap", event)
    assert (done.returncode, done.stderr) == (0, "")
    assert online.controller.wait_trap() == event.encode()
