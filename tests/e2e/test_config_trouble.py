"""Updates while the device's daemon, its flash or the agent itself fails."""

import os
import random
import time

import pytest
from configs import (BACKUP, CONFIG, FLAG, OBJECT_STEPS, PARTIAL, REVERTED, expect_failure,
                     expect_steps, push)
from expect import seconds_between, until

PART = {"radios": {"radio0": {"channel": 44}}}
NOT_THERE = "Configuration daemon not available"
CLOSED = "Configuration daemon closed the connection"
INVALID = "Invalid reply from configuration daemon"
NOT_WRITABLE = "Not able to open config file for writing"


def reverted(lab, old, before):
    """Asserts that nothing is left of an update that failed."""
    assert lab.device.records("clish")[-2:] == REVERTED
    assert (lab.device.read_text(CONFIG), lab.scmd.running()) == (old, before)
    assert not lab.device.exists(BACKUP) and not lab.device.exists(FLAG)


@pytest.mark.parametrize("kind, details, message", [
    ("slow", {"seconds": 0.3}, NOT_THERE), ("silent", {}, NOT_THERE), ("dead", {}, CLOSED),
    ("die", {}, CLOSED), ("garbage", {}, INVALID), ("shape", {}, INVALID), ("huge", {}, INVALID),
    ("lying", {}, CLOSED), ("reject", {"text": ""}, "Configuration daemon reported an error"),
    ("reject", {"text": "100% wrong %s%n"}, "100% wrong %s%n"),
    ("reject", {"text": "x" * 5000}, "x" * 1023)],
    ids=["slow", "silent", "dead", "die", "garbage", "shape", "huge", "lying", "no text", "percent",
         "long text"])
def test_the_daemon_fails(online, kind, details, message):
    lab, old, before = online, online.scmd.stored(), online.scmd.running()
    lab.scmd.fail(kind, **details)
    push(lab, config=PART)
    begun = lab.log.wait("MSG_CONFIG_UPDATE_REQUEST received")
    expect_steps(lab, "Initiated")
    expect_failure(lab, "BadRequest", message)
    ended = lab.log.wait("Configuration rejected, restoring last good config")
    assert seconds_between(begun, ended) <= 14, "one call takes at most 10 s"
    reverted(lab, old, before)
    lab.scmd.behave()
    if kind == "die":
        lab.scmd.stop()
        lab.scmd.start()
    push(lab, config=PART)
    expect_steps(lab, *OBJECT_STEPS)


def test_the_controller_is_told_before_the_daemon_is_asked(online):
    lab = online
    lab.scmd.fail("silent")
    push(lab, config=PART)
    begun = lab.journal.wait("from-agent", lambda e: e["message"].get("msgType") == 406)
    failed = lab.journal.wait("from-agent", lambda e: e["message"].get("msgType") == 706, 15)
    assert failed.when - begun.when > 0.4, "ten seconds of the agent's clock are half a second"


@pytest.mark.parametrize("kind, message", [("silent", NOT_THERE), ("reject", "no, thanks")])
def test_the_daemon_fails_on_the_native_part(online, kind, message):
    lab, old, before = online, online.scmd.stored(), online.scmd.running()
    lab.scmd.fail(kind, mType="DEVICE-NATIVE-CONFIG", text="no, thanks")
    push(lab, config=PART, nativeConfig="set radio0 power 3")
    expect_steps(lab, "Initiated", "InProgress")
    expect_failure(lab, "BadRequest", message)
    reverted(lab, old, before)


@pytest.mark.parametrize("socket_stays", [True, False])
def test_there_is_no_daemon(online, socket_stays):
    lab, old, before = online, online.scmd.stored(), online.scmd.running()
    lab.scmd.stop()
    if not socket_stays:
        lab.device.unlink("/var/tmp/scmd_server")
    push(lab, config=PART)
    expect_steps(lab, "Initiated")
    expect_failure(lab, "BadRequest", NOT_THERE)
    reverted(lab, old, before)
    lab.scmd.start()
    push(lab, config=PART)
    expect_steps(lab, *OBJECT_STEPS)


