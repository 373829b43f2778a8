"""Events and log lines of local programs: real processes, the agent's real sockets."""

import signal
import stat

import pytest
from expect import block_place, fence
from vitals import FORGETFUL, lasting_descriptors, private_memory

from lab.controller import Silence

EVENT = '{"msgType":699,"eId":"ClientJoined","eTime":1767225600,"desc":"a client"}'
SOCKETS = {"event": "/tmp/heron_event_sock", "log": "/var/tmp/agent_logserver"}
STRANGER, TOOLS = 4321, 987
NOT_CONNECTED = "Not connected to Orvanta, cannot send message"
DB = "/mnt/flash/config/db.json"


def raise_event(lab, data, **more):
    """A local program raises an event and can."""
    assert lab.programs.raise_event(data, **more) == ""


def traps(lab):
    """Everything that was forwarded so far."""
    return [event["data"] for event in lab.journal.events("trap")]


@pytest.mark.parametrize("data", [
    EVENT.encode(), b'{"msgType":116}', b"not JSON %s%n", b'{"msgType": ', b" ", "\u20ac\n".encode(),
    bytes(range(1, 256)), b"x" * 2047, b"y" * 2048], ids=lambda data: f"{len(data)}-{data[:8]!r}")
def test_an_event_reaches_the_controller_byte_for_byte(online, data):
    raise_event(online, data)
    assert online.controller.wait_trap() == data
    fence(online)
    assert traps(online) == [data]


def test_what_is_too_long_is_cut_and_what_is_empty_is_nothing(online):
    for datagram, forwarded in [(b"a" * 2049, b"a" * 2048), (b"b" * 60000, b"b" * 2048),
                                (b"c\0d", b"c"), (EVENT.encode(), EVENT.encode())]:
        raise_event(online, datagram)
        assert online.controller.wait_trap() == forwarded
    for datagram in (b"", b"\0", b"\0e"):
        raise_event(online, datagram)
    raise_event(online, "the last")
    assert online.controller.wait_trap() == b"the last"
    assert len(traps(online)) == 5


def test_without_a_connection_an_event_is_lost(start):
    lab = start("-i", "-d", "3")
    lab.log.wait("Initializing da.state to [0]")
    raise_event(lab, EVENT)
    lab.log.wait("event_rx_cb: Trap Data received")
    lab.log.wait(NOT_CONNECTED)
    assert traps(lab) == []


def test_an_event_needs_no_registration(lab, start):
    lab.controller.on_register = Silence()
    start()
    lab.controller.wait_message(100)
    raise_event(lab, EVENT)
    assert lab.controller.wait_trap() == EVENT.encode()


def test_the_reports_of_a_download_stay_on_the_device(online):
    raise_event(online, '{"msgType":401,"status":"Complete"}')
    online.log.wait("Firmware download completed")
    raise_event(online, '{"msgType":701,"code":"InternalError"}')
    online.log.wait("Firmware download failed")
    raise_event(online, '{"msgType": 401}')
    assert online.controller.wait_trap() == b'{"msgType": 401}'
    fence(online)
    assert traps(online) == [b'{"msgType": 401}']


def test_the_log_level_follows_the_configuration_at_the_next_event(online):
    online.device.write_text(DB, '{"logging_syslog_sev": "1"}')
    raise_event(online, "silence")
    assert online.controller.wait_trap() == b"silence"
    since = len(online.journal.events("log"))
    raise_event(online, "still")
    assert online.controller.wait_trap() == b"still"
    online.device.write_text(DB, '{"logging_syslog_sev": "7"}')
    raise_event(online, "loud")
    online.log.wait("Trap Data received, send to Orvanta len=4 data [loud]")
    texts = [event["message"] for event in online.journal.events("log")[since:]]
    assert not any("[still]" in text for text in texts)


def test_a_flood_of_events_arrives_whole_and_in_order(online):
    online.device.write_text(DB, '{"logging_syslog_sev": "1"}')
    raise_event(online, "quiet")
    assert online.controller.wait_trap() == b"quiet"
    before = lasting_descriptors(online)
    raise_event(online, EVENT, count=5000)
    fence(online)
    assert traps(online)[1:] == [f"{EVENT} {number}".encode() for number in range(5000)]
    assert lasting_descriptors(online) == before


def test_a_flood_of_log_lines_costs_nothing(start):
    lab = start(env=FORGETFUL)
    lab.wait_registered()
    assert lab.programs.log("warm up", count=20000) == ""
    fence(lab)
    before, memory = lasting_descriptors(lab), private_memory(lab)
    for line in ("x" * 120, b"\xff" * 300, ""):
        assert lab.programs.log(line, count=20000) == ""
    fence(lab)
    assert lasting_descriptors(lab) == before
    grown = private_memory(lab) - memory
    assert grown < 1024 * 1024, f"{grown} bytes after 60000 lines"
    assert traps(lab) == []


def with_group(lab):
    """Gives the device the group that its tools belong to."""
    groups = lab.device.read_text("/etc/group")
    lab.device.write_text("/etc/group", f"{groups}device-agent:x:{TOOLS}:\n")


def test_strangers_are_refused(lab, start):
    with_group(lab)
    start()
    lab.wait_registered()
    for path in SOCKETS.values():
        status = lab.device.stat(path)
        assert stat.S_ISSOCK(status.st_mode) and stat.S_IMODE(status.st_mode) == 0o660
        assert (status.st_uid, status.st_gid) == (0, TOOLS)
    for send in (lab.programs.raise_event, lab.programs.log):
        assert send("a stranger", user=STRANGER, group=STRANGER) == "Permission denied"
        assert send("a tool", user=STRANGER, group=TOOLS) == ""
    assert lab.controller.wait_trap() == b"a tool"
    fence(lab)
    assert traps(lab) == [b"a tool"]


def test_a_restarted_agent_listens_again(online):
    online.supervisor.send_signal(signal.SIGKILL)
    online.wait_registered()
    for send in (online.programs.log, online.programs.raise_event):
        assert send("again") == ""
    assert online.controller.wait_trap() == b"again"


@pytest.mark.parametrize("name, complaint", [
    ("event", "bind() of unix domain socket  failed"),
    ("log", "Failed to bind logserver socket Address already in use")])
def test_the_agent_runs_without_a_socket_that_it_cannot_have(lab, start, name, complaint):
    block_place(lab, SOCKETS[name])
    start()
    lab.log.wait(complaint)
    lab.wait_registered()
