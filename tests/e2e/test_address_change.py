"""The controller's address changes on a running device: the agent follows, from every state."""

import asyncio

import pytest
from expect import (CLOUD, CONTROLLER, DEVICE_ID, FASTER, STATIC_URL, fence, onboarding_request,
                    seconds_between)

from lab import network
from lab.controller import Silence
from lab.onboarding import Reply, redirect

DHCP_43 = "/tmp/orv_dhcp_43_url"
DHCP_15 = "/tmp/orv_dhcp_15_domain"
ONPREM = "onprem.example"
ALIVE = "da_alive_cb: Kicking the DA watchdog"


@pytest.fixture(autouse=True)
def known_hosts(lab):
    """The hosts that the files of these tests name."""
    for name in (ONPREM, "second.example", "orvanta.branch.example", "orvanta.other.example"):
        lab.names.add(name)


def asked_hosts(lab):
    """The hosts at which the onboarding was asked so far."""
    return [line.split(":")[1] for text in lab.onboarding.requests()
            for line in text.splitlines() if line.startswith("HOST:")]


def changed(lab, source, text):
    """Waits until the agent has decided to follow a change."""
    return lab.log.wait(f"address_watch: {source} changed to [{text}], "
                        "looking for the controller anew", timeout=60)


def moved(lab, noticed, hosts):
    """After the notice the agent said goodbye, asked the last of these hosts and registered."""
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_CFG_UPDATE")
    lost = lab.log.wait("LWS_CALLBACK_CLOSED", since=noticed.index)
    lab.log.wait("MSG_REGISTER_SUCCESS received", since=lost.index)
    assert lab.controller.current.number == closed.number + 1
    fence(lab)
    assert asked_hosts(lab) == hosts
    assert lab.supervisor.starts == 1


def a_minute_passes(lab):
    """On the agent's clock: long enough for whatever it would do about a change."""
    for _ in range(2):
        lab.log.wait(ALIVE, since=lab.journal.position)


def nothing_happens(lab):
    """A minute later nothing has been found to do."""
    a_minute_passes(lab)
    assert "looking for the controller anew" not in "\n".join(lab.log.lines())


def test_a_static_url_is_written(online):
    lab = online
    lab.device.write_text(STATIC_URL, f"https://{ONPREM}\n")
    noticed = changed(lab, "static URL", f"https://{ONPREM}")
    moved(lab, noticed, [CLOUD, ONPREM])
    again = lab.log.wait("LWS_CALLBACK_CLIENT_ESTABLISHED", since=noticed.index)
    assert seconds_between(noticed, again) <= 20
    assert lab.onboarding.requests()[-1] == onboarding_request(ONPREM, cookie=DEVICE_ID)
    a_minute_passes(lab)
    assert len(lab.controller.connections) == 2


def test_the_same_text_is_written_again(lab, start):
    lab.device.write_text(STATIC_URL, f"https://{ONPREM}\n")
    lab.device.write_text(DHCP_15, "branch.example")
    start()
    lab.wait_registered()
    lab.device.write_text(STATIC_URL, f"https://{ONPREM}")
    lab.device.write_text(STATIC_URL, f"https://{ONPREM}\n")
    lab.device.run(["sh", "-c", f"cp {STATIC_URL} /mnt/flash/config/new && "
                                f"mv /mnt/flash/config/new {STATIC_URL}"], check=True)
    nothing_happens(lab)
    assert len(lab.controller.connections) == 1


def test_a_source_behind_the_one_in_force_changes(lab, start):
    lab.device.write_text(STATIC_URL, ONPREM)
    start()
    lab.wait_registered()
    lab.device.write_text(DHCP_43, "second.example")
    lab.log.wait("address_watch: DHCP option 43 changed to [second.example], nothing to do")
    nothing_happens(lab)
    assert asked_hosts(lab) == [ONPREM]


def test_two_changes_at_once_are_one_move(online):
    lab = online
    lab.device.write_text(STATIC_URL, "second.example")
    lab.device.write_text(STATIC_URL, ONPREM)
    moved(lab, changed(lab, "static URL", ONPREM), [CLOUD, ONPREM])
    a_minute_passes(lab)
    assert asked_hosts(lab) == [CLOUD, ONPREM]


def test_the_static_url_is_removed(lab, start):
    lab.device.write_text(STATIC_URL, ONPREM)
    start()
    lab.wait_registered()
    lab.device.unlink(STATIC_URL)
    moved(lab, changed(lab, "static URL", ""), [ONPREM, CLOUD])


