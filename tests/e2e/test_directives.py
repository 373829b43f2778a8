"""What the controller asks of the agent itself: reboot, clock, retry intervals, status text."""

import datetime
import itertools
import time

import pytest
from expect import fence, seconds_between

# what comes in the request, the seconds until the close frame, the reason for the script
MEMBERS = {"reason": "MAINTENANCE", "delay": 3, "force": True}
REBOOTS = [{name: MEMBERS[name] for name in chosen} for count in range(4)
           for chosen in itertools.combinations(MEMBERS, count)]
ODD = [({"delay": 0}, 1, ""), ({"delay": -7, "force": False}, 1, ""),
       ({"delay": "9", "force": "yes"}, 5, ""), ({"delay": 2.5, "reason": 5}, 5, ""),
       ({"reason": "100%% %d two words"}, 5, "100% 0 two words"),
       ({"reason": "x" * 300}, 5, "x" * 127)]
ALL = [(members, members.get("delay", 5), members.get("reason", "")) for members in REBOOTS] + ODD


@pytest.mark.parametrize("members, seconds, reason", ALL, ids=[
    "-".join(f"{key}={value}"[:12] for key, value in row[0].items()) or "bare" for row in ALL])
def test_a_reboot_request(online, members, seconds, reason):
    lab = online
    lab.reboot_on_request = False
    lab.controller.send({"msgType": 102, **members})
    assert lab.controller.wait_message_event(402)["text"] == '{"msgType": 402}'
    asked = lab.log.wait("Rebooting device after ")
    lab.log.wait("MSG_REBOOT_CMD_REQUEST Complete")
    assert lab.device.records("shutdown.sh") == []
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_REBOOT")
    sent = lab.log.wait("Sent CLOSE frame")
    assert seconds - 1 <= seconds_between(asked, sent) <= seconds + 4
    assert lab.device.records("shutdown.sh") == [], "not before the close frame got through"
    lab.journal.wait("reboot-requested")
    assert lab.device.records("shutdown.sh") == [[reason]]
    ran = lab.log.wait(f"reboot_timer_cb: g_rebootReason [{reason}]")
    assert 4 <= seconds_between(sent, ran) <= 8


def test_a_reboot_really_happens(online):
    lab = online
    session = lab.controller.wait_message(100)["sessId"]
    lab.controller.send({"msgType": 102, "reason": "MOVED HOUSE", "delay": 1})
    lab.journal.wait("rebooted")
    lab.wait_registered()
    assert lab.controller.wait_message(100)["sessId"] != session
    told = fence(lab)
    assert (told["lastRebootReason"], told["lastCloseReason"]) == ("MOVED HOUSE", "DEV_REBOOT")
    assert abs(told["lastRebootTS"] - time.time()) < 60


def test_the_second_reboot_request_counts(online):
    lab = online
    lab.reboot_on_request = False
    lab.controller.send({"msgType": 102, "reason": "FIRST", "delay": 20})
    lab.controller.send({"msgType": 102, "reason": "SECOND", "delay": 2})
    lab.controller.wait_message(402)
    lab.controller.wait_message(402)
    lab.journal.wait("reboot-requested")
    assert lab.device.records("shutdown.sh") == [["SECOND"]]


# -- the clock ----------------------------------------------------------------------------------

def shown(seconds):
    """A time as the device's date command takes it."""
    moment = datetime.datetime.fromtimestamp(seconds)
    return f"{moment.year}.{moment:%m.%d-%H:%M:%S}"


@pytest.mark.parametrize("seconds", [1767225600, 1, 4102444800])
def test_the_clock_is_set_to_the_controllers(lab, start, seconds):
    before, monotonic = time.time(), time.monotonic()
    lab.controller.on_register.orv_time = seconds
    start()
    lab.wait_registered()
    lab.log.wait(f"Syncing system time to Orvanta time [{shown(seconds)}]")
    fence(lab)
    assert lab.device.records("date") == [[shown(seconds)]]
    assert abs((time.time() - before) - (time.monotonic() - monotonic)) < 5, "the host's clock"


@pytest.mark.parametrize("seconds", [0, ""])
def test_no_time_is_no_reason_to_set_the_clock(lab, start, seconds):
    lab.controller.on_register.orv_time = seconds
    start()
    lab.wait_registered()
    fence(lab)
    assert lab.device.records("date") == []


def test_a_device_with_ntp_keeps_its_own_time(lab, start):
    lab.device.run(["/usr/bin/clish", "-e", "set system ntp-server 10.77.0.1"], check=True)
    start()
    lab.wait_registered()
    fence(lab)
    assert lab.device.records("date") == []
    lab.controller.send({"msgType": 106, "config": {"system": {"ntpServer": ""}}})
    lab.journal.wait("from-agent", lambda e: e["message"].get("status") == "Complete")
    lab.controller.send({"msgType": 400, "orvTime": 1767225600})
    fence(lab)
    assert lab.device.records("date") == [[shown(1767225600)]]


# -- retry intervals ----------------------------------------------------------------------------

def test_the_retry_intervals_count_after_the_first_quarter_of_an_hour(start):
    lab = start(faketime="+0 x200")
    lab.wait_registered()
    lab.controller.send({"msgType": 117, "waitTime": 700, "deltaTime": 0})
    lab.log.wait("Orvanta has sent reconnect wait=700 delta=0")
    lab.onboarding.stop()
    lab.controller.stop()
    failed = lab.log.wait("Slow rediscover: idle_timeout 700", timeout=30)
    again = lab.log.wait("DA_STATE_DISCOVERY", since=failed.index)
    assert 690 <= seconds_between(failed, again) <= 720
    assert lab.status() in ("Connecting in 12 minutes", "Connecting in 11 minutes", "Resolving URL",
                            "Connecting")


@pytest.mark.parametrize("members, text", [
    ({"deltaTime": 5}, "Invalid waitTime received"),
    ({"waitTime": "600", "deltaTime": 5}, "Invalid waitTime received"),
    ({"waitTime": 600}, "Invalid deltaTime received"),
    ({"waitTime": 600, "deltaTime": 1.5}, "Invalid deltaTime received")])
def test_half_the_retry_intervals(online, members, text):
    online.controller.send({"msgType": 117, **members}, unchecked=True)
    assert online.controller.wait_message_event(717)["text"] == (
        f'{{"msgType": 717, "code": "BadRequest", "message": "{text}"}}')
    online.log.wait(text)


# -- the status to show -------------------------------------------------------------------------

@pytest.mark.parametrize("text", ["Connected to ACME", "100% %s%n", "\u00e9\u4e2d", ""])
def test_the_controllers_own_status(online, text):
    online.controller.send({"msgType": 697, "Orvanta": {"status": text}})
    fence(online)
    online.log.wait(f"Orvanta status to display [{text}]")
    assert online.status() == text
    assert online.controller.messages(999) == []


@pytest.mark.parametrize("members, text", [
    ({}, "Invalid Orvanta object received"), ({"Orvanta": "x"}, "Invalid Orvanta object received"),
    ({"Orvanta": {}}, "Invalid status received"),
    ({"Orvanta": {"status": 5}}, "Invalid status received")])
def test_a_status_that_cannot_be_read(online, members, text):
    fence(online)
    before = online.status()
    online.controller.send({"msgType": 697, **members}, unchecked=True)
    assert online.controller.wait_message_event(999)["text"] == (
        f'{{"msgType": 999, "code": "BadRequest", "message": "{text}"}}')
    online.log.wait(text)
    assert online.status() == before
