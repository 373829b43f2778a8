"""The way back from a configuration that cuts the device off."""

import pytest
from configs import BACKUP, CONFIG, FLAG, expect_steps, pull, push
from expect import seconds_between, until

from lab.controller import Silence

HURRY = "+0 x100"
"""The agent's clock where it takes the ten minutes."""
NOWHERE = "set management address 10.99.0.2/24\n"


def unreachable(lab):
    """Whether the device has lost its way to the world."""
    return lab.device.run(["ip", "route", "get", "10.77.0.1"]).returncode != 0


def comes_back(lab, old, since=0):
    """Asserts that the old configuration returns after ten minutes, with connectivity."""
    armed = lab.log.wait("Starting cfg_restore_timer", timeout=30, since=since)
    assert unreachable(lab)
    fired = lab.log.wait("cfg_restore_timer_cb: Reverting to last known good configuration",
                         timeout=30)
    assert 600 <= seconds_between(armed, fired) <= 606
    lab.log.wait("Rebooting device in 10 seconds, to restore good config")
    lab.journal.wait("rebooting")
    lab.journal.wait("rebooted")
    assert lab.device.records("shutdown.sh")[-1] == ["SRV_CFG_UPD"]
    assert lab.device.read_text(CONFIG) == lab.device.read_text(BACKUP) == old
    assert not lab.device.exists(FLAG) and not unreachable(lab)
    lab.wait_registered()
    assert lab.scmd.running()["management"]["address"] == "10.77.0.2/24"
    assert pull(lab).replace("\\n", "\n") == old


@pytest.mark.parametrize("config", [
    NOWHERE, {"management": {"address": "none"}}, {"management": {"vlan": 7}}],
    ids=["text", "no address", "VLAN"])
def test_an_update_in_place_cuts_the_device_off(start, config):
    lab = start(faketime=HURRY)
    lab.wait_registered()
    old = lab.scmd.stored()
    push(lab, config=config)
    lab.log.wait("Applied new partial config" if isinstance(config, str)
                 else "Object based configuration applied successfully")
    assert unreachable(lab)
    lab.log.wait("Missed 5 consecutive PONGS", timeout=30)
    comes_back(lab, old)
    told = [message["status"] for message in lab.controller.messages(406)]
    assert told == ["InProgress" if isinstance(config, str) else "Initiated"], "what came before"


def test_a_whole_configuration_cuts_the_device_off(start):
    lab = start(faketime=HURRY)
    lab.wait_registered()
    old = lab.scmd.stored()
    push(lab, config="set system hostname lost\n" + NOWHERE, overwrite=True)
    expect_steps(lab, "InProgress", "CompleteWithReboot")
    booted = lab.journal.wait("rebooted")
    comes_back(lab, old, booted.index)


def test_two_outages_have_one_timer(start):
    lab = start()
    lab.wait_registered()
    lab.controller.answer_pings = False
    push(lab, config="set radio0 power 3")
    expect_steps(lab, "InProgress", "Complete")
    lab.onboarding.stop()
    lab.controller.stop()
    lab.log.wait("cfg_restore_timer not running")
    lab.log.wait("Starting cfg_restore_timer")
    lab.supervisor.send_signal(10)
    lab.log.wait("cfg_restore_timer  running")
    starts = [e for e in lab.journal.events("log") if "Starting cfg_restore_timer" in e["message"]]
    assert len(starts) == 1


def test_a_connection_in_time_keeps_the_new_configuration(start):
    """The connection alone does, before anybody has accepted the device."""
    lab = start()
    lab.wait_registered()
    lab.controller.answer_pings = False
    push(lab, config="set radio0 power 3")
    expect_steps(lab, "InProgress", "Complete")
    assert lab.device.exists(FLAG)
    lab.controller.on_register = Silence()
    lab.controller.kill()
    lab.log.wait("Starting cfg_restore_timer")
    lab.log.wait("Got connected 'back' after CFG_UPDATE, deleting the cfg_restore_timer")
    assert not lab.device.exists(FLAG)
    assert "set radio0 power 3\n" in lab.device.read_text(CONFIG)


def test_a_pong_keeps_the_new_configuration(start):
    lab = start()
    lab.wait_registered()
    lab.controller.answer_pings = False
    push(lab, config={"radios": {"radio0": {"power": 3}}})
    expect_steps(lab, "Initiated", "InProgress", "Complete")
    assert lab.device.exists(FLAG)
    lab.controller.answer_pings = True
    lab.log.wait("Connection alive after partial reconfig")
    until(lab, lambda: not lab.device.exists(FLAG), "the flag file to go")
    position = lab.journal.position
    lab.controller.kill()
    lab.wait_registered()
    assert not [e for e in lab.journal.events("log", since=position)
                if "Starting cfg_restore_timer" in e["message"]]


def test_an_agent_that_dies_meanwhile_still_goes_back(start):
    lab = start(faketime=HURRY)
    lab.wait_registered()
    old = lab.scmd.stored()
    push(lab, config=NOWHERE)
    until(lab, lambda: lab.device.exists(FLAG), "the flag file")
    lab.supervisor.send_signal(9)
    ended = lab.supervisor.wait_ended()
    comes_back(lab, old, ended.index)