def test_the_domain_changes(lab, start):
    lab.device.write_text(DHCP_15, "branch.example\n")
    start()
    lab.wait_registered()
    lab.device.write_text(DHCP_15, "other.example\n")
    moved(lab, changed(lab, "DHCP option 15", "other.example"), ["orvanta.branch.example", "orvanta.other.example"])


def test_option_43_arrives_for_a_device_in_the_cloud(online):
    online.device.write_text(DHCP_43, f"https://{ONPREM}")
    moved(online, changed(online, "DHCP option 43", f"https://{ONPREM}"), [CLOUD, ONPREM])


def test_while_waiting_to_discover_again(lab, start):
    lab.onboarding.stop()
    start(faketime=FASTER)
    lab.log.wait("Unable to discover Orvanta URL (re-discover in")
    lab.onboarding.start()
    lab.device.write_text(STATIC_URL, ONPREM)
    noticed = changed(lab, "static URL", ONPREM)
    begun = lab.log.wait("da_enter_state:DA_STATE_DISCOVERY", since=noticed.index)
    assert seconds_between(noticed, begun) <= 9, "not the minute that it was waiting"
    lab.wait_registered()
    assert asked_hosts(lab) == [ONPREM]


def test_while_discovering(lab, start):
    lab.onboarding.next_replies = [Reply(delay=0.5)]
    start()
    lab.onboarding.wait_request()
    lab.device.write_text(STATIC_URL, ONPREM)
    moved(lab, changed(lab, "static URL", ONPREM), [CLOUD, ONPREM])


def test_while_connecting_to_a_silent_server(lab, start):
    async def swallow(reader, _writer):
        await reader.read()

    async def listen():
        return await asyncio.start_server(swallow, network.WORLD_ADDRESS, 8446)

    lab.onboarding.next_replies = [redirect(f"https://{CONTROLLER}:8446/ws")]
    server = lab.world.wait(listen())
    start(faketime=FASTER)
    lab.log.wait("Device-Agent Waiting for connect...")
    lab.device.write_text(STATIC_URL, ONPREM)
    noticed = changed(lab, "static URL", ONPREM)
    lab.wait_registered()
    asked = lab.log.wait("da_enter_state:DA_STATE_DISCOVERY", since=noticed.index)
    assert seconds_between(noticed, asked) <= 9, "not the minute that a silent server may take"
    lab.world.call(server.close)
    assert asked_hosts(lab) == [CLOUD, ONPREM]
    assert len(lab.controller.connections) == 1


def test_while_waiting_for_reconnect(lab, start):
    lab.controller.refuse_upgrades = [503]
    start(faketime=FASTER)
    lab.log.wait("max_reconnect_attempts")
    lab.device.write_text(STATIC_URL, ONPREM)
    noticed = changed(lab, "static URL", ONPREM)
    lab.wait_registered()
    asked = lab.log.wait("da_enter_state:DA_STATE_DISCOVERY", since=noticed.index)
    assert seconds_between(noticed, asked) <= 9, "not the minute that it was waiting"
    assert asked_hosts(lab) == [CLOUD, ONPREM]
    assert len(lab.controller.connections) == 1, "none to the old address"


def test_while_registering(lab, start):
    lab.controller.next_answers = [Silence()]
    start()
    lab.controller.wait_message(100, timeout=30)
    lab.device.write_text(STATIC_URL, ONPREM)
    noticed = changed(lab, "static URL", ONPREM)
    moved(lab, noticed, [CLOUD, ONPREM])
    sent = lab.log.wait("send_close_frame_to_orvanta: Sent CLOSE frame", since=noticed.index)
    assert seconds_between(noticed, sent) <= 1


def test_an_agent_that_stays_idle_does_not_care(lab, start):
    start("-d", "3", "-i")
    lab.log.wait(ALIVE)
    lab.device.write_text(STATIC_URL, ONPREM)
    nothing_happens(lab)
    assert not any("address_watch" in line for line in lab.log.lines())
    assert not lab.onboarding.requests()


def test_a_url_of_the_command_line_wins(lab, start):
    start("-d", "3", "-s", "https://second.example")
    lab.wait_registered()
    lab.device.write_text(STATIC_URL, ONPREM)
    lab.log.wait(f"address_watch: static URL changed to [{ONPREM}], nothing to do")
    nothing_happens(lab)
    assert asked_hosts(lab) == ["second.example"]
