"""Troubleshooting commands: Debian's own tools on the device, and every way to end them."""

import os
import signal

import pytest
from devicecommands import STUBBORN, ask, idle, output, program, running, until_said
from expect import fence, until
from vitals import FORGETFUL, children, private_memory

WORLD = "10.77.0.1"


@pytest.fixture
def online(online):
    """A registered device that has nothing to do: the report of its registration is out."""
    online.controller.wait_message(404)
    return online


@pytest.fixture
def slow(start):
    """A registered device with the true clock: programs measure time."""
    lab = start(faketime="")
    lab.wait_registered()
    lab.controller.wait_message(404)
    return lab


# -- real tools -----------------------------------------------------------------------------

def test_ping_traceroute_nslookup_and_tcpdump(slow):
    before = idle(slow)
    ask(slow, "ping", host=WORLD, count=2, size=64, ttl=9)
    said = output(slow)
    assert f"PING {WORLD} ({WORLD}) 64(92) bytes of data.\n72 bytes from {WORLD}" in said
    assert "2 packets transmitted, 2 received, 0% packet loss" in said
    ask(slow, "traceroute", host=WORLD, traceMethod="icmp", dontFrag=True)
    said = output(slow)
    assert said.startswith(f"traceroute to {WORLD} ({WORLD}), 30 hops max, 60 byte packets\n 1  ")
    ask(slow, "nslookup", host="cloud.orvanta.example")
    assert output(slow) == f"Name:cloud.orvanta.example Address:{WORLD} "
    ask(slow, "tcpdump", interface="eth0", count=2, filter=f"icmp and host {WORLD}")
    assert until_said(slow, "listening on eth0")
    slow.device.run(["ping", "-c", "1", WORLD], check=True)
    said = until_said(slow, "dropped by kernel")
    assert "    1  " in said and f"IP 10.77.0.2 > {WORLD}: ICMP echo request" in said
    assert slow.controller.wait_message(409)["status"] == "Complete"
    assert idle(slow) == before


def test_what_goes_wrong_is_shown(online):
    ask(online, "ping", host="nowhere.example", count=1)
    assert output(online) == "ping: nowhere.example: Name or service not known\n"
    ask(online, "nslookup", host="nowhere.example")
    assert online.controller.wait_message(409) == {
        "msgType": 409, "status": "Complete", "output": "Name or service not known"}
    ask(online, "tcpdump", interface="nosuch0")
    assert "nosuch0: No such device exists" in output(online)
    program(online, "traceroute", "no program\n")
    online.device.run(["chmod", "-x", "/usr/local/sbin/traceroute"], check=True)
    online.device.run(["mount", "--bind", "/usr/local/sbin/traceroute",
                       os.path.realpath("/usr/sbin/traceroute")], check=True)
    ask(online, "traceroute", host=WORLD)
    assert output(online) == "execvp: Permission denied\n"
    assert idle(online)


def test_every_argument_arrives_as_one(online):
    program(online, "tcpdump", "#!/bin/sh\ncat /proc/$$/cmdline > /tmp/vector\n")
    for text in ("; reboot", "$(touch /tmp/x)", "`id`\n'\"\\", "%s%n", "\u20ac *\t\x01"):
        ask(online, "tcpdump", interface=text, host=text, filter=text)
        assert output(online) == ""
        vector = ["/bin/sh", "/usr/local/sbin/tcpdump", "-i", text, text, "-l", "-q", "-n", "-#",
                  text]
        assert online.device.read_text("/tmp/vector") == "".join(part + "\0" for part in vector)
    assert not online.device.exists("/tmp/x")


# -- ended ----------------------------------------------------------------------------------



def test_a_stop_and_a_time_limit_leave_nothing(online):
    before = idle(online)
    program(online, "ping", STUBBORN)
    ask(online, "ping")
    until_said(online, "begun\n")
    pid = children(online)
    assert len(pid) == 1
    online.controller.send({"msgType": 110})
    assert online.controller.wait_message(410) == {"msgType": 410}
    assert online.controller.wait_message(409) == {"msgType": 409, "status": "Complete",
                                                   "output": ""}
    assert idle(online) == before
    until(online, lambda: not running(online, "/usr/local/sbin/ping"), "its children to end")
    ask(online, "ping", duration=40)
    assert output(online) == "begun\n"
    assert online.controller.wait_message(410) == {"msgType": 410}, "its time was over"
    assert idle(online) == before


def test_a_second_command_ends_the_first_and_is_refused(online):
    program(online, "ping", STUBBORN)
    for second in ("ping", "wifiperf", "log", "nslookup"):
        ask(online, "ping")
        until_said(online, "begun\n")
        ask(online, second, host="localhost")
        assert online.controller.wait_message(410) == {"msgType": 410}
        assert online.controller.wait_message(709) == {
            "msgType": 709, "code": "BadRequest",
            "message": "Command execution already in progress, aborting old command"}
        assert online.controller.wait_message(409)["status"] == "Complete"
        assert children(online) == []


