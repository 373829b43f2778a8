"""Commands that a person gives to the controller from another terminal."""

import json
import os
import re
import signal
import socket
import subprocess

import pytest
from expect import until

from lab.ctlserver import CtlServer
from lab.device import PYTHON, REPOSITORY

CTL = [PYTHON, "-m", "lab.ctl"]
HERE = ["--lab", str(os.getpid())]
MANAGEMENT = "set management address 10.77.0.2/24\n"


def run(*words, **options):
    """Runs the client to its end."""
    return subprocess.run([*CTL, *words], cwd=REPOSITORY, capture_output=True, text=True,
                          timeout=60, check=False, **options)


def begin(*words):
    """Starts the client; its output is read line by line."""
    return subprocess.Popen([*CTL, *HERE, *words], cwd=REPOSITORY, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def untimed(text):
    """The output without the times of day."""
    return re.sub(r"^\d\d:\d\d:\d\d\.\d ", "", text, flags=re.MULTILINE)


@pytest.fixture
def bare(lab):
    """A lab without an agent that takes commands."""
    with CtlServer(lab):
        yield lab


@pytest.fixture
def ctl(online):
    """Gives commands to the controller of a registered device."""
    with CtlServer(online):
        yield lambda *words, **options: run(*HERE, *words, **options)


def test_directives_and_their_answers(ctl, online):
    done = ctl("locate")
    assert (done.returncode, done.stderr) == (0, "")
    assert untimed(done.stdout) == (
        '---> 115 locate-cmd: {"msgType": 115}\n<--- 415 locate-accepted: {"msgType": 415}\n'
        "done: the device has blinked its lights\n")
    assert online.device.records("flash_leds") == [[]]
    done = ctl("managed", "--managed", "yes", "--account", "acme-7", "--expiry", "2031-12-31")
    assert done.returncode == 0
    assert untimed(done.stdout).splitlines()[0] == (
        '---> 108 managed-info: {"msgType": 108, "managed": true, "accountId": "acme-7", '
        '"hwExpiryDate": "2031-12-31"}')
    assert online.device.read_text("/mnt/flash/config/account_id") == "acme-7"
    assert untimed(ctl("managed").stdout).splitlines()[:2] == [
        '---> 108 managed-info: {"msgType": 108}',
        '<--- 408 managed-info-accepted: {"msgType": 408}']
    done = ctl("status", "Hall 3 is served")
    assert (done.returncode, untimed(done.stdout)) == (0, (
        '---> 697 orvanta-connect-status: {"msgType": 697, "Orvanta": {"status": '
        '"Hall 3 is served"}}\n' "done: the device shows 'Hall 3 is served'\n"))
    done = ctl("intervals", "600", "120")
    assert (done.returncode, untimed(done.stdout)) == (0, (
        '---> 117 intvl-update-cmd-request: {"msgType": 117, "waitTime": 600, "deltaTime": 120}\n'
        "done: the device took it without a complaint\n"))
    online.log.wait("Orvanta has sent reconnect wait=600 delta=120")


def test_info_is_shown_for_people(ctl, online):
    online.device.write_text("/mnt/flash/.last_reboot_reason", "1767225600:SRV_CFG_UPD")
    done = ctl("info")
    lines = done.stdout.splitlines()
    assert done.returncode == 0
    assert lines[2:6] == ["lastCloseReason:", "lastCloseTS:       -",
                          "lastRebootReason:  SRV_CFG_UPD",
                          "lastRebootTS:      2026-01-01 00:00:00 UTC"]


def test_the_state_of_the_device(ctl, online):
    online.controller.wait_message(404)
    done = ctl("state")
    assert (done.returncode, done.stdout) == (0, (
        "status shown:  Connected to cloud.orvanta.example\nconnection:    number 1, registered\n"
        "connections:   1\nagent:         running, starts: 1\n"))


def test_without_a_device_there_is_no_answer(bare):
    done = run(*HERE, "locate")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == "failed: the device is not connected\n"
    done = run(*HERE, "state")
    assert done.returncode == 1
    assert "connection:    none\n" in done.stdout and "agent:         down" in done.stdout


def test_complaints_of_the_device_are_failures(ctl):
    def fails(text, number, complaint):
        done = ctl("send", text, "--unchecked")
        assert (done.returncode, done.stderr) == (1, f"failed: {complaint}\n"), done.stdout
        assert f"<--- {number} " in done.stdout
    fails('{"msgType": 117, "waitTime": 600}', 717, "BadRequest: Invalid deltaTime received")
    fails('{"msgType": 697, "Orvanta": {"status": 5}}', 999, "BadRequest: Invalid status received")
    fails('{"foo": 1}', 999, "BadRequest: Not able to find msgType in the json request")
    fails('{"msgType": 106, "config": 5}', 706,
          "BadRequest: Invalid Config Attribute in json request from Orvanta")


def test_send_waits_for_what_belongs_to_the_message(ctl):
    done = ctl("send", '{"msgType": 115}')
    assert done.returncode == 0 and "<--- 415 " in done.stdout
    done = ctl("send", "-", input='{"msgType": 106, "nativeConfig": "x"}\n')
    assert done.returncode == 0, done.stderr
    assert done.stdout.endswith("done: not answered; the device has dealt with it\n")
    done = ctl("send", '{"msgType": 116}')
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith("failed: to-agent 116: ") and "unknown type" in done.stderr
    assert ctl("send", '{"msgType": 116}', "--unchecked").returncode == 0


def test_a_configuration_is_pushed_as_an_object(ctl, online, tmp_path):
    file, native = tmp_path / "object.json", tmp_path / "native"
    file.write_text('{"system": {"hostname": "hall-3"}}', encoding="utf-8")
    native.write_text("set radio0 power 10\n", encoding="utf-8")
    done = ctl("config", "push", str(file), "--native", str(native))
    assert done.returncode == 0, done.stderr
    assert [line.split('"status": ')[1].split(",")[0] for line in done.stdout.splitlines()[1:-1]
            ] == ['"Initiated"', '"InProgress"', '"Complete"']
    assert done.stdout.endswith("done: Configuration applied successfully\n")
    assert online.scmd.running()["system"]["hostname"] == "hall-3"
    assert online.scmd.messages()[-1]["config"] == "set radio0 power 10\n"
    file.write_text('{"system": {"colour": "red"}}', encoding="utf-8")
    done = ctl("config", "push", "--object", str(file))
    assert done.returncode == 1
    assert done.stderr.startswith("failed: BadRequest: ") and "<--- 706 " in done.stdout


def test_a_pulled_configuration_can_be_pushed_again(ctl, online, tmp_path):
    file = tmp_path / "config.txt"
    online.reboot_on_request = False
    done = ctl("config", "pull", str(file))
    assert done.returncode == 0, done.stderr
    config = online.device.read_text("/mnt/flash/config/config.txt")
    assert MANAGEMENT in config and file.read_text(encoding="utf-8") == config
    assert ctl("config", "pull").stdout == config
    done = ctl("config", "push", "-", input="set system hostname hall-4\n")
    assert done.returncode == 0 and '"config": "set system hostname hall-4' in done.stdout
    assert "set system hostname hall-4\n" in ctl("config", "pull").stdout
    done = ctl("config", "push", str(file), "--overwrite")
    assert done.returncode == 0
    assert done.stdout.endswith("done: Rebooting device to apply new configuration\n")
    online.journal.wait("reboot-requested")
    assert online.device.read_text("/mnt/flash/config/config.txt") == config
    online.device.unlink("/mnt/flash/config/config.txt")
    online.wait_registered()
    done = ctl("config", "pull", str(tmp_path / "none"))
    assert (done.returncode, done.stderr.splitlines()[-1]) == (
        1, "failed: BadRequest: ERR_BAD_REQUEST")
    assert not (tmp_path / "none").exists()


def test_a_program_of_the_device_raises_an_event_and_logs(ctl, online):
    done = ctl("event", "the door was opened")
    assert (done.returncode, done.stdout) == (
        0, "done: the controller got 19 bytes: the door was opened\n")
    assert online.controller.wait_trap() == b"the door was opened"
    done = ctl("log", "hostapd: up")
    assert (done.returncode, done.stdout) == (
        0, "done: the line is among the device's last ones\n")


def test_without_an_agent_no_event_is_taken(bare):
    assert run(*HERE, "event", "x").returncode == 1
    done = run(*HERE, "log", "x")
    assert (done.returncode, done.stderr) == (
        1, "failed: the agent does not take log lines: No such file or directory\n")


def test_the_clock_is_offered_at_the_next_registration(ctl, online):
    done = ctl("clock", "2026-01-02 03:04:05")
    assert done.returncode == 0, done.stdout + done.stderr
    assert '<--- 100 register: ' in done.stdout and '"orvTime": 1767323045' in done.stdout
    assert done.stdout.endswith("done: the device set its clock: date 2026.01.02-03:04:05\n")
    assert online.device.records("date")[-1] == ["2026.01.02-03:04:05"]
    assert len(online.controller.connections) == 2
    sent = [event["text"] for event in online.journal.events("to-agent")]
    assert sent.count('{"msgType": 108}') == 1 and " 408 " not in done.stdout
    calls = len(online.device.records("date"))
    done = ctl("clock", "0")
    assert done.returncode == 0 and len(online.device.records("date")) == calls
    done = ctl("config", "push", "-", input='{"system": {"ntpServer": "10.77.0.1"}}')
    assert done.returncode == 0, done.stderr
    done = ctl("clock", "1767323045")
    assert (done.returncode, done.stderr) == (
        1, "failed: the device kept its own clock (it does while it has an NTP server)\n")


def test_a_reboot_with_its_reason(ctl, online):
    done = ctl("reboot", "--reason", "MAINTENANCE", "--delay", "1", "--force")
    assert (done.returncode, untimed(done.stdout)) == (0, (
        '---> 102 reboot-cmd: {"msgType": 102, "reason": "MAINTENANCE", "delay": 1, "force": true}\n'
        '<--- 402 reboot-accepted: {"msgType": 402}\ndone: the device is going to reboot\n'))
    online.journal.wait("rebooted")
    assert online.device.records("shutdown.sh") == [["MAINTENANCE"]]


def test_watching_shows_both_ways_and_what_happens(ctl, online):
    listeners = len(online.journal._listeners)
    watching = begin("watch", "--count", "4")
    until(online, lambda: len(online.journal._listeners) > listeners, "the client to listen")
    assert ctl("locate").returncode == 0
    online.controller.kill()
    online.wait_registered()
    said = untimed(watching.communicate(timeout=30)[0])
    assert watching.returncode == 0
    assert re.fullmatch(
        r'---> 115 .*\n<--- 415 .*\n\* connection 1 ended without a word\n'
        r'\* connection 2 opened\n<--- 100 .*\n---> 400 .*\ndone: 4 messages\n', said), said
    done = ctl("--timeout", "0.2", "watch", "--count", "9")
    assert (done.returncode, done.stderr) == (1, "failed: 0 messages within 0.2 s\n")


def test_a_silent_device_is_not_waited_for_for_ever(ctl, online):
    online.supervisor.send_signal(signal.SIGSTOP)
    done = ctl("locate", "--timeout", "0.5")
    assert (done.returncode, done.stderr) == (1, "failed: no answer within 0.5 s\n")
    asking = begin("locate")
    assert "---> 115" in asking.stdout.readline()
    online.controller.kill()
    assert "failed: the device closed the connection before it answered\n" in asking.stdout.read()
    assert asking.wait() == 1
    online.supervisor.send_signal(signal.SIGCONT)


def test_two_clients_take_turns(ctl, online):
    online.supervisor.send_signal(signal.SIGSTOP)
    first = begin("info")
    assert "---> 123" in first.stdout.readline()
    second = begin("info")
    assert second.stdout.readline() == "(waiting for another command to end)\n"
    online.supervisor.send_signal(signal.SIGCONT)
    for client in (first, second):
        assert client.stdout.read().count("<--- 423 ") == 1
        assert client.wait() == 0
    first, second = begin("config", "pull"), begin("config", "pull")
    said = [client.communicate(timeout=30)[0] for client in (first, second)]
    assert all(MANAGEMENT in text and "done: 13 lines" in text for text in said), said


def test_what_belongs_to_others_is_passed_over(ctl, online):
    online.controller.kill()
    online.log.wait("DA_STATE_DISCONNECTED")
    online.wait_registered()
    online.supervisor.send_signal(signal.SIGSTOP)
    online.controller.send({"msgType": 115})  # answered before what the client is going to send
    asking = begin("send", '{"msgType": 117, "waitTime": 1}', "--unchecked")
    assert "---> 117" in asking.stdout.readline()
    online.journal.note("disconnected", connection=online.controller.connections[0], code=None,
                        reason=None)  # heard of late
    online.supervisor.send_signal(signal.SIGCONT)
    said = untimed(asking.stdout.read())
    assert re.fullmatch(r"<--- 717 .*\nfailed: BadRequest: Invalid deltaTime received\n", said), said
    assert asking.wait() == 1


def test_a_client_that_goes_lets_the_next_one_in(ctl, online):
    online.supervisor.send_signal(signal.SIGSTOP)
    first = begin("locate")
    assert "---> 115" in first.stdout.readline()
    first.send_signal(signal.SIGINT)
    assert first.wait(10) == 130
    first.stdout.close()
    second = begin("info")
    assert "---> 123" in second.stdout.readline(), "and not that it waits"
    online.supervisor.send_signal(signal.SIGCONT)
    assert "<--- 423" in second.stdout.read()
    assert second.wait() == 0


def test_the_lab_ends_under_a_client(online):
    listeners = len(online.journal._listeners)
    with CtlServer(online):
        watching = begin("watch")
        until(online, lambda: len(online.journal._listeners) > listeners, "the client to listen")
    assert watching.communicate(timeout=10)[0] == "ctl: the lab ended before it answered\n"
    assert watching.returncode == 1
    assert not (online.device.folder / "ctl.sock").exists()
    done = run(*HERE, "state")
    assert done.returncode == 1 and "ctl: " in done.stderr


def test_the_socket_is_roots_alone(bare):
    (place,) = bare.device.folder.glob("ctl.sock")
    assert place.stat().st_mode & 0o777 == 0o600
    assert bare.device.folder.stat().st_mode & 0o777 == 0o700


def test_a_command_is_looked_at_before_it_is_carried_out(bare):
    def ask(line):
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(bare.device.folder / "ctl.sock"))
            client.sendall(line + b"\n")
            return json.loads(client.makefile().readline())
    for line in (b"x", b"[]", b"{}", b'{"command": "no"}',
                 b'{"command": "locate", "arguments": {"x": 1}}',
                 b'{"command": "status", "arguments": {}}'):
        answer = ask(line)
        assert (answer["kind"], answer["outcome"]) == ("end", "refused"), line
