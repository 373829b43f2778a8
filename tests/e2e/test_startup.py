"""The command line and the files of a start."""

import os
import signal
import stat

import pytest
from expect import CLOUD, board, fence, onboarding_request, until

HEARTBEAT = "/tmp/heartbeat_device-agent"
OF_THE_DEVICE = {"/mnt/flash/config/config.txt", "/mnt/flash/config/db.json", "/mnt/flash/boot",
                 "/mnt/flash/bank-a/version", "/mnt/flash/bank-b/version"}
USAGE = "Usage: device-agent [-d <log level>] [-h]"


def files(lab):
    """Every file that a start could touch and that the device does not bring."""
    found = lab.device.run(["find", "/tmp", "/mnt/flash", "/var/log", "/var/tmp", "-xdev",
                            "-type", "f"])  # the repository may be mounted below "/tmp"
    return set(found.stdout.split()) - OF_THE_DEVICE


def test_version(lab, binary):
    done = lab.device.run([str(binary), "-v"])
    assert (done.stdout, done.returncode) == ("2.78\n", 0)
    assert files(lab) == set()


@pytest.mark.parametrize("options", [["-h"], ["-x"], ["-d", "3", "-h"], ["-d"]])
def test_usage(lab, binary, options):
    done = lab.device.run([str(binary), *options])
    assert done.returncode == 0
    assert done.stdout.count(USAGE) == 1
    assert files(lab) == {"/var/log/device-agent.log"}
    log = lab.device.read_text("/var/log/device-agent.log")
    assert log.endswith(f":{USAGE}\n") and log.count("\n") == 1


def test_the_files_of_a_first_start(start):
    lab = start()
    lab.log.wait("Previous state 0 new state 0")
    until(lab, lambda: lab.device.exists(HEARTBEAT), "the heartbeat file")
    assert lab.device.read_text("/tmp/restarts") == "1"
    assert lab.device.read_text("/mnt/flash/config/DA_VERSION") == "2.78"
    assert lab.device.read_text("/mnt/flash/config/confver") == "1"
    status = lab.device.stat(HEARTBEAT)
    assert stat.S_IMODE(status.st_mode) == 0o600 and status.st_size == 0
    lab.log.wait("Device-agent started (0)")
    lab.log.wait("AccountId unavailable")


def test_started_without_standard_descriptors(lab, binary):
    """Their numbers must not go to a socket or to the log."""
    agent = lab.device.popen(["sh", "-c", f"exec {binary} -d 3 -i <&- >&- 2>&-"])
    try:
        lab.log.wait("Device-agent started (0)")
        assert [os.readlink(f"/proc/{agent.pid}/fd/{fd}") for fd in range(3)] == ["/dev/null"] * 3
        log = lab.device.read_text("/var/log/device-agent.log")
        assert log.count("Device-agent started (0)") == 1
    finally:
        agent.kill()
        agent.wait()


def test_a_pipe_in_the_place_of_the_restart_count(lab, start):
    """Anybody can lay one into "/tmp"; the start must not wait for its writer."""
    lab.device.run(["mkfifo", "/tmp/restarts"], check=True)
    start()
    lab.log.wait("Device-agent started (0)")
    lab.wait_registered()
    assert lab.device.read_text("/tmp/restarts") == "1"


def test_the_status_shown_on_the_way(start):
    lab = start(faketime="")
    lab.log.wait("New Connection_state Not Connected(0)")
    lab.log.wait("New Connection_state Connecting(4)")
    until(lab, lambda: lab.status() == "Connecting", "the status")
    lab.wifid.wait_state(0)


def test_the_heartbeat_goes_on(start):
    lab = start("-d", "3", "-i", faketime="+0 x60")
    until(lab, lambda: lab.device.exists(HEARTBEAT), "the heartbeat file")
    for _ in range(2):
        lab.device.run(["touch", "-d", "2000-01-01", HEARTBEAT], check=True)
        old = lab.device.stat(HEARTBEAT).st_mtime
        # Under a sped-up clock the library sets a wrong time for "now": only the touch shows.
        until(lab, lambda: lab.device.stat(HEARTBEAT).st_mtime != old, "a fresh heartbeat")
    lab.log.wait("da_alive_cb: Kicking the DA watchdog")