def test_refusals(online):
    for message, text in (({"command": "reboot"}, "Trying to execute unapproved command"),
                          ({"command": "disconnect-clients"}, "argument is not valid"),
                          ({"command": "disconnect-clients", "arguments": {}}, "macs list is empty"),
                          ({"command": "disconnect-clients", "arguments": {"macs": []}},
                           "sta macs array is empty")):
        online.controller.send({"msgType": 109, **message}, unchecked=True)
        assert online.controller.wait_message(709)["message"] == text
    online.controller.send({"msgType": 109}, unchecked=True)
    online.log.wait("No command found")
    assert online.controller.wait_message(709)["code"] == "BadRequest"


def test_a_lost_connection_ends_it(online):
    before = idle(online)
    program(online, "ping", "#!/bin/sh\nexec yes begun\n")
    ask(online, "ping")
    until_said(online, "begun\n")
    online.controller.kill()
    online.log.wait("Device disconnected, trash the ts data")
    online.wait_registered()
    online.controller.wait_message(404)
    assert idle(online) == before
    program(online, "ping", "#!/bin/sh\necho fine\n")
    ask(online, "ping")
    assert "fine\n" in output(online), "nothing is stuck"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_the_program_dies_with_the_agent(online, number):
    program(online, "ping", "#!/bin/sh\necho begun\nexec sleep 12345\n")
    ask(online, "ping")
    until_said(online, "begun\n")
    assert running(online, "sleep 12345")
    online.supervisor.send_signal(number)
    online.wait_registered()
    until(online, lambda: not running(online, "sleep 12345"), "the program to die")


def test_a_term_takes_all_of_it_along(online):
    program(online, "ping", STUBBORN)
    ask(online, "ping")
    until_said(online, "begun\n")
    online.supervisor.send_signal(signal.SIGTERM)
    online.wait_registered()
    until(online, lambda: not running(online, "/usr/local/sbin/ping"), "its children to die")


# -- wild -----------------------------------------------------------------------------------

WILD = {
    "binary": ("#!/bin/sh\nhead -c 3000 /dev/urandom\nsleep 0.2\necho; echo the end\n", "the end"),
    "closed": ("#!/bin/sh\necho the end\nexec >&- 2>&-\nexec sleep 12345\n", "the end"),
    "left-behind": ("#!/bin/sh\n(trap '' HUP TERM; sleep 12345) &\necho the end\n", "the end"),
    "cut": ("#!/bin/sh\nprintf '\\342\\202'; sleep 0.3; printf '\\254 the end\\303'\n",
            "\u20ac the end\ufffd"),
}


def test_a_wild_program_ends_in_good_order(online):
    before = idle(online)
    for text, words in WILD.values():
        program(online, "ping", text)
        ask(online, "ping")
        assert words in output(online)
        assert idle(online) == before
        until(online, lambda: not running(online, "sleep 12345"), "what it left behind to end")


def test_a_flood_takes_no_memory(start):
    lab = start("-d", "0", env=FORGETFUL)
    lab.controller.wait_message(404, 30)
    program(lab, "ping", "#!/bin/sh\nexec yes 0123456789abcdef\n")
    ask(lab, "ping")
    until_said(lab, "0123456789abcdef")
    memory = private_memory(lab)
    for _ in range(10):
        until_said(lab, "0123456789abcdef")
        fence(lab)
    assert private_memory(lab) < memory + 2 * 1024 * 1024
    lab.controller.send({"msgType": 110})
    while lab.controller.wait_message(409)["status"] != "Complete":
        pass
    assert idle(lab)


# -- without output -------------------------------------------------------------------------

def test_what_has_no_output(online):
    ask(online, "wifiperf")
    assert online.controller.wait_message(409) == {"msgType": 409, "command": "wifiperf",
                                                   "status": "Initiated"}
    assert online.scmd.messages()[-2:] == [
        {"mType": "CONFIG-SET", "name": "zapd_start_stop", "value": "true"},
        {"mType": "CONFIG-APPLY"}]
    online.controller.send({"msgType": 110, "command": "wifiperf"})
    assert online.controller.wait_message(410) == {"msgType": 410, "command": "wifiperf",
                                                   "status": "Completed"}
    online.controller.send({"msgType": 106, "config": {"system": {"hostname": "hall-3"}}})
    until(online, lambda: online.scmd.messages()[-2:] == [
        {"mType": "CONFIG-SET", "name": "zapd_start_stop", "value": "false"},
        {"mType": "CONFIG-APPLY"}], "the end point to be switched off")
    online.log.wait("Stopping wifiperf end point")
    online.controller.send({"msgType": 109, "command": "disconnect-clients",
                            "arguments": {"macs": ["02:4f:56:00:00:07", "ALL"]}})
    assert online.controller.wait_message(409) == {
        "msgType": 409, "command": "disconnect-clients", "status": "Complete"}
    assert online.scmd.messages()[-2:] == [
        {"mType": "ACTION-REQ", "sync": False, "cmd": "delete-client", "mac": mac}
        for mac in ("02:4f:56:00:00:07", "*")]
    online.scmd.stop()
    ask(online, "wifiperf")
    assert online.controller.wait_message(709) == {
        "msgType": 709, "command": "wifiperf", "code": "InternalError",
        "message": "Execution failed"}
