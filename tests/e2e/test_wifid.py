"""The Wi-Fi daemon and the controller talk to each other through the agent."""

import json
import random
import stat
import subprocess
import textwrap
import time

import pytest
from expect import MAC, block_place, fence, until
from strangers import speak_as
from vitals import FORGETFUL, lasting_descriptors, private_memory

from lab.controller import Acceptance
from lab.device import PYTHON
from lab.wifid import AGENT_LISTENS_AT, LISTENS_AT

GROUP = 4321

VALUES = [
    {}, [], {"z": 1, "a": {"z": None, "a": [True, False]}, "m": "", "b": -0.5}, [[[]], {}],
    0, -(2 ** 63), 2 ** 63 - 1, 0.1, 1e300, 5e-324, "text", "", "%s%n%d", "é \U0001F600 \x7f",
    "\x01\x1f\t\n\"\\/", True, False, None, {"msgType": 999, "ctrlrPayload": {"": ""}},
    [0.1 * n for n in range(20)], {f"m{n}": n for n in range(99, 0, -1)}, "x" * 1900,
]


@pytest.fixture(autouse=True)
def not_yet_shown_connected(lab):
    """The controller accepts the device and asks for nothing: wifid is told of it only later."""
    lab.controller.on_register = Acceptance(follow_ups=[])


def connected(lab):
    """Makes the agent say that the controller is connected: a configuration message does."""
    lab.controller.send({"msgType": 106, "nativeConfig": "x"}, unchecked=True)
    lab.wifid.wait_state(1)
    return lab


def session(lab):
    """The session id of the device."""
    return int(lab.device.read_text("/tmp/session_id"))


def same(value, other):
    """Equal all through, with the order of members and the kinds of numbers."""
    return json.dumps(value) == json.dumps(other)


# -- what passes ----------------------------------------------------------------------------

def test_an_event_is_wrapped_exactly(online):
    online.wifid.raise_event({"event": "client-joined", "at": [2, 1]})
    assert online.controller.wait_message_event(116)["text"] == (
        f'{{"sessId": {session(online)}, "ap_mac": "{MAC}", "msgType": 116, '
        '"ctrlrPayload": {"event": "client-joined", "at": [2, 1]}}')
    online.log.wait("Received msg dest[1] from wifid to be sent to controller;state[disconnected]")


def test_every_value_passes_unchanged_both_ways(online):
    for value in VALUES:
        online.wifid.raise_event(value)
        passed = online.controller.wait_message(116)["ctrlrPayload"]
        assert same(passed, value)
        online.controller.send({"msgType": 416, "ctrlrPayload": value})
        heard = online.wifid.wait_answer()
        assert same(heard["payload"], value)


def test_an_answer_of_the_controller_is_as_long_as_it_likes(online):
    value = {"rows": [{"mac": f"02:00:00:00:00:{n % 100:02}", "vlan": n} for n in range(3000)]}
    online.controller.send({"msgType": 416, "ctrlrPayload": value})
    assert same(online.wifid.wait_answer()["payload"], value)
    online.controller.send({"msgType": 416, "ctrlrPayload": "x" * 3000000})
    online.log.wait(f"Failed to send message to {LISTENS_AT}:Message too long")
    fence(online)


def test_an_answer_without_a_payload_is_told(online):
    online.controller.send_raw('{"payload": 1, "msgType": 416}', unchecked=True)
    online.log.wait('no ctrlr payload in controller response{"payload": 1, "msgType": 416}')
    fence(online)
    assert online.wifid.messages(0) == []


def test_an_answer_without_a_daemon_is_lost_and_told(online):
    online.wifid.stop()
    online.controller.send({"msgType": 416, "ctrlrPayload": 1})
    online.log.wait(f"Failed to send message to {LISTENS_AT}:Connection refused")
    online.wifid.start()
    online.controller.send({"msgType": 416, "ctrlrPayload": 2})
    assert online.wifid.wait_answer()["payload"] == 2


# -- registration ---------------------------------------------------------------------------

def test_a_registration_waits_for_the_controller(online):
    told = len(online.wifid.messages(2))
    online.wifid.register({"radios": 2})
    until(online, lambda: len(online.wifid.messages(2)) > told, "wifid to be told to wait")
    assert online.wifid.messages(2)[-1]["text"] == '{"status": 0}'
    fence(online)
    assert online.controller.messages(118) == []
    connected(online)
    online.wifid.register({"radios": 2})
    assert online.controller.wait_message_event(118)["text"] == (
        f'{{"sessId": {session(online)}, "ap_mac": "{MAC}", "type": "Quill", "msgType": 118, '
        '"ctrlrPayload": {"radios": 2}}')
    online.log.wait("Received msg dest[2] from wifid to be sent to controller;state[connected]")


def test_the_daemon_registers_after_each_loss(online):
    online.wifid.registration = {"radios": ["5GHz"]}
    connected(online)
    assert online.controller.wait_message(118)["ctrlrPayload"] == {"radios": ["5GHz"]}
    for _ in range(2):
        online.controller.kill()
        online.wifid.wait_state(0)
        online.wait_registered()
        connected(online)
        assert online.controller.wait_message(118)["ctrlrPayload"] == {"radios": ["5GHz"]}
    assert len(online.controller.messages(118)) == 3


