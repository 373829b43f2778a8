"""Signals by the thousand, in every place where the agent waits: it stays alive and finds back."""

import asyncio
import signal
import time

import pytest
from expect import CLOUD, CONTROLLER, FASTER, fence, until
from vitals import children, descriptors

from lab import network, rawpeer
from lab.controller import Acceptance, Silence
from lab.onboarding import Reply, redirect

SIGNALS = 1000
"""In each place where it waits; with those of the test with messages, more than ten thousand."""
SILENT_PORT = 8446
NOWHERE = "10.77.0.77"
FEW = 16
"""More descriptors than a registered agent has; a leak at each signal would have hundreds."""


def storm(lab, count, numbers):
    """Sends so many signals, in turn, quickly but not so that they all fall together."""
    pid = lab.supervisor.pid
    for turn in range(count):
        lab.supervisor.send_signal(numbers[turn % len(numbers)])
        time.sleep(0.0005)
    assert lab.supervisor.pid == pid


def attempts(lab):
    """How often the agent has begun to wait for its next attempt; it says so at every log level."""
    return lab.device.read_text("/var/log/device-agent.log").count("Attempting (re)connection")


def finds_back(lab):
    """The agent, still the same, is registered: it answers on an open connection."""
    def answers():
        try:
            fence(lab)
        except AssertionError:  # not connected, or the connection that was asked has just gone
            return False
        return True

    lab.controller.on_register = Acceptance()
    until(lab, answers, "an answer", timeout=40)
    assert lab.supervisor.starts == 1 and lab.supervisor.exit_statuses == []
    assert len(descriptors(lab)) < FEW, descriptors(lab)
    until(lab, lambda: not children(lab), "the end of the children")


# -- the places; each returns what lets it go on ----------------------------------------------------

def in_idle(lab):
    """Before a discovery."""
    lab.log.wait("started discover timer")
    return lambda: None


def in_the_name_lookup(lab):
    """The name service does not answer: six seconds that the agent's clock does not shorten."""
    lab.names.leave_unanswered(CLOUD)
    lab.log.wait(f"discover_orv: method 4 orv_url [{CLOUD}]")
    return lambda: lab.names.add(CLOUD)


def in_the_connect(lab):
    """Nobody lives at the address that the name service tells."""
    lab.names.add(CLOUD, NOWHERE)
    lab.log.wait("EINPROGRESS in connect()")
    return lambda: lab.names.add(CLOUD)


def in_the_onboarding(lab):
    """The service hears the request and says nothing."""
    lab.onboarding.reply = Reply(silent=True)
    lab.onboarding.wait_request()
    return lambda: setattr(lab.onboarding, "reply", Reply())


def in_the_handshake(lab):
    """A websocket server takes the connection and says nothing."""
    async def swallow(reader, _writer):
        await reader.read()

    async def listen():
        return await asyncio.start_server(swallow, network.WORLD_ADDRESS, SILENT_PORT)

    lab.onboarding.reply = redirect(f"https://{CONTROLLER}:{SILENT_PORT}/ws")
    server = lab.world.wait(listen())
    lab.log.wait("Device-Agent Waiting for connect")

    def go_away():
        lab.onboarding.reply = Reply()
        lab.world.call(server.close)
    return go_away


def before_a_reconnect(lab):
    """The upgrade was refused."""
    lab.controller.refuse_upgrades = [503] * 10000
    lab.log.wait("max_reconnect_attempts")
    return lab.controller.refuse_upgrades.clear


def without_the_parent(lab):
    """Connected, and no switch tells the parent MAC."""
    lab.switch.mode = "silent"
    lab.controller.wait_connected()
    return lambda: setattr(lab.switch, "mode", "marked")


def without_an_answer(lab):
    """REGISTER is out, the controller says nothing."""
    lab.controller.on_register = Silence()
    lab.controller.wait_message(100, timeout=30)
    return lambda: setattr(lab.controller, "on_register", Acceptance())


def before_the_closure(lab):
    """The agent's close frame is out, the controller does not answer it."""
    lab.rawpeer.answer_register = False
    lab.onboarding.reply = redirect(rawpeer.URL)
    lab.log.wait("No REGISTER response received, closing websocket", timeout=30)
    lab.rawpeer.wait_frame(rawpeer.CLOSE)
    return lambda: setattr(lab.onboarding, "reply", Reply())


def beside_a_child(lab):
    """The tool that sets the clock takes its time, by the agent's fast clock."""
    lab.device.write_text("/bin/date", "#!/bin/sh\necho began >/tmp/date\nsleep 20\n", 0o755)
    until(lab, lambda: lab.device.exists("/tmp/date"), "the tool to begin", timeout=30)
    assert children(lab) != []
    return lambda: lab.device.write_text("/bin/date", "#!/bin/sh\nexit 0\n", 0o755)


PLACES = [in_idle, in_the_name_lookup, in_the_connect, in_the_onboarding, in_the_handshake,
          before_a_reconnect, without_the_parent, without_an_answer, before_the_closure,
          beside_a_child]


@pytest.mark.parametrize("place", PLACES)
def test_signals_where_it_waits(start, place):
    lab = start(faketime="+0 x5" if place is in_the_connect else FASTER)  # it takes 15 seconds
    lab.controller.on_register.follow_ups = []
    go_on = place(lab)
    begun = attempts(lab)
    storm(lab, SIGNALS // 2, [signal.SIGHUP])
    if place is not before_the_closure:  # which may come at any time
        assert attempts(lab) == begun, "SIGHUP ends no wait"
    if place is in_the_name_lookup:
        struck = lab.device.read_text("/var/log/device-agent.log").count("sighandler invoked")
        assert struck == 0, "none strikes inside a library"
    storm(lab, SIGNALS // 2, [signal.SIGUSR1, signal.SIGHUP])
    go_on()
    lab.supervisor.send_signal(signal.SIGUSR1)
    finds_back(lab)


def test_signals_while_messages_flow(online):
    lab = online
    fence(lab)
    before = descriptors(lab)
    for _ in range(20):
        storm(lab, SIGNALS // 10, [signal.SIGHUP, signal.SIGUSR1, signal.SIGHUP])
        finds_back(lab)
        for _ in range(20):
            lab.controller.send({"msgType": 107})  # a late answer must not pass for the fence's
    finds_back(lab)
    assert descriptors(lab) == before
