"""The Wi-Fi daemon's talk with the controller, moved from another terminal."""

import json
import os
import re
import subprocess

import pytest

from lab.controller import Acceptance
from lab.ctlserver import CtlServer
from lab.device import PYTHON, REPOSITORY
from lab.wifid import LISTENS_AT


@pytest.fixture(autouse=True)
def not_yet_shown_connected(lab):
    """The controller accepts the device and asks for nothing: wifid is told of it only later."""
    lab.controller.on_register = Acceptance(follow_ups=[])


@pytest.fixture
def ctl(online):
    """Runs the client against a registered device."""
    def run(*words, **options):
        return subprocess.run([PYTHON, "-m", "lab.ctl", "--lab", str(os.getpid()), "wifid", *words],
                              cwd=REPOSITORY, capture_output=True, text=True, timeout=60,
                              check=False, **options)
    with CtlServer(online):
        yield run


def test_an_answer_of_the_controller(ctl, online):
    done = ctl("answer", '{"b": 1, "a": [2]}')
    assert (done.returncode, done.stderr) == (0, "")
    assert re.sub(r"^\S+ ", "", done.stdout) == (
        '---> 416 controller-response: {"msgType": 416, "ctrlrPayload": {"b": 1, "a": [2]}}\n'
        'done: the Wi-Fi daemon heard {"b": 1, "a": [2]}\n')
    done = ctl("answer", "-", input='"text"\n')
    assert done.stdout.endswith('done: the Wi-Fi daemon heard "text"\n')
    assert [event["payload"] for event in online.wifid.messages(0)] == [{"b": 1, "a": [2]}, "text"]


def test_an_answer_that_nobody_hears(ctl, online):
    online.wifid.stop()
    done = ctl("answer", "1", "--timeout", "3")
    assert (done.returncode, done.stderr) == (1, "failed: no answer within 3 s\n")
    online.log.wait(f"Failed to send message to {LISTENS_AT}:")
    online.wifid.start()


def test_an_event(ctl):
    done = ctl("event", '{"event": "client-joined"}')
    assert (done.returncode, done.stderr) == (0, "")
    shown, last = re.sub(r"^\S+ ", "", done.stdout).splitlines()
    assert last == "done: the controller has it"
    assert shown.startswith("<--- 116 wifid-payload: ")
    assert json.loads(shown.partition("payload: ")[2])["ctrlrPayload"] == {"event": "client-joined"}


def test_a_registration_waits_and_is_taken(ctl, online):
    done = ctl("register", '{"radios": 2}')
    assert (done.returncode, done.stderr) == (
        1, "failed: the agent has told the Wi-Fi daemon to wait for the controller\n")
    online.controller.send({"msgType": 106, "nativeConfig": "x"}, unchecked=True)
    online.wifid.wait_state(1)
    done = ctl("register", '{"radios": 2}')
    assert (done.returncode, done.stderr) == (0, "")
    assert "<--- 118 wifid-registration: " in done.stdout


def test_what_is_no_json_is_told(ctl):
    done = ctl("event", "{")
    assert done.returncode == 2 and "ctl: not JSON: " in done.stderr