def test_without_a_controller_events_are_dropped(lab, start):
    lab.controller.stop()
    start()
    until(lab, lambda: lab.device.exists(AGENT_LISTENS_AT), "the agent to listen")
    lab.wifid.raise_event({"lost": True})
    lab.log.wait("Not connected to Orvanta, cannot send message")
    lab.controller.start()
    lab.wait_registered()
    lab.wifid.raise_event({"lost": False})
    assert lab.controller.wait_message(116)["ctrlrPayload"] == {"lost": False}
    assert len(lab.controller.messages(116)) == 1


# -- what does not pass ---------------------------------------------------------------------

@pytest.mark.parametrize("datagram, told", [
    (b"", "Short message len 0 from daemon"),
    (b"\x01", "Unable to load JSON ,error  on line 1: "),
    (b"\x01{\n\n!}", "Unable to load JSON ,error  on line 3: "),
    (b"\x01\xff\xfe", "Unable to load JSON ,error  on line 1: "),
    (b"\x01" + b"x" * 100000, "Unable to load JSON ,error  on line 1: "),
    (b"\x01[" + b"1" * 2045 + b"]", "Unable to load JSON ,error  on line 1: "),
    (b"\x03{}", "Unknown msg type [3] from wifid"),
    (b"\x00{}", "Unknown msg type [0] from wifid"),
    (b"\xff[1]", "Unknown msg type [255] from wifid"),
], ids=["empty", "only-a-first-byte", "bad-json", "binary", "huge", "one-too-long", "three", "zero",
        "255"])
def test_what_cannot_be_used_is_told_and_dropped(online, datagram, told):
    online.wifid.send_bytes(datagram)
    online.log.wait(told)
    fence(online)
    assert online.controller.messages(116) == [] and online.supervisor.starts == 1


def test_2047_bytes_pass(online):
    text = "x" * (2047 - 3)
    online.wifid.send_bytes(b'\x01"' + text.encode() + b'"')
    assert online.controller.wait_message(116)["ctrlrPayload"] == text


def test_bytes_of_every_length_do_no_harm(online):
    before = lasting_descriptors(online)
    dice = random.Random(7)
    for length in [*range(64), *range(64, 2200, 61), 4096, 65536]:
        online.wifid.send_bytes(dice.randbytes(length))
    online.wifid.raise_event("still there")
    assert online.controller.wait_message(116)["ctrlrPayload"] == "still there"
    assert lasting_descriptors(online) == before


FLOOD = textwrap.dedent("""
    import socket, sys
    end = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    end.connect(sys.argv[1])
    for number in range(int(sys.argv[2])):
        end.send(b'\\x03{"flood": %d}' % number)
""")


def test_a_flood_does_not_keep_the_agent_from_its_work(start):
    lab = start("-d", "0", env=FORGETFUL)
    lab.controller.wait_message(100)
    fence(lab)
    flood = [PYTHON, "-c", FLOOD, AGENT_LISTENS_AT]
    lab.device.run([*flood, "2000"], check=True)  # what the agent needs once, it has then
    fence(lab)
    before, memory = lasting_descriptors(lab), private_memory(lab)
    slowest, rounds = 0.0, 0
    process = lab.device.popen([*flood, "30000"], stdout=subprocess.DEVNULL)
    while process.poll() is None:
        begun = time.monotonic()
        fence(lab)
        slowest, rounds = max(slowest, time.monotonic() - begun), rounds + 1
    assert process.wait() == 0 and rounds >= 2
    assert slowest < 2.0, "on a busy machine, and with sanitizers"
    fence(lab)
    assert lasting_descriptors(lab) == before
    assert private_memory(lab) < memory + 4 * 1024 * 1024
    assert lab.supervisor.starts == 1


# -- the socket -----------------------------------------------------------------------------

def test_strangers_are_refused_and_the_group_is_not(lab, start):
    groups = lab.device.read_text("/etc/group")
    lab.device.write_text("/etc/group", f"{groups}device-agent:x:{GROUP}:\n")
    start()
    lab.wait_registered()
    found = lab.device.stat(AGENT_LISTENS_AT)
    assert stat.S_ISSOCK(found.st_mode) and stat.S_IMODE(found.st_mode) == 0o660
    assert (found.st_uid, found.st_gid) == (0, GROUP)
    assert speak_as(lab, "SOCK_DGRAM", AGENT_LISTENS_AT) == "refused"
    assert speak_as(lab, "SOCK_DGRAM", AGENT_LISTENS_AT, group=GROUP) == "taken"
    lab.log.wait("Unknown msg type [3] from wifid")


def test_the_socket_is_made_anew_after_a_kill(online):
    online.supervisor.send_signal(9)
    online.wait_registered()
    online.wifid.raise_event("again")
    assert online.controller.wait_message(116)["ctrlrPayload"] == "again"
    assert online.supervisor.starts == 2


def test_a_socket_that_cannot_be_made_ends_the_agent(lab, start):
    block_place(lab, AGENT_LISTENS_AT)
    start(restart=False)
    lab.log.wait("Bind failed with error (98:Address already in use)")
    ended = lab.journal.wait("agent-ended", what="the agent to end")
    assert ended["status"] not in (0, 1)
    until(lab, lambda: "device_agent_msg_from_wifid_callback_init" in lab.supervisor.output(),
          "the place of the failure")
