"""Troubleshooting commands as people give them: ./dev ctl run, and agentctl on the device."""

import json
import re
import signal
import subprocess

import pytest
from devicecommands import STUBBORN, ask, idle, program, until_said
from devicecommands import running as is_running
from expect import until
from test_ctl import CTL, HERE, begin, run
from toolbox import Agentctl
from vitals import children

from lab.ctlserver import CtlServer
from lab.device import REPOSITORY

GREETER = "#!/bin/sh\nprintf 'esc \\033]0;x\\007 %s|' \"$@\"; echo\necho bye\n"


@pytest.fixture
def ctl(online):
    """Gives commands to the controller of a registered device."""
    with CtlServer(online):
        yield lambda *words: run(*HERE, "run", *words)


def streaming(*words):
    """Starts a command of the controller; outputs are read apart."""
    return subprocess.Popen([*CTL, *HERE, "run", *words], cwd=REPOSITORY, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def sent(lab, number):
    """The newest message of this type to the agent."""
    texts = [json.loads(event["text"]) for event in lab.journal.events("to-agent")]
    return [message for message in texts if message["msgType"] == number][-1]


# -- ./dev ctl run --------------------------------------------------------------------------

def test_output_is_shown_as_it_comes(ctl, online):
    program(online, "ping", GREETER)
    done = ctl("ping", "a.example", "--count", "4", "--ttl", "9", "--verbose", "--duration", "600")
    assert sent(online, 109) == {
        "msgType": 109, "command": "ping", "duration": 600,
        "arguments": {"host": "a.example", "count": 4, "ttl": 9, "verbose": True}}
    words = ("-c", "4", "-t", "9", "-v", "a.example")
    assert done.stdout == "".join(f"esc ?]0;x? {word}|" for word in words) + "\nbye\n"
    assert done.returncode == 0 and "done: it has ended" in done.stderr
    program(online, "traceroute", GREETER)
    assert ctl("traceroute", "--icmp", "--dont-fragment", "h").returncode == 0
    assert sent(online, 109)["arguments"] == {"host": "h", "traceMethod": "icmp", "dontFrag": True}
    program(online, "tcpdump", GREETER)
    assert ctl("tcpdump", "--interface", "eth0", "port", "53").returncode == 0
    assert sent(online, 109)["arguments"] == {"interface": "eth0", "filter": "port 53"}
    assert ctl("tcpdump").returncode == 0
    assert sent(online, 109)["arguments"] == {"filter": ""}, "else the last one would stay"
    done = ctl("nslookup", "cloud.orvanta.example")
    assert done.stdout == "Name:cloud.orvanta.example Address:10.77.0.1 \n"
    done = ctl("nslookup", "nowhere.example")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.endswith("failed: Name or service not known\n")
    assert "done: the end point" in ctl("wifiperf").stderr
    done = ctl("disconnect", "02:4f:56:00:00:07", "ALL")
    assert done.returncode == 0 and "done: the clients have been sent away" in done.stderr
    assert online.scmd.messages()[-1]["mac"] == "*"
    done = run(*HERE, "run", "stop")
    assert done.returncode == 0 and "done: no command runs any more" in done.stdout


def test_ctrl_c_stops_it_on_the_device(ctl, online):
    program(online, "ping", STUBBORN)
    for number, status in ((signal.SIGINT, 130), (signal.SIGKILL, -9)):
        running = streaming("ping", "h")
        assert running.stdout.readline() == "begun\n"
        running.send_signal(number)
        _, said = running.communicate(timeout=20)
        assert running.returncode == status
        assert number == signal.SIGKILL or said.endswith("failed: stopped\n")
        assert online.controller.wait_message(410) == {"msgType": 410}
        until(online, lambda: children(online) == [], "the command to end")


def test_the_log_and_a_command_displace_each_other(ctl, online):
    following = streaming("log")
    assert following.stdout.readline()
    online.programs.log("from a program")
    assert any("from a program" in line for line in following.stdout)
    done = ctl("ping", "h")
    assert done.returncode == 1
    assert "Command execution already in progress, aborting old command" in done.stderr
    _, said = following.communicate(timeout=20)
    assert following.returncode == 1 and said.endswith("failed: it was stopped\n")
    following = streaming("log")
    assert following.stdout.readline()
    online.controller.kill()
    _, said = following.communicate(timeout=20)
    assert following.returncode == 1 and "has lost its connection" in said


def test_a_lab_that_ends_stops_it(online):
    program(online, "ping", STUBBORN)
    with CtlServer(online):
        running = begin("run", "ping", "h")
        assert any(line == "begun\n" for line in running.stdout)
    assert running.wait(10) == 1
    running.stdout.close()
    assert online.controller.wait_message(410) == {"msgType": 410}


# -- agentctl -------------------------------------------------------------------------------

@pytest.fixture
def tool(online, binary):
    """agentctl beside the agent."""
    return Agentctl(online, binary)


def test_agentctl_runs_commands(online, tool):
    program(online, "ping", GREETER)
    done = tool.run("run", "ping", "-c", "2", "h")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "esc ?]0;x? -c|esc ?]0;x? 2|esc ?]0;x? h|\nbye\n"
    done = tool.run("run", "nslookup", "cloud.orvanta.example")
    assert (done.returncode, done.stdout) == (0, "Name:cloud.orvanta.example Address:10.77.0.1 ")
    done = tool.run("run", "nslookup", "nowhere.example")
    assert (done.returncode, done.stdout) == (1, "Name or service not known\n")
    program(online, "ping", STUBBORN)
    done = tool.run("run", "-d", "20", "ping", "h")
    assert (done.returncode, done.stdout) == (0, "begun\n")
    assert idle(online)


def test_agentctl_stops_commands(online, tool):
    program(online, "ping", STUBBORN)
    running = tool.popen("run", "ping", "h")
    assert running.stdout.readline() == "begun\n"
    running.send_signal(signal.SIGINT)
    assert running.communicate(timeout=20) == ("", "") and running.returncode == 130
    assert idle(online)
    ask(online, "ping")
    until_said(online, "begun\n")
    done = tool.run("stop")
    assert (done.returncode, done.stdout) == (0, "stopped\n")
    assert online.controller.wait_message(409)["status"] == "Complete"
    ask(online, "ping")
    until_said(online, "begun\n")
    program(online, "ping", GREETER)
    done = tool.run("run", "ping", "h")
    assert (done.returncode, done.stdout) == (0, "esc ?]0;x? h|\nbye\n")
    assert re.search(r'warning: the agent was running ".*ping.*", which is stopped', done.stderr)


def test_agentctl_takes_a_download_for_no_command(online, tool):
    program(online, "fw_dl", "#!/bin/sh\nwhile :; do sleep 1; done\n")
    online.controller.send({"msgType": 101, "url": "https://cloud.orvanta.example/firmware.bin"})
    until(online, lambda: is_running(online, "/usr/local/sbin/fw_dl"), "the download to begin")
    program(online, "ping", GREETER)
    done = tool.run("run", "ping", "h")
    assert (done.returncode, done.stderr) == (0, "")
    done = tool.run("stop")
    assert (done.returncode, done.stdout) == (0, "told to stop; no running command was seen\n")
    assert is_running(online, "/usr/local/sbin/fw_dl")
