"""Radio scans: from the controller, from the web front end, and of a daemon that cannot be relied on."""

import json
import os
import random
import signal
import struct
import subprocess

import pytest
from expect import fence, until
from toolbox import Agentctl
from vitals import lasting_descriptors

from lab.ctlserver import CtlServer
from lab.device import PYTHON, REPOSITORY
from lab.frontend import FrontEnd
from lab.neighbourhood import AccessPoint, Channel
from lab.radio import channel_entry, failure, neighbour_entry, result

HERE = ["--lab", str(os.getpid())]
BUSY = "Radio scan already in progress, please wait"
NO_RADIO = "Device does not support scanning requested band"
INCOMPLETE = "Incomplete scan result from the Wi-Fi daemon"
CHANNEL = channel_entry(Channel(36, 5, -95, 1))


def neighbour(ssid="Bakery", encryption="WPA2", bssid=b"\x02\0\x5e\x10\0\x0a"):
    """One entry."""
    return neighbour_entry(AccessPoint(bssid, ssid, encryption, "5GHz", 36, -60, -60.4, 0.1, True))


@pytest.fixture
def able(lab, start):
    """A registered device that can scan 5GHz; its clock is but a little fast."""
    lab.device.set_board(sku=1)
    start(faketime="", speed=20.0)
    lab.wait_registered()
    lab.supervisor.run_at(4.0)
    return lab


def ask(lab, band="5GHz"):
    """Asks for a scan as the controller."""
    lab.controller.send({"msgType": 111, "band": band}, unchecked=True)


def refusal(lab):
    """The next failure: code and text."""
    message = lab.controller.wait_message(711)
    return message["code"], message["message"]


def scanned(lab):
    """The next result."""
    return lab.controller.wait_message(411)


# -- scans ----------------------------------------------------------------------------------

def test_a_scan_reports_what_the_radio_finds(able):
    ask(able)
    assert able.radio.wait_request()["request"] == bytes(12)
    ask(able)
    assert refusal(able) == ("BadRequest", BUSY)
    report = scanned(able)
    assert report["status"] == "Complete" and report["band"] == "5GHz"
    there = [p for p in able.radio.neighbourhood.points if p.there and p.band == "5GHz"]
    assert {(row["bssid"], row["ssid"], row["encryption"]) for row in report["neighborInfo"]} == {
        (p.bssid.hex("-").upper(), p.ssid, p.encryption) for p in there} != set()
    channels = {row["channel"]: row for row in report["channelInfo"]}
    assert list(channels) == sorted(channels) and channels[36]["noise"] < -80
    for number, row in channels.items():
        assert row["numAps"] == sum(n["channel"] == number for n in report["neighborInfo"])
    assert any(row["manufacturer"] != "Unknown" for row in report["neighborInfo"])
    able.radio.wait_left()
    able.log.wait("Got scan result of size ")


def test_the_variant_decides_on_the_band(lab, start):
    lab.device.set_board(sku=4)
    start()
    lab.wait_registered()
    lab.radio.seconds = 0
    ask(lab, "5GHz")
    assert refusal(lab) == ("BadRequest", NO_RADIO)
    ask(lab, "2.4GHz")
    report = scanned(lab)
    assert report["band"] == "2.4GHz" and len(report["channelInfo"]) == 13
    for sku in (6, 11):
        lab.device.set_board(sku=sku)
        for band in ("5GHz", "2.4GHz"):
            ask(lab, band)
            assert refusal(lab) == ("BadRequest", NO_RADIO)
    ask(lab, "5ghz")
    assert refusal(lab) == ("InvalidInput", "Invalid band specified")
    lab.controller.send({"msgType": 111})
    fence(lab)
    assert len(lab.journal.events("scan-request")) == 1
    lab.device.set_board(sku=2)
    lab.reboot()
    lab.wait_registered()
    ask(lab, "5GHz")
    assert scanned(lab)["band"] == "5GHz", "the device is another one, and its daemon listens again"


def test_a_front_end_gets_its_own_result(able):
    with FrontEnd(able.device) as page:
        page.ask({"msgType": 111, "band": "2.4GHz"})
        assert json.loads(page.hear()) == {"msgType": 711, "code": "BadRequest", "message": NO_RADIO}
        page.ask({"msgType": 111, "band": "5GHz"})
        able.radio.wait_request()
        ask(able)
        assert refusal(able) == ("BadRequest", BUSY)
        report = json.loads(page.hear())
        assert report["msgType"] == 411 and report["neighborInfo"]
        able.radio.misbehave(failure("radio is off"))
        page.ask({"msgType": 111, "band": "5GHz"})
        assert json.loads(page.hear())["message"] == "radio is off"
        page.ask({"msgType": 111, "band": "6GHz"})
        assert json.loads(page.hear())["message"] == "Invalid band specified"
        rest = [json.loads(packet)["msgType"] for packet in iter(page.hear, "")]
        assert rest == [409], "the end of a command, were there one; then it closes"
    assert able.controller.messages(411) == []
    able.radio.behave()
    with FrontEnd(able.device) as page:
        page.ask({"msgType": 111, "band": "5GHz"})
        able.radio.wait_request()
    able.log.wait("Failed to send as fcgi connectivity lost")
    ask(able)
    assert scanned(able)["status"] == "Complete"


