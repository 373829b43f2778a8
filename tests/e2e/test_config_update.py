"""Configuration updates in their three forms, and what is refused."""

import pytest
from configs import (BACKUP, CONFIG, FLAG, OBJECT_STEPS, PARTIAL, REVERTED, expect_failure,
                     expect_steps, pull, push)
from expect import fence, seconds_between, until


def test_an_object_goes_to_the_daemon(online):
    lab, old = online, online.scmd.stored()
    lab.controller.answer_pings = False  # a pong would take the flag file away
    part = {"radios": {"radio0": {"channel": 44}},
            "ssids": {"guests": {"security": "wpa2-psk", "passphrase": "100% ours"}}}
    push(lab, config=part)
    expect_steps(lab, *OBJECT_STEPS)
    assert lab.scmd.messages() == [{"mType": "DEVICE-JSON-CONFIG", "overwrite": 0, "config": part}]
    assert lab.scmd.running()["radios"]["radio0"]["channel"] == 44
    assert lab.device.read_text(CONFIG) == pull(lab).replace("\\n", "\n") != old
    assert "set radio0 channel 44\n" in lab.device.read_text(CONFIG)
    assert "set ssid guests passphrase '100% ours'\n" in lab.device.read_text(CONFIG)
    assert lab.device.read_text(BACKUP) == old
    assert lab.device.records("clish") == []
    assert lab.device.read_text(FLAG) == ""
    lab.controller.answer_pings = True
    lab.log.wait("Connection alive after partial reconfig")
    assert not lab.device.exists(FLAG)


def test_an_object_with_a_native_part_overwrites(online):
    lab = online
    push(lab, config={"radios": {"radio0": {"channel": 48}}})
    expect_steps(lab, *OBJECT_STEPS)
    push(lab, config={"system": {"hostname": "hall-3"}}, nativeConfig="set radio1 channel 11",
         overwrite=True)
    expect_steps(lab, *OBJECT_STEPS)
    assert lab.scmd.messages()[1:] == [
        {"mType": "DEVICE-JSON-CONFIG", "overwrite": 1, "config": {"system": {"hostname": "hall-3"}}},
        {"mType": "DEVICE-NATIVE-CONFIG", "overwrite": 1, "config": "set radio1 channel 11"}]
    radios = lab.scmd.running()["radios"]
    assert (radios["radio0"]["channel"], radios["radio1"]["channel"]) == (36, 11)
    assert lab.device.run(["hostname"]).stdout == "hall-3\n"


def test_a_text_is_carried_out_in_place(online):
    lab, old = online, online.scmd.stored()
    lab.controller.answer_pings = False
    text = "set radio0 channel 52\nset radio1 enabled off"
    push(lab, config=text)
    expect_steps(lab, "InProgress", "Complete")
    assert lab.device.read_text(PARTIAL) == text
    assert lab.device.records("clish") == [["-f", PARTIAL], ["-e", "save"]]
    assert lab.scmd.running()["radios"]["radio0"]["channel"] == 52
    assert "set radio1 enabled off\n" in lab.device.read_text(CONFIG)
    assert lab.device.read_text(BACKUP) == old
    assert lab.device.exists(FLAG)
    lab.controller.answer_pings = True
    lab.log.wait("Connection alive after partial reconfig")
    assert not lab.device.exists(FLAG)


@pytest.mark.parametrize("value", ["true", 1, None, [True], False])
def test_only_true_overwrites(online, value):
    push(online, config="set radio0 power 10", overwrite=value)
    expect_steps(online, "InProgress", "Complete")
    assert online.device.records("clish")[0] == ["-f", PARTIAL]


def test_a_text_that_overwrites_takes_a_reboot(online):
    lab, old = online, online.scmd.stored()
    text = "set radio0 channel 60\nset system hostname attic\n"
    push(lab, config=text, overwrite=True)
    expect_steps(lab, "InProgress", "CompleteWithReboot")
    assert lab.device.read_text(CONFIG) == text
    assert lab.device.read_text(BACKUP) == old
    until(lab, lambda: lab.device.exists(FLAG), "the flag file")
    assert lab.scmd.running()["radios"]["radio0"]["channel"] == 36, "not before the reboot"
    assert lab.device.records("shutdown.sh") == []
    decided = lab.log.wait("Rebooting device in 10 seconds to apply new config")
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_REBOOT")
    sent = lab.log.wait("Sent CLOSE frame")
    assert 9 <= seconds_between(decided, sent) <= 14
    assert lab.device.records("shutdown.sh") == [], "not before the close frame got through"
    going = lab.log.wait("** Please standby rebooting device **")
    assert 4 <= seconds_between(sent, going) <= 9
    lab.journal.wait("rebooted")
    assert lab.device.records("shutdown.sh") == [["SRV_CFG_UPD"]]
    lab.wait_registered()
    assert lab.scmd.running()["radios"]["radio0"]["channel"] == 60
    assert lab.controller.messages(100)[-1]["hostname"] == "attic"
    assert fence(lab)["lastRebootReason"] == "SRV_CFG_UPD"
    assert not lab.device.exists(FLAG)
    assert lab.device.records("clish") == []


