"""Software upgrades with stand-ins for the downloading program and the device's script."""

import os
import signal

import pytest
from expect import fence, seconds_between, until
from firmware_peer import (BUSY, IMAGE, LASTING, PROGRESS, RESULTS, SCRIPT, UNKNOWN, ask,
                           expect_failure, expect_stages, reporting)

HEARTBEAT = "/tmp/heartbeat_device-agent"
OTHER = "https://files.cloud.orvanta.example/other.img"


@pytest.fixture
def scripted(online):
    """A device whose download is there at once and whose script ends as it is told."""
    online.install("fw_dl", reporting())
    online.device.script_tool("upgrade.sh", 0)
    return online


def script(lab, lines):
    """Replaces the device's upgrade script."""
    lab.device.write_text(SCRIPT, f"#!/bin/sh\n{lines}\n", 0o755)


# -- the script's statuses ------------------------------------------------------------------

def test_every_status_of_the_script_is_told(scripted):
    lab = scripted
    for status in [*range(1, 16), 200]:
        lab.device.script_tool("upgrade.sh", status)
        ask(lab)
        expect_stages(lab, "Initiated", "InProgress")
        expect_failure(lab, *RESULTS.get(status, UNKNOWN))
        lab.log.wait(f"Sw Update Failed exit_status={status}")
        assert not lab.device.exists(PROGRESS)
    assert lab.device.records("upgrade.sh") == [[IMAGE]] * 16


def test_a_script_that_did_not_end_by_itself_has_not_succeeded(scripted):
    lab = scripted
    for lines in ("kill -9 $$", "kill -9 $PPID", "exit 255"):
        script(lab, lines)
        ask(lab)
        expect_stages(lab, "Initiated", "InProgress")
        expect_failure(lab, *UNKNOWN)
    lab.device.unlink(SCRIPT)
    ask(lab)
    expect_stages(lab, "Initiated", "InProgress")
    expect_failure(lab, *UNKNOWN)


# -- the way --------------------------------------------------------------------------------

def test_the_operator_reboots(scripted):
    lab = scripted
    ask(lab, autoReboot=False)
    expect_stages(lab, "Initiated", "InProgress", "UpdateComplete")
    for text in ("Inside fw_dl parent process, child_pid", "Firmware download completed",
                 "Firmware download complete", "Fire upgrade script: [/usr/bin/scripts/upgrade.sh "
                 "/tmp/firmware]", "Firmware flashing successful",
                 "Manual reboot required to load new firmware, auto_reboot=0"):
        lab.log.wait(text)
    assert lab.device.read_text("/tmp/orv_state") == "Connected to cloud.orvanta.example"
    fence(lab)
    assert lab.device.records("shutdown.sh") == []
    lab.log.wait("fw_dl process exited.")
    lab.log.wait("HTTPS_fw_dl: 100 percent")


def test_it_says_goodbye_and_reboots(start):
    lab = start(faketime="+0 x60")
    lab.wait_registered()
    lab.install("fw_dl", reporting())
    lab.device.script_tool("upgrade.sh", 0)
    lab.reboot_on_request = False
    ask(lab, autoReboot=True)
    expect_stages(lab, "Initiated", "InProgress", "UpdateComplete", "Rebooting")
    flashed = lab.log.wait("Rebooting device to load new firmware, auto_reboot=1")
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_SW_REBOOT")
    frame = lab.log.wait("send_close_frame_to_orvanta: Sent CLOSE frame")
    assert 9 <= seconds_between(flashed, frame) <= 14
    lab.journal.wait("reboot-requested")
    assert lab.device.records("shutdown.sh") == [["SRV_SW_UPD"]]
    down = lab.log.wait("** Please standby rebooting device **")
    assert 4 <= seconds_between(frame, down) <= 9
    lab.log.wait("Attempting (re)connection in 5 minutes")
    lab.wait_registered()
    assert fence(lab)["lastCloseReason"] == "DEV_SW_REBOOT"