# -- a daemon that cannot be relied on ------------------------------------------------------

def test_odd_results(able):
    able.radio.misbehave(result([CHANNEL], [neighbour("s" * 40, "e" * 40)]))
    ask(able)
    row = scanned(able)["neighborInfo"][0]
    assert (row["ssid"], row["encryption"]) == ("s" * 32, "e" * 34)
    latin = neighbour("caf#\x1b[2J\"").replace(b"#", b"\xe9")
    able.radio.misbehave(result([], [latin]))
    ask(able)
    report = scanned(able)
    assert report["band"] == "5GHz" and report["channelInfo"] == []
    assert report["neighborInfo"][0]["ssid"] == "caf\ufffd\x1b[2J\""
    able.radio.misbehave(result([], []))
    ask(able)
    assert scanned(able)["neighborInfo"] == []
    able.radio.misbehave(result([channel_entry(Channel(11, -2 ** 31, 2 ** 31 - 1, -1))], []))
    ask(able)
    report = scanned(able)
    assert report["band"] == "2.4GHz", "the reply says so"
    assert report["channelInfo"][0] == {"channel": 11, "interference": -2 ** 31,
                                        "noise": 2 ** 31 - 1, "numAps": -1}


def test_the_largest_result_in_pieces(able):
    able.supervisor.run_at(1.0)
    reply = result([CHANNEL] * 255, [neighbour(f"network {n}") for n in range(255)])
    for size in (len(reply), 8192, 4000):
        able.radio.misbehave(*(reply[at:at + size] for at in range(0, len(reply), size)))
        ask(able)
        report = scanned(able)
        assert len(report["channelInfo"]) == 255
        assert [row["ssid"] for row in report["neighborInfo"]] == [f"network {n}" for n in range(255)]
    able.radio.misbehave(reply)
    with FrontEnd(able.device) as page:
        page.ask({"msgType": 111, "band": "5GHz"})
        assert len(json.loads(page.hear())["neighborInfo"]) == 255


WHOLE = result([CHANNEL], [neighbour()])

BROKEN = {
    "nothing": ([], True, INCOMPLETE),
    "no-type": ([b"\1\0\0"], True, INCOMPLETE),
    "no-counts": ([WHOLE[:11]], True, INCOMPLETE),
    "cut-in-a-channel": ([WHOLE[:20]], True, INCOMPLETE),
    "cut-in-a-neighbour": ([WHOLE[:-1]], True, INCOMPLETE),
    "stalled": ([WHOLE[:50], WHOLE[50:60]], False, INCOMPLETE),
    "lying-neighbours": ([result([CHANNEL], [neighbour()], (255, 1))], False, INCOMPLETE),
    "lying-channels": ([result([CHANNEL], [neighbour()], (1, 255))], True, INCOMPLETE),
    "failure": ([failure("radio is off")], False, "radio is off"),
    "failure-without-nul": ([failure("radio is off")[:-1]], True, "radio is off"),
    "failure-that-stalls": ([failure("radio is off")[:-1]], False, "radio is off"),
    "failure-without-text": ([failure("")[:10]], True, ""),
    "failure-in-pieces": ([failure("radio is off")[:12], failure("radio is off")[12:]], False,
                          "radio is off"),
    "failure-of-a-kind": ([failure("%s%n \u00e9")[:-2] + b"\xff\0"], False, "%s%n \ufffd\ufffd"),
}


def test_broken_replies(able):
    before = lasting_descriptors(able)
    for name, (pieces, hang_up, text) in BROKEN.items():
        able.radio.misbehave(*pieces, hang_up=hang_up)
        ask(able)
        assert refusal(able) == ("BadRequest", text), name
    able.radio.misbehave(struct.pack("=I8x", 3))
    ask(able)
    able.log.wait("Ignoring scan result of type 3")
    fence(able)
    assert lasting_descriptors(able) == before
    able.radio.behave()
    ask(able)
    assert scanned(able)["status"] == "Complete"
    assert len(able.controller.messages(711)) == len(BROKEN)


def test_replies_of_any_bytes(able):
    dice = random.Random(20261121)
    for number in range(60):
        reply = bytearray(dice.randbytes(dice.choice([4, 12, 100, 700, 9000])))
        reply[:4] = struct.pack("=I", dice.choice([1, 1, 1, 2, 3]))
        if len(reply) > 11 and dice.random() < 0.7:
            reply[10], reply[11] = dice.randrange(8), dice.randrange(8)
        able.radio.misbehave(bytes(reply), hang_up=True)
        ask(able)
        able.log.wait("Got scan result of size ")
    fence(able)
    assert able.controller.messages(411) and able.controller.messages(711)
    assert able.supervisor.starts == 1


