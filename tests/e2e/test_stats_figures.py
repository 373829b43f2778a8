"""The figures are true, and reporting them for long costs nothing that stays."""

import socket
import time

import pytest
import vitals

from lab import network
from lab.device import PYTHON

INTERFACES = {"interfaces": ["rxBytes", "txBytes", "rxPackets", "txPackets"]}
DATAGRAMS, SIZE = 2000, 1400
SENT = DATAGRAMS * (SIZE + 8 + 20 + 14)
"""Bytes as an interface counts them: with the headers of UDP, IPv4 and Ethernet."""
NOISE = 0.05 * SENT
"""What the agent's own connection may add meanwhile."""
PORT = 4999
_SEND = (f"import socket\ns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
         f"for _ in range({DATAGRAMS}):\n"
         f"    s.sendto(b'x' * {SIZE}, ('{network.WORLD_ADDRESS}', {PORT}))\n")


def eth0(report):
    """The row of eth0 in a report."""
    return next(row for row in report["stats"]["tables"]["interfaces"] if row["name"] == "eth0")


def now(lab):
    """The counters of eth0 at this moment, as a one-time report has them."""
    lab.controller.send({"msgType": 104, "stats": [{"tables": INTERFACES}]})
    return eth0(lab.controller.wait_message(404))


def send_out(lab):
    """Traffic from the device into the world."""
    lab.device.run([PYTHON, "-c", _SEND], check=True)


def send_in(lab):
    """Traffic from the world to the device."""
    def send():
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for _ in range(DATAGRAMS):
                sender.sendto(b"x" * SIZE, (network.DEVICE_ADDRESS, PORT))
    lab.world.call(send)


@pytest.fixture
def quiet(online):
    """A registered device whose first report is through."""
    online.controller.wait_message(404)
    return online


def test_counters_move_by_the_traffic(quiet):
    before = now(quiet)
    send_out(quiet)
    between = now(quiet)
    assert SENT <= between["txBytes"] - before["txBytes"] <= SENT + NOISE
    assert DATAGRAMS <= between["txPackets"] - before["txPackets"] <= DATAGRAMS * 1.1
    assert between["rxBytes"] - before["rxBytes"] <= NOISE
    send_in(quiet)
    after = now(quiet)
    assert SENT <= after["rxBytes"] - between["rxBytes"] <= SENT + NOISE
    assert DATAGRAMS <= after["rxPackets"] - between["rxPackets"] <= DATAGRAMS * 1.1


def test_counters_go_on_through_restarts(quiet):
    """Periodic reports with a stop, a new daemon and a new controller in between lose nothing."""
    request = {"index": 2, "interval": 2, "tables": INTERFACES}
    quiet.controller.standing = {2: request}
    first = {"msgType": 103, "stats": [request]}

    def report():
        position = quiet.journal.position
        event = quiet.journal.wait("from-agent", lambda e: e["message"]["msgType"] == 403,
                                   since=position, timeout=20)
        return eth0(event["message"])

    quiet.controller.send(first)
    before = report()
    send_out(quiet)
    assert SENT <= report()["txBytes"] - before["txBytes"] <= SENT + NOISE
    quiet.controller.send({"msgType": 105, "index": 2})
    quiet.log.wait("Stats request NOT active anymore disable recurrance of t_index=2")
    send_out(quiet)
    quiet.controller.send(first)
    assert 2 * SENT <= report()["txBytes"] - before["txBytes"] <= 2 * (SENT + NOISE)
    quiet.scmd.stop()
    send_out(quiet)
    quiet.scmd.start()
    assert 3 * SENT <= report()["txBytes"] - before["txBytes"] <= 3 * (SENT + NOISE)
    quiet.controller.stop()
    send_out(quiet)
    quiet.controller.start()
    assert 4 * SENT <= report()["txBytes"] - before["txBytes"] <= 4 * (SENT + NOISE)


def test_a_busy_core_is_seen(quiet):
    quiet.controller.send({"msgType": 104, "stats": [{"tables": {"processes": ["cpu"]}}]})
    quiet.controller.wait_message(404)
    burner = quiet.device.popen([PYTHON, "-c", "while True: pass"])
    try:
        time.sleep(1.0)  # what is measured is time itself
        quiet.controller.send({"msgType": 104, "stats": [
            {"fields": ["cpuUse"], "tables": {"processes": ["cpu"]}}]})
        stats = quiet.controller.wait_message(404)["stats"]
    finally:
        burner.kill()
        burner.wait()
    busiest = stats["tables"]["processes"][0]
    assert busiest["name"] == "python3"
    assert busiest["cpu"] > 20, "a share of a machine that others use as well"
    assert stats["fields"]["cpuUse"] > 10


def test_six_slots_for_long_leave_memory_and_descriptors_flat(lab):
    lab.start_agent("build/release/device-agent", ("-d", "0"), faketime="+0 x30")
    lab.controller.wait_message(404, timeout=30)
    lab.controller.send({"msgType": 103, "stats": [
        {"index": index, "interval": 1, "fields": ["uptime", "cpuUse", "memFree"],
         "tables": {"interfaces": ["name"], "processes": ["name"]}} for index in range(2, 8)]})

    def wait_reports(count):
        for _ in range(count):
            lab.controller.wait_message(403)

    wait_reports(60)
    memory, descriptors = vitals.private_memory(lab), vitals.descriptors(lab)
    wait_reports(180)
    assert vitals.private_memory(lab) - memory <= 64 * 1024
    assert len(vitals.descriptors(lab)) <= len(descriptors) + 1, "one for the daemon"
    assert vitals.children(lab) == []
    assert {report["index"] for report in lab.controller.messages(403)} <= set(range(2, 8))
