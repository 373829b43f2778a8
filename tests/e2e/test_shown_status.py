"""What the device shows of a long outage, text by text, and what it tells the Wi-Fi daemon."""

from configs import OBJECT_STEPS, expect_steps, push
from expect import CLOUD, FASTER, STATIC_URL, board, log_time, until

from lab import names, network
from lab.onboarding import not_found

PENDING = "Device Approval Pending"
DAY = 24 * 3600
RETRY = "Attempting (re)connection in "


def accepted(start, **more):
    """A device whose controller says no more than that it is accepted."""
    lab = start(**more)
    lab.controller.on_register.follow_ups = []
    lab.wait_registered()
    lab.shown.wait(PENDING)
    return lab


def told(lab):
    """What the Wi-Fi daemon was told: 1 connected, 0 not."""
    return [event["payload"]["status"] for event in lab.wifid.messages(2)]


def gaps(events):
    """The seconds of the agent's clock between these log lines."""
    times = [log_time(event) for event in events]
    return [(later - earlier).total_seconds() for earlier, later in zip(times, times[1:])]


def lines(lab, text):
    """The log lines with this text."""
    return [event for event in lab.journal.events("log") if text in event["message"]]


def link(lab, up):
    """Takes the device's interface down with its routes, as a lost lease does, or brings it back."""
    lab.device.run(["ip", "link", "set", "eth0", "up" if up else "down"], check=True)
    if up:
        lab.device.run(["ip", "route", "add", "default", "via", network.WORLD_ADDRESS], check=True)


def test_a_day_without_a_network(start):
    lab = accepted(start, speed=20)
    link(lab, up=False)
    lost = lab.log.wait("Not received PONG for the last ping (1)", timeout=30)
    lab.supervisor.run_at(3600)
    until(lab, lambda: sum(gaps([lost, lines(lab, RETRY)[-1]])) > DAY, "a day", timeout=50)
    lab.supervisor.run_at(20)
    link(lab, up=True)
    lab.shown.wait("Connecting")
    lab.shown.wait("Connecting")
    lab.supervisor.run_at(60)
    lab.wait_registered()
    lab.shown.wait(PENDING)
    assert lab.shown.texts() == ["Connecting", PENDING, "Connecting", "Resolving URL", "Connecting",
                                 PENDING]
    attempts = lines(lab, f"{RETRY}5 minutes")
    chosen = [int(event["message"].split()[-2]) for event in lines(lab, "(re-discover in ")]
    quick = [seconds for seconds in chosen if 60 <= seconds < 80]  # in the first 900 s
    slow = [seconds for seconds in chosen if 300 <= seconds < 360]
    assert chosen == quick + slow and len(quick) <= 900 // 60
    assert min(gaps(attempts)) >= 300
    assert len(attempts) > DAY / 360 / 2, "the machine's own slowness counts 3600 times"
    assert told(lab) == [0, 0, 0]
    assert lab.supervisor.starts == 1


def test_a_controller_that_refuses_is_counted_down_to(start):
    lab = start(faketime="+0 x60")
    lab.controller.on_register.follow_ups = []
    lab.controller.refuse_upgrades = [503] * 4
    lab.wait_registered()
    lab.shown.wait(PENDING)
    assert lab.shown.texts() == [
        "Connecting", "Connecting in 5 minutes", "Connecting in 4 minutes",
        "Connecting in 3 minutes", "Connecting in 2 minutes", "Connecting", PENDING]
    since = lab.log.wait("Attempting (re)connection in 5 minutes").index
    shown = [event for event in lines(lab, "New Connection_state Connecting(4)")
             if event.index >= since][:5]
    assert all(60 <= gap <= 63 for gap in gaps(shown)), gaps(shown)
    assert told(lab) == [0, 0]


def shown_connected(lab, host):
    """Waits until the device is accepted; it shows this host as soon as it is given work."""
    lab.wait_registered()
    lab.shown.wait(PENDING)
    push(lab, config={"radios": {"radio0": {"channel": 44}}})
    lab.shown.wait(f"Connected to {host}")
    expect_steps(lab, *OBJECT_STEPS)


def test_connected_names_the_host_that_was_asked(lab, start):
    """The name that an operator knows, not the one that the redirect leads to."""
    lab.names.add("onprem.example")
    start()
    lab.controller.on_register.follow_ups = []
    shown_connected(lab, CLOUD)
    lab.controller.kill()
    shown_connected(lab, CLOUD)
    lab.device.write_text(STATIC_URL, "https://onprem.example:443/any")
    shown_connected(lab, "onprem.example")
    assert told(lab) == [0, 0, 1, 0, 1, 0, 1]
    connected = f"Connected to {CLOUD}"
    assert lab.shown.texts() == ["Connecting", PENDING, connected, "Connecting", PENDING, connected,
                                 "Connecting", PENDING, "Connected to onprem.example"]


def test_each_way_in_which_the_onboarding_fails(lab, start):
    board(lab, serialNumber=None)
    lab.onboarding.next_replies = [not_found()]
    lab.controller.on_register.follow_ups = []
    start(faketime=FASTER)
    lab.shown.wait("Velmora-ID Not Configured")
    lab.device.write_text("/mnt/flash/config/velmora_id", "abc:def")
    lab.shown.wait("Unknown device")
    lab.names.remove(names.CLOUD_HOST)
    lab.shown.wait("Resolving URL")
    lab.onboarding.stop()
    lab.names.add(names.CLOUD_HOST)
    lab.shown.wait("Connecting in 1 minute", timeout=60)
    lab.onboarding.start()
    lab.wait_registered()
    lab.shown.wait(PENDING)
    assert told(lab) == [0, 0]
    texts = lab.shown.texts()
    passing = ("Connecting", "Connecting in 1 minute")  # a refused connection takes no time
    texts = [text for text, following in zip(texts, [*texts[1:], ""])
             if (text, following) != passing]
    assert texts == ["Connecting", "Velmora-ID Not Configured", "Connecting", "Unknown device",
                     "Resolving URL", "Connecting in 1 minute", "Connecting", PENDING]
