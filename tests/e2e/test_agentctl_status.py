"""agentctl status in each health, its usage, and agentctl log over a rotation."""

import json
import os
import re
import selectors
import signal
import time

import pytest
from expect import AGENT_VERSION, CLOUD, STATIC_URL, agent_pid_inside, until
from toolbox import Agentctl

from lab import device_image
from lab.logfile import PATH as LOG

HEARTBEAT = "/tmp/heartbeat_device-agent"


@pytest.fixture
def ctl(lab, binary):
    """agentctl in the lab's device."""
    return Agentctl(lab, binary)


def show(lab, text):
    """Lets the agent publish this as its status."""
    lab.controller.send({"msgType": 697, "Orvanta": {"status": text}})
    until(lab, lambda: lab.status() == text, f"the status {text!r}")


def test_connected(lab, start, ctl):
    online = start(faketime="")
    online.wait_registered()
    show(online, f"Connected to {CLOUD}")
    code, report = ctl.status()
    assert (code, report["health"]) == (0, "connected")
    assert report["connection"] == f"Connected to {CLOUD}"
    assert report["agent"] == {"pid": agent_pid_inside(online), "idle": False, "starts": 1}
    assert report["heartbeat"]["fresh"] and 0 <= report["heartbeat"]["age"] < 60
    assert report["address"]["source"] == "default cloud" and report["address"]["valid"]
    assert report["certificate"] == {"checked": True, "rule": "checked"}
    assert report["sessionId"] == int(online.device.read_text("/tmp/session_id"))
    assert report["versions"] == {"agent": AGENT_VERSION, "software": device_image.SOFTWARE_VERSION,
                                  "standby": "4.1.9", "configuration": 1}
    assert report["nextAttempt"] is None and report["lastReboot"] is None
    text = ctl.run("status")
    assert text.returncode == 0 and text.stderr == ""
    assert re.search(rf"^Connection: +Connected to {CLOUD}$", text.stdout, re.MULTILINE)
    assert re.search(r"^Certificate: +checked$", text.stdout, re.MULTILINE)


def test_not_connected_and_when_it_tries_again(lab, start, ctl):
    lab.names.remove(CLOUD)
    lab.device.write_text("/mnt/flash/.last_reboot_reason", "1700000000:DEV_REBOOT:a\x1b[2J")
    start(faketime="")
    lab.log.wait("Unable to discover Orvanta URL")
    code, report = ctl.status()
    assert (code, report["health"]) == (1, "not connected")
    assert 40 < report["nextAttempt"] - time.time() <= 80
    assert report["lastReboot"] == {"time": 1700000000, "reason": "DEV_REBOOT:a\x1b[2J"}
    assert report["sessionId"] is None
    text = ctl.run("status").stdout
    assert "\x1b" not in text and "DEV_REBOOT:a?[2J" in text


def test_the_source_that_connected_is_told(online, ctl):
    online.names.add("orvanta.example.net")
    show(online, "Connected to orvanta.example.net")
    assert ctl.status()[1]["address"] is None, "nothing names that host"
    online.device.write_text("/tmp/orv_dhcp_15_domain", "example.net")
    report = ctl.status()[1]
    assert report["address"]["source"] == "DHCP option 15"
    assert report["certificate"]["checked"] is False


def test_the_url_of_the_command_line(lab, start, ctl):
    lab.device.write_text(STATIC_URL, "other.example")
    start("-d", "3", "-s", "onprem.example", "-i", faketime="")
    until(lab, lambda: ctl.status()[1]["agent"]["idle"], "the agent")
    report = ctl.status()[1]
    assert report["address"]["url"] == "onprem.example"
    assert report["address"]["place"] == "option -s of the agent"


def test_no_agent(lab, ctl):
    code, report = ctl.status()
    assert (code, report["health"]) == (2, "not alive")
    assert report["agent"]["pid"] is None and report["heartbeat"]["age"] is None
    assert "not running" in ctl.run("status").stdout


def test_an_agent_that_was_killed_leaves_its_last_words(lab, start, ctl):
    start(restart=False)
    lab.wait_registered()
    show(lab, f"Connected to {CLOUD}")
    lab.supervisor.send_signal(signal.SIGKILL)
    lab.supervisor.wait_ended()
    code, report = ctl.status()
    assert (code, report["health"]) == (2, "not alive")
    assert report["connection"] == f"Connected to {CLOUD}"


