"""The upstream switch: a real one (lldpd) with and without the maker's marker, and broken ones."""

import os
import signal
import struct
import subprocess
import time
from pathlib import Path

import pytest
from expect import MAC, PARENT_MAC, register_text, seconds_between

from lab import device_image
from lab.device import PYTHON, REPOSITORY
from lab.switch import ETHERTYPE, LLDP_GROUP, MARKER, answer_frame, mac_bytes, tlv

OTHER_MAC = "02:4f:56:aa:bb:99"


@pytest.fixture
def lldpd(lab):
    """Starts the daemon in the world: lldpd(marked=..., interfaces=...)."""
    def begin(**how):
        lab.lldpd.start(lab.device.folder / "lldpd.log", **how)
        return lab.lldpd
    return begin


def registered_parent(lab):
    """The parent MAC in the next REGISTER."""
    return lab.controller.wait_message(100, timeout=30)["pMAC"]


def frame(items, destination=LLDP_GROUP, source=OTHER_MAC, ethertype=ETHERTYPE):
    """An LLDP frame with these items, right or wrong."""
    return destination + mac_bytes(source) + struct.pack("!H", ethertype) + items


CHASSIS = tlv(1, b"\x04" + mac_bytes(OTHER_MAC))
HARMLESS = {
    "nothing behind the header": frame(b""),
    "half an entry's header": frame(b"\xfe"),
    "an end and no more": frame(b"\x00\x00"),
    "the marker is cut": frame(CHASSIS + MARKER[:-1]),
    "the marker has a header only": frame(CHASSIS + MARKER[:2]),
    "the length runs past the end": frame(CHASSIS + b"\xfe\xff" + MARKER[2:]),
    "the chassis runs past the end": frame(b"\x02\xff\x04" + mac_bytes(OTHER_MAC) + MARKER),
    "the marker inside another value": frame(CHASSIS + tlv(6, MARKER) + b"\x00\x00"),
    "the marker has another length": frame(CHASSIS + b"\xfe\x06" + MARKER[2:] + b"\x01"),
    "the marker is of another maker": frame(CHASSIS + b"\xfe\x05\x00\x80\xc2\xab\x01"),
    "the marker has another subtype": frame(CHASSIS + b"\xfe\x05\x02\x4f\x56\xac\x01"),
    "entries of no length without end": frame(CHASSIS + b"\xfe\x00" * 600),
    "longer than a frame may be": frame(CHASSIS + tlv(8, b"x" * 200) * 7 + b"\xfe\x05"),
    "to everybody": frame(CHASSIS + MARKER, destination=b"\xff" * 6),
    "to another group": frame(CHASSIS + MARKER, destination=bytes.fromhex("0180c2000003")),
}


def test_the_parent_is_the_real_switch(start, lldpd):
    switch = lldpd()
    lab = start()
    event = lab.controller.wait_message_event(100, timeout=30)
    parent = switch.chassis_mac()
    assert parent != PARENT_MAC
    assert event["text"] == register_text(event["message"]["sessId"], parent)
    lab.log.wait(f"rx_lldp: Received pmac {parent}")
    lab.wait_registered()


def test_the_real_switch_is_at_the_second_port(start, lldpd):
    switch = lldpd(interfaces=("eth1",))
    lab = start()
    assert registered_parent(lab) == switch.chassis_mac()


def test_an_ordinary_switch_is_no_parent(start, lldpd):
    """REGISTER waits for six attempts of five seconds. The switch knows the device from then on."""
    switch = lldpd(marked=False)
    lab = start()
    assert registered_parent(lab) == ""
    mac = switch.chassis_mac().replace(":", "-")
    lab.log.wait(f"LLDP: {mac}")
    connected = lab.log.wait("Connected to Orvanta (")
    sent = lab.log.wait("da_register: Sending REGISTER request")
    assert 24 <= seconds_between(connected, sent) <= 36
    lab.wait_registered()
    assert not [line for line in lab.log.lines() if "Received pmac" in line]
    known = switch.neighbours()
    assert set(known) == {"eth0", "eth1"}
    chassis = known["eth0"]["chassis"][0]
    assert chassis["id"] == [{"type": "mac", "value": MAC}]
    assert chassis["name"] == [{"value": device_image.HOSTNAME}]
    assert chassis["descr"] == [{"value": "Strata SA"}]
    assert known["eth1"]["port"][0]["ttl"] == [{"value": "180"}]