def test_an_earlier_wish_to_reboot_holds(scripted):
    lab = scripted
    lab.reboot_on_request = False
    ask(lab, "http://x", autoReboot=True)
    expect_failure(lab, "BadRequest", "Firmware download over HTTP is not supported")
    ask(lab)
    expect_stages(lab, "Initiated", "InProgress", "UpdateComplete", "Rebooting")


def test_a_failed_download_frees_the_place(online):
    lab = online
    lab.install("fw_dl", reporting('{"msgType":701,"code":"x","message":"no such host"}'))
    for _ in range(2):
        ask(lab)
        expect_stages(lab, "Initiated")
        expect_failure(lab, "DownloadFailed", "SW update file download failed")
    assert not lab.device.exists(PROGRESS)


# -- refusals -------------------------------------------------------------------------------

def test_what_is_no_request_for_an_upgrade_is_refused(online):
    lab = online
    for url in ("HTTPS://files.cloud.orvanta.example/fw.img", "http://files/fw", ""):
        ask(lab, url)
        expect_failure(lab, "BadRequest", "Firmware download over HTTP is not supported")
    for text in ('{"msgType": 101}', '{"msgType": 101, "url": 5}'):
        lab.controller.send_raw(text, unchecked=True)
        expect_failure(lab, "BadRequest", "Software upgrade url info not found on JSON")
    assert not lab.device.exists(PROGRESS)


def test_one_upgrade_at_a_time_and_a_stale_progress_file_blocks(online):
    lab = online
    lab.install("fw_dl", LASTING)
    lab.device.write_text(PROGRESS, "stale")
    for _ in range(2):
        ask(lab)
        expect_failure(lab, *BUSY)
    lab.device.unlink(PROGRESS)
    ask(lab)
    ask(lab, OTHER)
    expect_stages(lab, "Initiated")
    expect_failure(lab, *BUSY)
    assert lab.device.read_text(PROGRESS) == "Upgrade initiated"


def test_a_long_url_is_cut_and_logged_in_one_line(online):
    lab = online
    lab.install("fw_dl", '#!/bin/sh\nprintf %s "$1" >/run/lab/shared/url\n')
    long = "https://x/" + "u" * 3000
    ask(lab, long)
    expect_stages(lab, "Initiated")
    path = lab.device.folder / "shared/url"
    until(lab, lambda: path.exists() and path.stat().st_size > 0, "the program's argument")
    assert path.read_text(encoding="utf-8") == long[:2047]
    lab.log.wait("str_upd_link= [https://x/uuu")


# -- a download that does not end -----------------------------------------------------------

def test_the_controller_hears_every_three_minutes_that_it_goes_on(start):
    lab = start(faketime="+0 x60")
    lab.wait_registered()
    lab.install("fw_dl", "#!/no/such/shell\n")  # cannot be executed: nobody reports
    ask(lab)
    expect_stages(lab, "Initiated")
    lab.log.wait("Failed to execvp fw_dl process errno=2")
    lab.log.wait("fw_dl process exited.")
    times = []
    for _ in range(2):
        expect_stages(lab, "OnGoing")
        times.append(lab.log.wait("Firmware upgrade in progress"))
    assert 179 <= seconds_between(*times) <= 186
    lab.controller.kill()
    register = lab.controller.wait_message(100, 20)
    while register["swUpdateState"] == 0:  # the one before
        register = lab.controller.wait_message(100, 20)
    assert register["swUpdateState"] == 1
    lab.log.wait("Firmware upgrade not initated or stopped")
    assert not lab.device.exists(PROGRESS)
    lab.install("fw_dl", reporting())
    lab.device.script_tool("upgrade.sh", 0)
    lab.wait_registered()
    ask(lab)
    expect_stages(lab, "Initiated", "InProgress", "UpdateComplete")


def fw_dl(lab):
    """The downloading program's number inside the device, once it runs."""
    path = lab.device.folder / "shared/fw_dl.pid"
    until(lab, lambda: path.exists() and path.read_text(encoding="ascii").strip() != "", "fw_dl")
    return int(path.read_text(encoding="ascii"))


