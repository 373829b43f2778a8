"""The device's web front end at the agent's request socket."""

import stat
import subprocess
import textwrap
import time

import pytest
from expect import block_place, fence, until
from strangers import speak_as
from vitals import FORGETFUL, lasting_descriptors, private_memory

from lab.device import PYTHON
from lab.frontend import AGENT_LISTENS_AT, FrontEnd


ENDED = '{"msgType": 409, "status": "Complete", "output": ""}'
"""What a command says when it is stopped, also where none runs."""


@pytest.fixture
def online(online):
    """A registered device that has nothing to do: the report of its registration is out."""
    online.controller.wait_message(404)
    return online


def settled(lab):
    """The agent's descriptors once it has dealt with everything so far."""
    fence(lab)
    return lasting_descriptors(lab)


# -- requests -------------------------------------------------------------------------------

def test_a_type_that_is_none_of_its_own_closes(online):
    for number in (112, 100, 0, "109", None):
        with FrontEnd(online.device) as page:
            page.ask({"msgType": number})
            assert page.hear() == ""
        online.log.wait("fcgi_recv_cb: UNKNOWN message received")


@pytest.mark.parametrize("packet, told", [
    (b"hello", "Failed to load json 1 "),
    (b"{\n\n!}", "Failed to load json 3 "),
    (b"\xff\xfe\x00", "Failed to load json 1 "),
    (b'{"msgType": 110, "a": "' + b"x" * 1001 + b'"}', "Failed to load json 1 "),
    (b"x" * 100000, "Failed to load json 1 "),
    (b"{}", "Failed to find message type"),
    (b"[]", "Failed to find message type"),
], ids=["text", "third-line", "binary", "1026-bytes", "huge", "no-type", "array"])
def test_what_is_no_request_closes(online, packet, told):
    before = settled(online)
    with FrontEnd(online.device) as page:
        page.ask(packet)
        if "message type" in told:
            assert page.hear() == ENDED, "it stops the command, too"
        assert page.hear() == ""
    online.log.wait(told)
    assert settled(online) == before


def test_1024_bytes_are_a_request(online):
    with FrontEnd(online.device) as page:
        page.ask(b'{"msgType": 110, "a": "' + b"x" * (1024 - 25) + b'"}')
        online.log.wait("fcgi_recv_cb: MSG_EXEC_STOP received")
        assert page.hear() == ENDED
        fence(online)
        assert page.silent(), "a stop leaves the connection open"


# -- coming and going -----------------------------------------------------------------------

def test_a_newer_connection_replaces_the_older(online):
    before = settled(online)
    with FrontEnd(online.device) as old:
        one = settled(online)
        assert len(one) == len(before) + 1
        with FrontEnd(online.device) as page:
            assert old.hear() == ""
            assert settled(online) == one, "one connection, not two"
            page.ask({"msgType": 110})
            assert page.hear() == ENDED
            assert page.silent()
    assert settled(online) == before


def test_many_pages_at_once_leave_nothing(online):
    before = settled(online)
    for _ in range(200):
        with FrontEnd(online.device) as page:
            page.ask({"msgType": 110})
    until(online, lambda: settled(online) == before, "the last connection to be closed")
    pages = [FrontEnd(online.device) for _ in range(30)]
    assert all(page.hear() == "" for page in pages[:-1])
    until(online, lambda: len(settled(online)) == len(before) + 1, "one connection to be left")
    assert pages[-1].silent()
    for page in pages:
        page.vanish()
    until(online, lambda: settled(online) == before, "the last connection to be closed")


HOLDER = textwrap.dedent("""
    import socket, sys
    end = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    end.connect(sys.argv[1])
    end.send(b'{"msgType": 110}')
    print("there", flush=True)
    sys.stdin.read()
""")


def test_a_front_end_that_is_killed_is_noticed(online):
    before = settled(online)
    for _ in range(3):
        process = online.device.popen([PYTHON, "-c", HOLDER, AGENT_LISTENS_AT], text=True,
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert process.stdout.readline() == "there\n"
        online.log.wait("fcgi_recv_cb: MSG_EXEC_STOP received")
        assert len(settled(online)) == len(before) + 1
        process.kill()
        process.communicate()
        until(online, lambda: settled(online) == before, "the connection to be closed")
    assert online.supervisor.starts == 1


FLOOD = textwrap.dedent("""
    import socket, sys
    for connection in range(int(sys.argv[2])):
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as end:
            end.connect(sys.argv[1])
            for number in range(100):
                end.send(b'{"msgType": 110, "number": %d}' % number)
""")


def test_a_flood_does_not_keep_the_agent_from_its_work(start):
    lab = start("-d", "0", env=FORGETFUL)
    lab.controller.wait_message(100)
    flood = [PYTHON, "-c", FLOOD, AGENT_LISTENS_AT]
    lab.device.run([*flood, "10"], check=True)
    before, memory = settled(lab), private_memory(lab)
    slowest, rounds = 0.0, 0
    process = lab.device.popen([*flood, "300"], stdout=subprocess.DEVNULL)
    while process.poll() is None:
        begun = time.monotonic()
        fence(lab)
        slowest, rounds = max(slowest, time.monotonic() - begun), rounds + 1
    assert process.wait() == 0 and rounds >= 2
    assert slowest < 2.0, "on a busy machine, and with sanitizers"
    until(lab, lambda: settled(lab) == before, "the last connection to be closed")
    assert private_memory(lab) < memory + 4 * 1024 * 1024
    assert lab.supervisor.starts == 1


# -- the socket -----------------------------------------------------------------------------

def test_strangers_are_refused(online):
    found = online.device.stat(AGENT_LISTENS_AT)
    assert stat.S_ISSOCK(found.st_mode) and stat.S_IMODE(found.st_mode) == 0o660
    assert (found.st_uid, found.st_gid) == (0, 0), "there is no group device-agent here"
    assert speak_as(online, "SOCK_SEQPACKET", AGENT_LISTENS_AT) == "refused"
    assert speak_as(online, "SOCK_SEQPACKET", AGENT_LISTENS_AT, user=0, group=0) == "taken"
    online.log.wait("Failed to load json 1 ")


def test_without_its_socket_the_agent_runs_on(lab, start):
    block_place(lab, AGENT_LISTENS_AT)
    start()
    lab.log.wait("Bind failed with error (98:Address already in use)")
    lab.wait_registered()
    assert lab.supervisor.starts == 1


def test_the_socket_is_made_anew_after_a_kill(online):
    online.supervisor.send_signal(9)
    online.wait_registered()
    with FrontEnd(online.device) as page:
        page.ask({"msgType": 112})
        assert page.hear() == ""
    assert online.supervisor.starts == 2