def test_the_marker_comes_after_a_while(start, lldpd):
    """An ordinary switch is replaced by one of the maker's while the device waits."""
    lldpd(marked=False)
    lab = start(faketime="+0 x5")
    lab.log.wait("Sending pmac discover")
    lab.lldpd.stop()
    parent = lldpd()
    assert registered_parent(lab) == parent.chassis_mac()


def test_a_lost_connection_looks_for_the_parent_again(start, lldpd):
    first = lldpd(interfaces=("eth0",))
    lab = start()
    assert registered_parent(lab) == first.chassis_mac()
    lab.wait_registered()
    lab.lldpd.stop()
    lab.switch.mode = "marked"
    lab.controller.kill()
    assert registered_parent(lab) == PARENT_MAC


def heard(lab):
    """How many LLDP frames the agent has looked at."""
    return sum("rx_lldp: Received LLDP packet" in line for line in lab.log.lines())


@pytest.mark.parametrize("interface", ["eth0", "eth1"])
def test_broken_frames_are_ignored(lab, start, lldpd, interface):
    lab.switch.mode = "silent"
    start(faketime="")
    lab.log.wait("Start listening for pmac response")
    for broken in HARMLESS.values():
        lab.switch.send(broken, interface)
    lab.switch.send(frame(CHASSIS + MARKER, ethertype=0x88CD), interface)
    for _ in HARMLESS:
        lab.log.wait("rx_lldp: Received LLDP packet")
    for _ in range(2):
        lab.log.wait("rx_lldp: Bad LLDP packet")
    assert not [line for line in lab.log.lines() if "Received pmac" in line]
    switch = lldpd()
    assert registered_parent(lab) == switch.chassis_mac()
    assert lab.supervisor.starts == 1


def test_our_own_frames_come_back(lab, start):
    """Both ports on one simple switch: the device must not become its own parent."""
    lab.switch.mode = "silent"
    start(faketime="+0 x10")
    for interface, other in (("eth0", "eth1"), ("eth1", "eth0")):
        own = lab.switch.wait_frame(interface)
        assert MARKER in own
        lab.switch.send(own, other)
        lab.switch.send(own, interface)
    lab.switch.send(answer_frame(OTHER_MAC, marked=False), "eth1")
    lab.log.wait("LLDP: 02-4F-56-AA-BB-99")  # read after ours, so those have been dealt with
    assert heard(lab) == 1
    assert registered_parent(lab) == ""


_RUNS_A_SWITCH = """
import os, time
from lab.lab import Lab
with Lab() as lab:
    lab.dhcp.offer()
    lab.dhcp.connect()
    lab.lldpd.start(lab.device.folder / "lldpd.log")
    print(os.fstat(lab.network.world_fd).st_ino, flush=True)
    time.sleep(1000)
"""


def programs_in(network_inode):
    """The names of all programs that live in this network namespace."""
    found = []
    for folder in Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(folder / "ns/net") == f"net:[{network_inode}]":
                found.append((folder / "comm").read_text().strip())
        except OSError:  # it has just ended
            continue
    return found


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGKILL])
def test_the_labs_daemons_end_with_it(tmp_path, number):
    runner = subprocess.Popen([PYTHON, "-c", _RUNS_A_SWITCH], cwd=REPOSITORY, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                              env={**os.environ, "TMPDIR": str(tmp_path)})
    inode = runner.stdout.readline().strip()
    running = programs_in(inode)
    assert running.count("lldpd") >= 2 and running.count("dnsmasq") == 2
    runner.send_signal(number)
    runner.communicate(timeout=15)
    deadline = time.monotonic() + 5
    while programs_in(inode) and time.monotonic() < deadline:
        time.sleep(0.02)
    assert programs_in(inode) == []