def test_a_registration_kills_the_program(online):
    lab = online
    lab.install("fw_dl", LASTING)
    ask(lab)
    expect_stages(lab, "Initiated")
    pid = fw_dl(lab)
    lab.controller.kill()
    lab.log.wait(f"Terminating fw_dl pid {pid} (1,1)")
    until(lab, lambda: not lab.device.exists(f"/proc/{pid}"), "the program's end")
    lab.log.wait("Firmware upgrade not initated or stopped")
    assert [m["swUpdateState"] for m in lab.controller.messages(100)] == [0, 1]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_the_program_ends_with_the_agent(online, number):
    lab = online
    lab.install("fw_dl", LASTING)
    ask(lab)
    expect_stages(lab, "Initiated")
    pid = fw_dl(lab)
    lab.supervisor.send_signal(number)
    until(lab, lambda: not lab.device.exists(f"/proc/{pid}"), "the program's end")
    lab.wait_registered()
    stays = number == signal.SIGKILL  # nobody could take it away
    assert lab.device.exists(PROGRESS) == stays
    ask(lab)
    if stays:
        expect_failure(lab, *BUSY)
    else:
        expect_stages(lab, "Initiated")


# -- while the script holds the loop --------------------------------------------------------

WAITING = "touch /run/lab/shared/begun\nwhile [ ! -e /run/lab/shared/go ]; do sleep 0.05; done"


def hold(lab, last="exit 0"):
    """An upgrade whose script has begun and waits; call the result to let it go on."""
    lab.install("fw_dl", reporting())
    script(lab, f"unset LD_PRELOAD\n{WAITING}\n{last}")
    ask(lab)
    expect_stages(lab, "Initiated")
    begun = lab.device.folder / "shared/begun"
    until(lab, begun.exists, "the script")
    return (lab.device.folder / "shared/go").touch


def test_a_long_script_costs_neither_word_nor_heartbeat_nor_connection(start):
    lab = start(faketime="+0 x60")
    lab.wait_registered()
    lab.controller.wait_ping()
    go = hold(lab)
    expect_stages(lab, "InProgress")  # on its way before the script has begun
    assert lab.device.read_text(PROGRESS) == "Firmware file ready, now updating device"
    begun, held = lab.log.wait("Fire upgrade script"), lab.journal.position
    os.utime(f"/proc/{lab.device.pid}/root{HEARTBEAT}", (0, 0))
    until(lab, lambda: lab.device.stat(HEARTBEAT).st_mtime != 0, "a heartbeat")
    go()
    expect_stages(lab, "UpdateComplete")
    ended = lab.log.wait("Firmware flashing successful")
    lab.journal.wait("ping", since=held)
    lab.journal.wait("ping", since=held)
    assert seconds_between(begun, ended) > 60, "more than one ping was overdue"
    assert len(lab.controller.connections) == 1
    assert "Not received PONG for the last ping (2)" not in lab.log.tail(1000)


def test_the_agents_end_is_not_the_scripts(online):
    lab = online
    go = hold(lab, last="echo flashed >/run/lab/shared/flashed")
    lab.supervisor.send_signal(signal.SIGTERM)
    assert lab.controller.wait_closed().close_reason == "DEV_CFG_UPDATE"
    lab.wait_registered()
    ask(lab)
    expect_stages(lab, "InProgress")
    expect_failure(lab, *BUSY)  # the script still writes
    go()
    until(lab, (lab.device.folder / "shared/flashed").exists, "the script's end")
    assert lab.supervisor.exit_statuses == [0]


def test_a_connection_lost_meanwhile_is_found_again(online):
    lab = online
    go = hold(lab)
    lab.supervisor.send_signal(signal.SIGUSR1)
    lab.log.wait("sighandler invoked, signal  10")
    go()
    lab.log.wait("Firmware flashing successful")
    lab.wait_registered()
    lab.install("fw_dl", reporting())
    lab.device.script_tool("upgrade.sh", 0)
    assert not lab.device.exists(PROGRESS)
    fence(lab)
