"""Losing the controller in every way there is, and finding back."""

import asyncio

from expect import CONTROLLER, COOKIE, DEVICE_ID, FASTER, fence, onboarding_request, seconds_between

from lab import network
from lab.onboarding import redirect


def reconnected(lab, number=2):
    """Waits until the device is registered again, on its connection of this number."""
    lab.wait_registered()
    assert lab.controller.current.number == number
    fence(lab)


def test_the_controller_closes(online):
    lab = online
    lab.wifid.wait_state(0)
    lab.controller.close(1001, "maintenance")
    lab.log.wait("LWS_CALLBACK_CLOSED")
    lab.log.wait("DA_STATE_DISCONNECTED")
    lab.log.wait("Attempting (re)connection in 5 seconds")
    reconnected(lab)
    lab.log.wait("Connected to Orvanta (1)")


def test_the_connection_is_reset(online):
    lab = online
    lab.controller.kill()
    lab.log.wait("DA_STATE_DISCONNECTED")
    reconnected(lab)
    requests = lab.onboarding.requests()
    assert requests == [onboarding_request(), onboarding_request(cookie=DEVICE_ID)]


def test_the_controller_is_down_for_a_while(start):
    lab = start(faketime=FASTER)
    lab.wait_registered()
    lab.controller.stop()
    lab.log.wait("LWS_CALLBACK_CLIENT_CONNECTION_ERROR")
    waiting = lab.log.wait("max_reconnect_attempts")
    lab.controller.start()
    lab.log.wait("Previous state 2 new state 2")
    reconnected(lab)
    again = lab.log.wait("LWS_CALLBACK_CLIENT_ESTABLISHED", since=waiting.index)
    assert 60 <= seconds_between(waiting, again) <= 84
    assert len(lab.onboarding.requests()) == 2, "a reconnect goes to the address already found"


def test_the_fourth_failure_falls_back_to_discovery(start):
    lab = start(faketime="+0 x60")
    lab.controller.refuse_upgrades = [403, 404, 500, 503]
    lab.log.wait("Websocket rejected by server 403", timeout=30)
    for _ in range(3):
        lab.log.wait("max_reconnect_attempts")
    lab.log.wait("Attempting (re)connection in 5 minutes")
    lab.log.wait("Wait for 300 seconds before falling back to discovery")
    assert lab.status() == "Connecting in 5 minutes"
    assert len(lab.onboarding.requests()) == 1
    reconnected(lab, 1)
    assert len(lab.onboarding.requests()) == 2


def test_eleven_silent_servers_in_a_row_restart_the_agent(start):
    async def swallow(reader, _writer):
        await reader.read()

    async def listen():
        return await asyncio.start_server(swallow, network.WORLD_ADDRESS, 8446)

    lab = start(faketime="+0 x150")
    lab.onboarding.reply = redirect(f"https://{CONTROLLER}:8446/ws")
    server = lab.world.wait(listen())
    ended = lab.supervisor.wait_ended(timeout=60)
    lab.world.call(server.close)
    lab.onboarding.reply = redirect()
    assert ended["status"] == 1
    lab.log.wait("lws_connect_timeout_cb: Exhausted max websocket connect attempts(10), "
                 "restarting DA")
    assert len([e for e in lab.journal.events("log")
                if "Unable to connect websocket to Orvanta, trying again" in e["message"]]) == 10
    assert lab.supervisor.wait_started()["count"] == 1
    assert lab.supervisor.wait_started()["count"] == 2
    reconnected(lab, 1)
    assert lab.device.read_text("/tmp/restarts") == "2"


def test_the_cable_is_pulled_and_put_back(start):
    lab = start(faketime=FASTER)
    lab.wait_registered()
    lab.network.cut()
    lab.log.wait("Missed 5 consecutive PONGS, disconnecting with server")
    lab.log.wait("DA_STATE_DISCONNECTED")
    lab.network.restore()
    reconnected(lab)


def test_frames_vanish_without_a_sign(start):
    lab = start(faketime=FASTER)
    lab.wait_registered()
    lab.network.black_hole()
    lab.log.wait("Missed 5 consecutive PONGS, disconnecting with server")
    lab.log.wait("DA_STATE_DISCONNECTED")
    lab.network.restore()
    reconnected(lab)


def test_a_short_cut_is_survived_without_reconnecting(start):
    lab = start()
    lab.wait_registered()
    lab.network.cut()
    lab.log.wait("Not received PONG for the last ping (1)")
    lab.network.restore()
    lab.log.wait("Received Pong message from Orvanta")
    fence(lab)
    assert len(lab.controller.connections) == 1


def test_the_agent_is_killed(online):
    lab = online
    lab.supervisor.wait_started()
    session = lab.controller.wait_message(100)["sessId"]
    lab.supervisor.send_signal(9)
    assert lab.supervisor.wait_ended()["status"] == -9
    assert lab.supervisor.wait_started()["count"] == 2
    lab.log.wait("Device-agent started (1)")
    reconnected(lab)
    assert lab.controller.wait_message(100)["sessId"] == session
    assert lab.device.read_text("/tmp/restarts") == "2"


def test_the_device_reboots(online):
    lab = online
    session = lab.controller.wait_message(100)["sessId"]
    lab.reboot()
    assert lab.device.read_text(COOKIE) == DEVICE_ID
    reconnected(lab)
    assert lab.controller.wait_message(100)["sessId"] != session
    assert lab.device.read_text("/tmp/restarts") == "1"
    assert lab.onboarding.requests()[-1] == onboarding_request(cookie=DEVICE_ID)


def test_the_name_service_is_dead_for_a_while(start):
    lab = start()
    lab.controller.wait_connected()
    lab.names.remove(network_name := "cloud.orvanta.example")
    lab.wait_registered()
    lab.controller.kill()
    lab.log.wait("Not able to resolve")
    assert lab.status() == "Resolving URL"
    lab.log.wait("Unable to discover Orvanta URL (re-discover in")
    lab.names.add(network_name, network.WORLD_ADDRESS)
    reconnected(lab)
