"""Timers of a connection that is lost: none of them may hurt the next one."""

import signal

from expect import fence

from lab import rawpeer
from lab.controller import Silence
from lab.onboarding import redirect

SPEED = 40
CLOCK = f"+0 x{SPEED}"


def stays(lab, number, cycles):
    """Asserts that the agent's connection of this number lives on for so many pings, with one
    REGISTER on it."""
    connection = lab.controller.current
    assert connection.number == number
    seen = 0
    while seen < cycles:
        seen += lab.controller.wait_ping()["connection"] is connection
        assert connection.open
    fence(lab)
    assert lab.controller.current is connection
    registers = [e for e in lab.journal.events("from-agent")
                 if e["connection"] is connection and e["message"]["msgType"] == 100]
    assert len(registers) == 1


def test_the_forced_clean_up_does_not_reach_the_next_connection(start):
    lab = start(faketime=CLOCK)
    lab.controller.answer_pings = False
    lab.wait_registered()
    lab.log.wait("Missed 5 consecutive PONGS, disconnecting with server", timeout=30)
    closed = lab.controller.wait_closed()
    assert closed.close_reason == "DEV_PING_TIMEOUT"
    lab.controller.answer_pings = True
    lab.wait_registered()  # a few seconds after the close frame
    stays(lab, 2, cycles=3)  # beyond the 35 seconds of the clean-up
    lines = [event["message"] for event in lab.journal.events("log")]
    assert not any("Websocket not closed destroying" in line for line in lines)


def test_the_wait_for_an_answer_to_register_ends_with_its_connection(start):
    lab = start(faketime=CLOCK)
    lab.controller.next_answers = [Silence()]
    lab.controller.wait_message(100, timeout=30)
    lab.controller.kill()
    lab.wait_registered()
    stays(lab, 2, cycles=5)  # 75 seconds and more: the wait would have ended after 62


def test_a_wait_for_reconnect_ends_with_a_forced_rediscovery(start):
    lab = start(faketime=CLOCK)
    lab.controller.refuse_upgrades = [503]
    waiting = lab.log.wait("max_reconnect_attempts  0")
    lab.onboarding.stop()
    lab.supervisor.send_signal(signal.SIGUSR1)
    for _ in range(3):  # one each minute: the wait would have ended after 79 seconds
        alive = lab.log.wait("Kicking the DA watchdog", since=waiting.index)
    entries = [e for e in lab.journal.events("log", since=waiting.index)
               if "da_enter_state:DA_STATE_CONNECTING" in e["message"] and e.index < alive.index]
    assert not entries, "nothing is connected to before it has been discovered anew"
    lab.onboarding.start()
    lab.wait_registered()
    stays(lab, 1, cycles=1)


def test_the_connect_time_out_ends_with_its_attempt(start):
    lab = start(faketime=CLOCK)
    lab.onboarding.reply = redirect(rawpeer.URL)
    lab.rawpeer.next_upgrades = [30 / SPEED]  # half a minute before the answer
    lab.wait_registered()
    lab.rawpeer.wait_connected()
    lab.rawpeer.close_raw()  # the next attempt comes before the minute is over
    lab.rawpeer.wait_connected()
    lab.wait_registered()
    for _ in range(3):
        lab.rawpeer.wait_frame(rawpeer.PING)
    assert len(lab.journal.events("raw-ended")) == 1
    lines = [event["message"] for event in lab.journal.events("log")]
    assert not any("already running, cleaning" in line for line in lines)