def test_a_hung_agent(lab, start, ctl):
    start("-d", "3", "-i", faketime="")
    until(lab, lambda: lab.device.exists(HEARTBEAT), "the heartbeat")
    assert ctl.status()[0] == 1
    old = time.time() - 200
    os.utime(f"/proc/{lab.device.pid}/root{HEARTBEAT}", (old, old))
    code, report = ctl.status()
    assert code == 2 and not report["heartbeat"]["fresh"]
    assert "3 minutes ago: the agent hangs" in ctl.run("status").stdout
    os.utime(f"/proc/{lab.device.pid}/root{HEARTBEAT}", (100, 100))
    code, report = ctl.status()
    assert code == 1 and report["heartbeat"]["age"] is None, "the clock was set: nobody can tell"


@pytest.mark.parametrize("words", [
    (), ("dance",), ("status", "--jason"), ("check", "now"), ("log", "-n"), ("log", "-n", "x"),
    ("trap",), ("trap", "a", "b"), ("trap", ""), ("run",), ("run", "rm", "-rf"), ("run", "ping"),
    ("run", "ping", "-c", "many", "host"), ("run", "ping", "host", "-f"), ("stop", "it"),
    ("scan",), ("scan", "6GHz")])
def test_wrong_usage(ctl, words):
    done = ctl.run(*words)
    assert done.returncode == 64
    assert done.stderr or done.stdout.startswith("Usage: agentctl")


@pytest.mark.parametrize("verb", ["", "status", "check", "log", "trap", "run", "stop", "scan"])
def test_help(ctl, verb):
    done = ctl.run(*([verb] if verb else []), "--help")
    assert done.returncode == 0 and done.stderr == ""
    assert done.stdout.startswith(f"Usage: agentctl {verb}")


# -- log ------------------------------------------------------------------------------------

class Reader:
    """Reads a program's output as it comes."""

    def __init__(self, process):
        self.process = process
        self.text = ""
        os.set_blocking(process.stdout.fileno(), False)
        self.selector = selectors.DefaultSelector()
        self.selector.register(process.stdout, selectors.EVENT_READ)

    def until(self, words, timeout=10.0):
        """Waits for these words."""
        deadline = time.monotonic() + timeout
        while words not in self.text:
            left = deadline - time.monotonic()
            assert left > 0, f"waited for {words!r}, got {self.text!r}"
            if self.selector.select(left):
                self.text += os.read(self.process.stdout.fileno(), 65536).decode()

    def close(self):
        """Ends the program and returns its status."""
        self.process.send_signal(signal.SIGINT)
        status = self.process.wait(10)
        self.process.stdout.close()
        self.process.stderr.close()
        return status


def append(lab, text):
    """Adds to the log inside the device."""
    with open(f"/proc/{lab.device.pid}/root{LOG}", "a", encoding="utf-8") as file:
        file.write(text)


def test_the_log_is_followed_over_a_rotation(lab, ctl):
    lab.device.write_text(LOG, "".join(f"line {number}\n" for number in range(30)))
    reader = Reader(ctl.popen("log", "-n", "2"))
    reader.until("line 29\n")
    assert reader.text == "line 28\nline 29\n"
    append(lab, "before\n")
    reader.until("before\n")
    root = f"/proc/{lab.device.pid}/root"
    append(lab, "last of the old\n")
    os.rename(root + LOG, root + LOG + ".old")
    append(lab, "first of the new\n")
    reader.until("first of the new\n")
    lab.device.write_text(LOG, "x\n")  # emptied and written again
    reader.until("x\n")
    assert reader.text == ("line 28\nline 29\nbefore\nlast of the old\nfirst of the new\nx\n")
    reader.close()


def test_the_log_of_a_running_agent(online, ctl):
    reader = Reader(ctl.popen("log", "-n", "1"))
    reader.until("\n")  # it reads
    show(online, "one text")
    show(online, "another text")
    reader.until("another text")
    reader.close()


def test_a_log_that_is_not_there(lab, ctl):
    done = ctl.run("log", "--once")
    assert done.returncode == 69 and f"there is no {LOG}" in done.stderr
    lab.device.write_text(LOG, "a\nb\nc")
    done = ctl.run("log", "--once", "-n", "2")
    assert (done.returncode, done.stdout) == (0, "b\nc")
    assert json.loads(ctl.run("status", "--json").stdout)["health"] == "not alive"