def test_every_start_is_counted(start):
    lab = start("-d", "3", "-i", faketime="")
    for count in (1, 2, 3):
        lab.log.wait(f"Device-agent started ({count - 1})")
        until(lab, lambda: lab.device.exists(HEARTBEAT), "the end of start-up")
        assert lab.device.read_text("/tmp/restarts") == str(count)
        lab.device.unlink(HEARTBEAT)
        lab.supervisor.send_signal(15)
        assert lab.supervisor.wait_ended()["status"] == 0


def test_staying_idle(start):
    lab = start("-d", "3", "-i", faketime="+0 x60")
    for _ in range(2):
        lab.log.wait("da_alive_cb: Kicking the DA watchdog")
    assert "DA_STATE_IDLE" not in lab.log.tail(1000)
    assert lab.status() == "Not Connected"
    assert not lab.onboarding.requests()


@pytest.mark.parametrize("level, shown, hidden", [
    (0, "Attempting (re)connection", "DA_STATE_IDLE"),
    (2, "DA_STATE_IDLE", "Previous state"),
    (7, "Previous state", None)])
def test_the_log_level(start, level, shown, hidden):
    lab = start("-d", str(level))
    lab.controller.wait_message(100, timeout=30)
    fence(lab)
    lab.log.wait(shown)
    assert hidden is None or hidden not in lab.log.tail(1000)


def test_the_log_goes_to_standard_output_too(start):
    lab = start(faketime="", restart=False)
    lab.log.wait("started discover timer")
    lab.supervisor.stop()
    lab.log.wait("sighandler invoked")
    output = lab.supervisor.output().splitlines()
    assert all(line in output for line in lab.log.lines())


def test_a_static_url_of_the_command_line_wins(start):
    lab = start("-d", "3", "-s", "https://onprem.example")
    lab.device.write_text("/mnt/flash/config/orv_static_url", "https://other.example")
    lab.names.add("onprem.example")
    request = lab.onboarding.wait_request()
    assert request["text"] == onboarding_request("onprem.example")
    lab.wait_registered()


def test_a_board_without_facts_stops_nothing(lab, start):
    board(lab, sku=None, deviceModel=None, serialNumber=None, otherVersion=None)
    lab.device.write_text("/mnt/flash/config/velmora_id", "abc:def")
    start()
    request = lab.onboarding.wait_request()["text"]
    assert "type=Heron&velmoraId=abc:def HTTP/1.1" in request
    message = lab.controller.wait_message(100)
    assert (message["serialNo"], message["type"], message["hwVersion"]) == ("", "Heron", "0")
    assert CLOUD in request


def test_a_proxy_in_the_environment_is_not_used(start):
    lab = start(env={"https_proxy": "http://127.0.0.1:9", "http_proxy": "http://127.0.0.1:9",
                     "all_proxy": "http://127.0.0.1:9", "SSL_CERT_DIR": "/nowhere"})
    lab.wait_registered()


def test_the_agent_leaves_the_folder_it_was_started_in(start):
    lab = start(faketime="")
    lab.log.wait("started discover timer")
    assert os.readlink(f"/proc/{lab.supervisor.pid}/cwd") == "/"


def test_the_heartbeat_of_a_hung_agent_goes_stale(start):
    lab = start("-d", "3", "-i", faketime="+0 x60")
    lab.log.wait("da_alive_cb: Kicking the DA watchdog")
    lab.supervisor.send_signal(signal.SIGSTOP)
    lab.device.run(["touch", "-d", "2000-01-01", HEARTBEAT], check=True)
    old = lab.device.stat(HEARTBEAT).st_mtime
    lab.device.run(["sleep", "2.5"], check=True)  # two and a half minutes of the agent's clock
    assert lab.device.stat(HEARTBEAT).st_mtime == old
    lab.supervisor.send_signal(signal.SIGCONT)
    until(lab, lambda: lab.device.stat(HEARTBEAT).st_mtime != old, "a fresh heartbeat")
