"""Requests of the controller and the exact replies."""

import pytest
from expect import fence, replies

ACCOUNT = "/mnt/flash/config/account_id"


def reply_text(lab, number):
    """The next reply of this type, as it came."""
    return lab.controller.wait_message_event(number)["text"]


def test_what_is_not_json_is_answered_999(online):
    start = "Unable to load JSON ,error  on line "
    for text in ("hello", '{"msgType": ', "", "[1, 2", '{"msgType": 123}}'):
        online.controller.send_raw(text, unchecked=True)
        reply = online.controller.wait_message(999)
        assert reply["code"] == "BadRequest", text
        assert reply["message"].startswith(start), text
        assert reply["message"].removeprefix(start).split(":")[0].lstrip("-").isdigit(), text
        assert online.log.wait(start)["message"] == reply["message"]


def test_the_line_of_an_error_is_counted(online):
    online.controller.send_raw('{"msgType":\n115,\n!}', unchecked=True)
    assert online.controller.wait_message(999)["message"].startswith(
        "Unable to load JSON ,error  on line 3: ")


def test_a_message_without_a_type_is_answered_999(online):
    online.controller.send_raw('{"foo": 1}', unchecked=True)
    assert reply_text(online, 999) == (
        '{"msgType": 999, "code": "BadRequest", '
        '"message": "Not able to find msgType in the json request"}')


def test_an_unknown_type_is_logged_and_not_answered(online):
    for text, number in [
            ('{"msgType": 116}', 116), ('{"msgType": 118}', 118), ('{"msgType": 120}', 120),
            ('{"msgType": 121}', 121), ('{"msgType": 99999}', 99999), ('{"msgType": -1}', -1),
            ('{"msgType": "103"}', 0), ('{"msgType": null}', 0), ('{"msgType": 115.0}', 0),
            ('{"msgType": {"a": 1}}', 0)]:
        before = len(replies(online))
        online.controller.send_raw(text, unchecked=True)
        fence(online)
        assert len(replies(online)) == before + 1, text
        online.log.wait(f"handle_orv_msg: UNKNOWN message {number} received from Orvanta")


@pytest.mark.parametrize("account, stored", [("acme-7", "acme-7"), ("", None)])
def test_managed_info_keeps_the_account(online, account, stored):
    online.device.write_text(ACCOUNT, "old")
    online.controller.send({"msgType": 108, "managed": True, "accountId": account,
                            "hwExpiryDate": "2031-01-01"})
    assert reply_text(online, 408) == '{"msgType": 408}'
    if stored is None:
        assert not online.device.exists(ACCOUNT)
    else:
        assert online.device.read_text(ACCOUNT) == stored


def test_an_account_of_another_type_changes_nothing(online):
    online.device.write_text(ACCOUNT, "old")
    online.controller.send_raw('{"msgType": 108, "accountId": 5, "managed": "yes"}', unchecked=True)
    assert reply_text(online, 408) == '{"msgType": 408}'
    assert online.device.read_text(ACCOUNT) == "old"


def test_a_percent_sign_in_an_account_is_harmless(online):
    online.controller.send({"msgType": 108, "accountId": "100%% sure%n%s%d"})
    reply_text(online, 408)
    assert online.device.read_text(ACCOUNT) == "100% sure0"


def test_locate_blinks_the_leds(online):
    online.controller.send({"msgType": 115})
    assert reply_text(online, 415) == '{"msgType": 415}'
    assert online.device.records("flash_leds") == [[]]
    online.log.wait("platform_locate: ** Blinking device LEDs ** ")


def test_locate_is_accepted_even_if_the_tool_fails(online):
    online.device.script_tool("flash_leds", status=3)
    online.controller.send({"msgType": 115})
    assert reply_text(online, 415) == '{"msgType": 415}'


def test_device_info_tells_uptime_and_reasons(online):
    online.device.write_text("/mnt/flash/.last_reboot_reason", "1700000000:POWER:CUT")
    online.device.write_text("/mnt/flash/.last_close_reason", "1700000001:DEV_REBOOT")
    online.controller.send({"msgType": 123})
    event = online.controller.wait_message_event(423)
    uptime = event["message"]["uptime"]
    assert abs(uptime - float(online.device.read_text("/proc/uptime").split()[0])) < 5
    assert event["text"] == (
        '{"msgType": 423, "lastCloseReason": "DEV_REBOOT", "lastCloseTS": 1700000001, '
        '"lastRebootReason": "POWER:CUT", "lastRebootTS": 1700000000, '
        f'"uptime": {uptime}}}')
    assert not online.device.exists("/mnt/flash/.last_close_reason")
    second = fence(online)
    assert (second["lastCloseReason"], second["lastCloseTS"]) == ("", 0)
    assert second["lastRebootReason"] == "POWER:CUT"


def test_requests_are_answered_in_their_order(online):
    for text in ('{"msgType": 115}', "x", '{"msgType": 108}'):
        online.controller.send_raw(text, unchecked=True)
    fence(online)
    kinds = [message["msgType"] for message in replies(online)]
    assert kinds == [100, 415, 999, 408, 423]