def small_flash(lab, free):
    """Gives the device a flash of its own with so many kibibytes free; returns the configuration."""
    text = lab.scmd.stored()
    lab.device.run(["mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", "/mnt/flash"], check=True)
    lab.device.run(["mkdir", "/mnt/flash/config"], check=True)
    lab.device.write_text(CONFIG, text)
    script = f"dd if=/dev/zero of=/mnt/flash/full bs=1k; truncate -s -{free}k /mnt/flash/full"
    lab.device.run(["sh", "-c", script], check=True)
    return text


@pytest.mark.parametrize("members, steps", [
    ({"config": "x" * 100, "overwrite": True}, []), ({"config": "set radio0 power 3"}, []),
    ({"config": PART}, ["Initiated"])], ids=["overwrite", "text", "object"])
def test_the_flash_is_full(online, members, steps):
    old = small_flash(online, 0)
    push(online, **members)
    expect_steps(online, *steps)
    expect_failure(online, "InternalError", NOT_WRITABLE)
    assert online.device.read_text(CONFIG) == old
    assert not online.device.exists(BACKUP) and not online.device.exists(FLAG)
    assert online.device.run(["ls", "/mnt/flash/config"]).stdout.split() == ["config.txt"]
    assert online.device.records("clish") == online.device.records("shutdown.sh") == []


def test_the_flash_fills_up_with_the_new_configuration(online):
    old = small_flash(online, 24)
    push(online, config="set radio0 power 3\n" * 5000, overwrite=True)
    expect_steps(online, "InProgress")
    expect_failure(online, "InternalError", NOT_WRITABLE)
    online.log.wait("Not able to create the config file")
    assert online.device.read_text(CONFIG) == online.device.read_text(BACKUP) == old
    assert not online.device.exists(FLAG)


def test_the_text_cannot_be_put_aside(online):
    old = online.scmd.stored()
    online.device.run(["mkdir", "-p", f"{PARTIAL}/in-the-way"], check=True)
    push(online, config="set radio0 power 3")
    expect_failure(online, "InternalError", NOT_WRITABLE)
    online.log.wait("Not able to create partial config file")
    assert online.device.read_text(CONFIG) == old
    assert online.device.records("clish") == []


def test_the_agent_is_killed_while_it_updates(start):
    """The stored configuration is one of the texts, at any moment and after every kill.

    KILL_ROUNDS and KILL_SEED in the environment make it longer or the same again."""
    seed = int(os.environ.get("KILL_SEED", time.time_ns() % 2 ** 32))
    rounds, dice = int(os.environ.get("KILL_ROUNDS", "4")), random.Random(seed)
    lab = start()
    lab.reboot_on_request = False
    texts = [lab.scmd.stored()]
    texts += [f"# {name}\n" + f"set radio0 power {n % 20} # {name}\n" * 20_000
              for n, name in enumerate("ab")]
    allowed, looks = set(texts), 0
    for _ in range(rounds):
        lab.wait_registered()
        for text in texts[1:] * 4:
            push(lab, config=text, overwrite=True)
        lab.log.wait("CLI template based configuration update initiated")
        until_killed = time.monotonic() + dice.uniform(0.0, 0.2)
        while time.monotonic() < until_killed:
            looks += 1
            assert lab.device.read_text(CONFIG) in allowed, f"KILL_SEED={seed}"
        lab.supervisor.send_signal(9)
        lab.supervisor.wait_ended()
        assert lab.device.read_text(CONFIG) in allowed, f"KILL_SEED={seed}"
        assert lab.device.read_text(BACKUP) in allowed, f"KILL_SEED={seed}"
    assert looks > rounds
    lab.wait_registered()
    until(lab, lambda: not lab.device.exists(FLAG), "the flag file to go")