def test_a_text_is_stored_byte_for_byte(online):
    online.reboot_on_request = False
    text = "# \u00e9\u4e2d \\n \"quoted\" 100%s%n\r\n\ttab\n\n\nno newline at the end"
    push(online, config=text, overwrite=True)
    expect_steps(online, "InProgress", "CompleteWithReboot")
    assert online.device.run(["cat", CONFIG]).stdout == text.replace("\r\n", "\n")
    assert online.device.run(["wc", "-c", CONFIG]).stdout.split()[0] == str(len(text.encode()))


INVALID = "Invalid Config Attribute in json request from Orvanta"


@pytest.mark.parametrize("members", [
    {}, {"overwrite": True}, {"config": 5}, {"config": []}, {"config": None}, {"config": True},
    {"nativeConfig": {}}, {"config": {}, "nativeConfig": 5}, {"config": 5, "nativeConfig": "x"}])
def test_other_shapes_are_refused(online, members):
    old = online.scmd.stored()
    push(online, unchecked=True, **members)
    expect_failure(online, "BadRequest", INVALID)
    online.log.wait(INVALID)
    assert online.device.read_text(CONFIG) == old
    assert not any(online.device.exists(path) for path in (BACKUP, FLAG, PARTIAL))


def test_a_native_part_alone_does_nothing(online):
    old = online.scmd.stored()
    push(online, nativeConfig="set radio0 channel 40")
    fence(online)
    assert online.controller.messages(406) == online.controller.messages(706) == []
    assert online.scmd.messages() == []
    assert online.device.read_text(CONFIG) == old
    assert not any(online.device.exists(path) for path in (BACKUP, FLAG, PARTIAL))


@pytest.mark.parametrize("part, text", [
    ({"colour": "blue"}, "colour: unknown setting"),
    ({"radios": {"radio0": {"channel": 15}}},
     "radios.radio0.channel: 15 is not a channel of this radio (5 GHz)"),
    ({"radios": {"radio0": {"power": 20.5}}},
     "radios.radio0.power: 20.5 is not a power (0 to 23 dBm)"),
    ({"ssids": {"staff": {"security": "wpa2-psk"}}},
     "ssids.staff: security wpa2-psk needs a passphrase"),
    ({"system": {"hostname": "%s%n%d"}}, "system.hostname: %s%n%d is not a host name")])
def test_what_the_daemon_refuses(online, part, text):
    lab, old, before = online, online.scmd.stored(), online.scmd.running()
    push(lab, config={"radios": {"radio1": {"channel": 9}}, **part})
    expect_steps(lab, "Initiated")
    expect_failure(lab, "BadRequest", text)
    assert lab.device.records("clish") == REVERTED
    assert (lab.device.read_text(CONFIG), lab.scmd.running()) == (old, before)
    assert not lab.device.exists(BACKUP) and not lab.device.exists(FLAG)
    assert len(lab.scmd.messages()) == 1, "no native part, and none after a refusal"


def test_a_refused_native_part_takes_the_object_back(online):
    lab, old, before = online, online.scmd.stored(), online.scmd.running()
    push(lab, config={"ssids": {"guests": {}}, "radios": {"radio0": {"channel": 149}}},
         nativeConfig="x")
    expect_steps(lab, "Initiated")
    expect_failure(lab, "BadRequest",
                   "radios.radio0.channel: 149 is not a channel of this radio (5 GHz)")
    push(lab, config={"ssids": {"guests": {}}}, nativeConfig="set radio0 power 5\nset colour blue x")
    expect_steps(lab, "Initiated", "InProgress")
    expect_failure(lab, "BadRequest", "line 2: set colour blue x: unknown command")
    assert lab.device.records("clish") == REVERTED * 2
    assert (lab.device.read_text(CONFIG), lab.scmd.running()) == (old, before)
    assert not lab.device.exists(BACKUP) and not lab.device.exists(FLAG)


def test_a_wrong_line_of_a_text_is_passed_over(online):
    push(online, config="set radio0 channel 15\nset radio0 power 3\n")
    expect_steps(online, "InProgress", "Complete")
    online.log.wait(f"/usr/bin/clish -f {PARTIAL} ended with status")
    radio = online.scmd.running()["radios"]["radio0"]
    assert (radio["channel"], radio["power"]) == (36, 3)


def test_the_first_configuration_of_a_device(online):
    online.device.unlink(CONFIG)
    push(online, config="set radio0 power 3")
    expect_steps(online, "InProgress", "Complete")
    assert not online.device.exists(BACKUP)
    assert "set radio0 power 3\n" in online.device.read_text(CONFIG)
