"""The log as a command, and commands of front end and controller mixed."""

import json

import pytest
from devicecommands import STUBBORN, ask, idle, program, until_said
from expect import fence

from lab.frontend import FrontEnd


@pytest.fixture
def online(online):
    """A registered device that has nothing to do: the report of its registration is out."""
    online.controller.wait_message(404)
    return online


# -- the log --------------------------------------------------------------------------------

def test_the_log_is_streamed(start):
    lab = start("-d", "2")
    lab.controller.wait_message(404, 30)
    for number in range(3):
        assert not lab.programs.log(f"before {number}")
    ask(lab, "log")
    until_said(lab, "before 0\nbefore 1\nbefore 2\n")
    lab.programs.log("live: caf\u00e9")
    until_said(lab, "live: caf\u00e9\n")
    assert not lab.programs.log("flood " + "x" * 100, count=30000)
    for _ in range(3):
        until_said(lab, "flood ")
        fence(lab)
    lab.controller.send({"msgType": 110})
    assert lab.controller.wait_message(410) == {"msgType": 410}
    while lab.controller.wait_message(409)["status"] != "Complete":
        pass
    seen = len(lab.controller.messages(409))
    lab.programs.log("afterwards")
    fence(lab)
    assert len(lab.controller.messages(409)) == seen


def test_a_streamed_log_is_not_about_itself(online):
    ask(online, "log")
    assert online.controller.wait_message(409)["status"] == "Initiated"
    assert online.controller.wait_message(409)["output"], "the history, as far as it fits"
    pieces = [json.dumps(message) for message in online.controller.messages(409)]
    fence(online)
    until_said(online, "MSG_DEV_INFO_REQUEST received")
    later = [json.dumps(message) for message in online.controller.messages(409)][len(pieces):]
    assert not any(word in text for text in later for word in ("WRITEABLE", "g_tsData")), later
    online.controller.send({"msgType": 110})
    online.controller.wait_message(410)


# -- front end and controller ---------------------------------------------------------------

def packets(page):
    """The packets of a command, "status:output", to its end."""
    found = []
    while not found or not found[-1].startswith("Complete:"):
        message = json.loads(page.hear())
        found.append(f"{message['status']}:{message['output']}")
    return found


def test_the_front_end_runs_commands_too(online):
    program(online, "ping", "#!/bin/sh\necho one\nsleep 0.2\necho two\n")
    with FrontEnd(online.device) as page:
        page.ask({"msgType": 109, "command": "ping"})
        assert packets(page) == ["Initiated:", "InProgress:one\n", "InProgress:two\n", "Complete:"]
        page.ask({"msgType": 109, "command": "nslookup", "arguments": {"host": "nowhere.example"}})
        assert packets(page) == ["Complete:Name or service not known"]
        page.ask({"msgType": 109, "command": "log"})
        assert json.loads(page.hear())["status"] == "Initiated"
        page.ask({"msgType": 110})
        while json.loads(page.hear())["status"] != "Complete":
            pass
    assert online.controller.messages(409) == []


def test_each_displaces_the_other(online):
    before = idle(online)
    program(online, "ping", STUBBORN)
    ask(online, "ping")
    until_said(online, "begun\n")
    with FrontEnd(online.device) as page:
        page.ask({"msgType": 109, "command": "ping"})
        assert page.hear() == "", "refused, and the controller's is ended"
    assert online.controller.wait_message(410)
    assert online.controller.wait_message(409)["status"] == "Complete"
    with FrontEnd(online.device) as page:
        page.ask({"msgType": 109, "command": "ping"})
        assert [json.loads(page.hear())["output"] for _ in range(2)] == ["", "begun\n"]
        ask(online, "ping")
        assert online.controller.wait_message(709)
        assert json.loads(page.hear())["status"] == "Complete"
        page.ask({"msgType": 109, "command": "ping"})
        assert [json.loads(page.hear())["output"] for _ in range(2)] == ["", "begun\n"]
        online.controller.send({"msgType": 109, "command": "disconnect-clients",
                                "arguments": {"macs": ["ALL"]}})
        assert online.controller.wait_message(409)["status"] == "Complete"
        page.ask({"msgType": 110})
        assert json.loads(page.hear())["status"] == "Complete", "not taken away by the other"
    assert idle(online) != [] and len(idle(online)) == len(before)
