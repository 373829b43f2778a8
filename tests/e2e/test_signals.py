"""SIGTERM, SIGUSR1 and SIGHUP."""

import signal
import time

from expect import DEVICE_ID, fence, onboarding_request, until


def deliver(lab, number, timeout=10.0):
    """Sends a signal and returns once the agent has taken it."""
    lab.supervisor.send_signal(number)
    deadline = time.monotonic() + timeout
    bit = 1 << (number - 1)
    while time.monotonic() < deadline:
        with open(f"/proc/{lab.supervisor.pid}/status", encoding="ascii") as status:
            pending = [int(line.split()[1], 16) for line in status if line[:6] in
                       ("SigPnd", "ShdPnd")]
        if not any(mask & bit for mask in pending):
            return
        time.sleep(0.01)
    raise AssertionError(f"signal {number} is still pending\n{lab.explain()}")


def test_sigterm_says_goodbye_and_ends_with_success(online):
    lab = online
    lab.supervisor.send_signal(signal.SIGTERM)
    assert lab.supervisor.wait_ended()["status"] == 0
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_CFG_UPDATE")
    stamp, reason = lab.device.read_text("/mnt/flash/.last_close_reason").split(":", 1)
    assert reason == "DEV_CFG_UPDATE" and stamp.isdigit()
    lab.log.wait("sighandler invoked, signal  15")
    lab.wait_registered()
    info = fence(lab)
    assert (info["lastCloseReason"], info["lastCloseTS"]) == ("DEV_CFG_UPDATE", int(stamp))


def test_sigterm_before_there_is_a_connection(start):
    lab = start(restart=False, faketime="")
    lab.log.wait("started discover timer")
    lab.supervisor.send_signal(signal.SIGTERM)
    assert lab.supervisor.wait_ended()["status"] == 0
    lab.log.wait("wsi is NULL, cannot send close frame")
    assert not lab.device.exists("/mnt/flash/.last_close_reason")
    assert not lab.controller.connections


def test_sigusr1_starts_a_fresh_discovery(online):
    lab = online
    lab.supervisor.send_signal(signal.SIGUSR1)
    lab.log.wait("sighandler invoked, signal  10")
    lab.log.wait("Previous state 3 new state 4")
    lab.log.wait("DA_STATE_DISCONNECTED")
    lab.controller.wait_closed()
    lab.wait_registered()
    assert lab.controller.current.number == 2
    assert lab.onboarding.requests()[-1] == onboarding_request(cookie=DEVICE_ID)
    assert lab.supervisor.starts == 1


def test_sigusr1_while_waiting_in_idle(start):
    lab = start()
    lab.log.wait("started discover timer")
    lab.supervisor.send_signal(signal.SIGUSR1)
    lab.log.wait("Previous state 0 new state 4")
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1


def test_sighup_cycles_the_log_level(start):
    lab = start("-d", "0", "-i", faketime="")
    until(lab, lambda: lab.device.exists("/tmp/heartbeat_device-agent"), "the end of start-up")
    for _ in range(6):
        deliver(lab, signal.SIGHUP)
    # Logged at level 1 before the level changes: 0 no, 1 yes, 2 yes, 3 yes, 0 no, 1 yes.
    for _ in range(4):
        lab.log.wait("sighandler invoked, signal  1")
    lab.supervisor.stop()
    lab.log.wait("sighandler invoked, signal  15")
    hups = [e for e in lab.journal.events("log") if e["message"].endswith("signal  1")]
    assert len(hups) == 4