def test_without_the_daemon_and_with_a_silent_one(able):
    lab = able
    lab.radio.stop()
    for _ in range(2):
        ask(lab)
        assert refusal(lab) == ("BadRequest", "Failed to send start scan message")
    lab.log.wait("Failed to send start scan message")
    lab.radio.start()
    lab.radio.misbehave()
    ask(lab)
    lab.radio.wait_request()
    ask(lab)
    assert refusal(lab) == ("BadRequest", BUSY)
    lab.supervisor.run_at(100.0)
    assert refusal(lab) == ("BadRequest", "No scan result from the Wi-Fi daemon")
    lab.supervisor.run_at(4.0)
    lab.log.wait("No scan result within 120 seconds")
    lab.radio.behave()
    ask(lab)
    assert scanned(lab)["status"] == "Complete"


# -- from the controller's command line -----------------------------------------------------

def test_from_the_controllers_command_line(able):
    def ctl(*words):
        return subprocess.run([PYTHON, "-m", "lab.ctl", *HERE, "scan", *words], cwd=REPOSITORY,
                              capture_output=True, text=True, timeout=60, check=False)
    with CtlServer(able):
        done = ctl("5GHz")
        assert (done.returncode, done.stderr) == (0, "")
        assert '---> 111 radio-scan-request: {"msgType": 111, "band": "5GHz"}' in done.stdout
        lines = done.stdout.splitlines()
        begin = lines.index("5GHz")
        assert lines[begin + 1].split() == ["channel", "interference", "noise", "access", "points"]
        assert lines[begin + 2].split()[0] == "36"
        assert any(line.split()[:2] == ["BSSID", "channel"] for line in lines)
        able.radio.misbehave(result([CHANNEL], [neighbour("\x1b[2J evil")]))
        assert "?[2J evil" in ctl("5GHz").stdout
        done = ctl("2.4GHz")
        assert done.returncode == 1
        assert done.stderr.startswith(f"failed: BadRequest: {NO_RADIO} (./dev run --sku ")
        able.radio.misbehave(failure("radio is off"))
        assert ctl("5GHz").stderr == "failed: BadRequest: radio is off\n"
        done = ctl("6GHz")
        assert done.returncode == 2 and "invalid choice" in done.stderr


# -- on the device --------------------------------------------------------------------------

def test_someone_logged_in_scans(able, binary):
    ctl = Agentctl(able, binary)
    done = ctl.run("scan", "5GHz")
    assert (done.returncode, done.stderr) == (0, "")
    there = sum(p.there and p.band == "5GHz" for p in able.radio.neighbourhood.points)
    lines = done.stdout.splitlines()
    assert lines[0] == f"Band 5GHz: 16 channels, {there} neighbours" and there > 2
    assert lines[3].split()[0] == "36" and len(lines) == 3 + 16 + 2 + there
    report = json.loads(ctl.run("scan", "--json", "5GHz").stdout)
    assert [row["channel"] for row in report["channelInfo"]][:3] == [36, 40, 44]
    longest = [neighbour("\x01" * 32, "\x02" * 34)] * 254 + [neighbour("the last one")]
    able.radio.misbehave(result([CHANNEL] * 255, longest))
    done = ctl.run("scan", "5GHz")
    assert done.returncode == 0, "130 KB in one packet"
    assert done.stdout.splitlines()[-1].endswith(" the last one")
    assert done.stdout.count("?" * 32 + "\n") == 254
    assert able.controller.messages(411) == []


def test_scans_on_the_device_that_fail(able, binary):
    def told(done):
        return done.returncode, done.stdout, done.stderr
    ctl = Agentctl(able, binary)
    assert told(ctl.run("scan", "2.4GHz")) == (1, "", f"agentctl: the scan failed: {NO_RADIO}\n")
    able.radio.misbehave(failure("radio is\x1b off"))
    assert told(ctl.run("scan", "5GHz")) == (1, "", "agentctl: the scan failed: radio is? off\n")
    able.radio.misbehave(WHOLE[:50], hang_up=True)
    assert told(ctl.run("scan", "5GHz")) == (1, "", f"agentctl: the scan failed: {INCOMPLETE}\n")
    able.radio.stop()
    assert told(ctl.run("scan", "5GHz")) == (
        1, "", "agentctl: the scan failed: Failed to send start scan message\n")
    able.radio.start()
    able.radio.misbehave()
    asked = len(able.journal.events("scan-request"))
    running = ctl.popen("scan", "5GHz")
    until(able, lambda: len(able.journal.events("scan-request")) > asked, "the request")
    running.send_signal(signal.SIGINT)
    running.communicate(timeout=10)
    assert running.returncode == -signal.SIGINT
    assert told(ctl.run("scan", "5GHz")) == (1, "", f"agentctl: the scan failed: {BUSY}\n")
    able.supervisor.run_at(100.0)
    able.log.wait("No scan result within 120 seconds")
    able.supervisor.run_at(4.0)
    able.radio.behave()
    assert ctl.run("scan", "5GHz").returncode == 0
    able.supervisor.stop()
    assert ctl.run("scan", "5GHz").returncode == 69
