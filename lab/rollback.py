"""The story of a configuration that cuts a device off, and of its way back.

Its address is changed to one of a network that is not there. The device reboots into it, cannot
reach its controller for ten minutes, puts the configuration back that it had before, reboots and
is registered again.
"""

import datetime
import re
from pathlib import Path

from lab import commands, network
from lab.journal import Event
from lab.lab import STATUS_FILE, Lab
from lab.logfile import LINE
from lab.story import Narrator

CONTROLLER_URL = f"https://{network.WORLD_ADDRESS}"
"""Given to the device beforehand, as on premises: with a name to look up first, it would show that it
cannot resolve it, and not when it tries again."""
WRONG_ADDRESS = "10.78.0.2"
_SETTING = "set management address "
_RESTORE_SECONDS = range(600, 641)
"""Ten minutes; a busy machine adds some, and each of its seconds is many of the device's."""
_CONFIG = "/mnt/flash/config/config.txt"
_TRIED = "Unable to discover Orvanta URL"
_RESTORED = "Reverting to last known good configuration"
_CONNECTING = re.compile(r"Connecting in \d+ minutes?")


def prepare(lab: Lab) -> None:
    """Sets the scene, before the agent starts."""
    lab.device.write_text("/mnt/flash/config/orv_static_url", CONTROLLER_URL)


def tell(story: Narrator) -> None:
    """Tells it from the first registration to the last; raises `Failed` where it goes wrong."""
    before = _registered(story)
    rebooted = _pushed(story, before)
    restored = _ten_minutes(story, *_cut_off(story, rebooted))
    _back(story, before, restored)
    problems = story.lab.problems()
    story.check(not problems, "; ".join(problems))


def _address(story: Narrator) -> str:
    """The addresses that "eth0" of the device really has."""
    shown = story.lab.device.run(["ip", "-4", "-o", "address", "show", "dev", "eth0"]).stdout
    return " ".join(re.findall(r"inet (\S+)", shown))


def _stored(story: Narrator) -> str:
    """The stored configuration, read beside the device: it may be rebooting."""
    return (story.lab.device.folder / "flash" / Path(_CONFIG).relative_to("/mnt/flash")).read_text(
        encoding="utf-8")


def _registered(story: Narrator) -> str:
    """The device comes to its controller; returns its configuration."""
    event = story.logged("MSG_REGISTER_SUCCESS received", 0)
    address = _address(story)
    story.check(address.startswith(network.DEVICE_ADDRESS), f"the device's address is {address}")
    story.say(f"The device is registered at its controller ({CONTROLLER_URL}).\n"
              f"Its own address is {address}.", event)
    story.say("The operator reads its configuration ...   (./dev ctl config pull FILE)")
    config = story.command(commands.pull_config).data["config"]
    story.check(config == _stored(story), "the configuration that was read is not the stored one")
    return config


def _pushed(story: Narrator, before: str) -> int:
    """The slip; returns where in the journal the device has rebooted."""
    old = next(line for line in before.splitlines() if line.startswith(_SETTING))
    new = old.replace(network.DEVICE_ADDRESS, WRONG_ADDRESS)
    story.check(old != new, f"there is no {network.DEVICE_ADDRESS} in {old!r}")
    story.say("... changes one line of it, with a slip: there is no such network here,\n"
              f"- {old}\n+ {new}")
    since = story.lab.journal.position
    story.say("and sends it back as the whole new one.   (./dev ctl config push FILE --overwrite)")
    outcome = story.command(commands.push_config, config=before.replace(old, new), overwrite=True)
    story.check(outcome.data["status"] == "CompleteWithReboot", f"the update ended {outcome.data}")
    story.check([message["status"] for message in story.lab.controller.messages(406)]
                == ["InProgress", "CompleteWithReboot"], "the steps of the update")
    event = story.wait("disconnected", "the end of the connection", since)
    story.check(event["reason"] == "DEV_REBOOT", f"the close frame says {event['reason']}")
    story.say(f'The device says good-bye ("{event["reason"]}")', event)
    _reboots(story, since)
    address = _address(story)
    story.check(address.startswith(WRONG_ADDRESS), f"the device's address is {address}")
    story.aside(f"with the new configuration: its address is {address}.")
    return event.index


def _reboots(story: Narrator, since: int) -> None:
    event = story.wait("reboot-requested", "the device's reboot", since)
    reason = event["records"][-1]
    story.check(reason == ["SRV_CFG_UPD"], f"shutdown.sh was called with {reason}")
    event = story.wait("rebooting", "the device's reboot", event.index)
    story.say("and reboots, giving SRV_CFG_UPD as the reason.", event)
    event = story.wait("agent-started", "the agent's start", event.index)
    story.say("It is up again,", event)


def _cut_off(story: Narrator, since: int) -> tuple[Event, Event]:
    """Nothing reaches the controller; returns with what the ten minutes begin, and what was told
    last."""
    started = story.wait("agent-started", "the agent's start", since)
    armed = story.logged("Starting cfg_restore_timer", started.index)
    story.say("The agent finds that a new configuration has yet to prove itself:\n"
              "if it has not reached its controller in ten minutes, it will go back.", armed)
    event = story.logged(_TRIED, armed.index)
    story.say("It looks for its controller, in vain: the network is not its own any more.", event)
    shown = story.wait("status", "a status that tells when it tries again", armed.index,
                       lambda one: _CONNECTING.fullmatch(one["text"]) is not None)
    story.say(f'Who looks at the device ({STATUS_FILE}) reads "{shown["text"]}".', shown)
    story.check(story.lab.controller.newest is None, "the device is connected")
    return armed, shown


def _ten_minutes(story: Narrator, armed: Event, told: Event) -> Event:
    """Waits for the restore; returns its line in the log. Up to `told` all has been told."""
    story.aside("From now on nobody can reach it from afar: it has to help itself.")
    event, tries = armed, 0
    while True:
        event = story.wait("log", f"the agent's log line {_RESTORED!r}", event.index + 1,
                           lambda one: _TRIED in one["message"] or _RESTORED in one["message"])
        if _RESTORED in event["message"]:
            break
        tries += 1
        if tries > 1 and event.index > told.index:
            story.say("It tries again, in vain.", event)
    restored = event
    seconds = int((_clock(restored) - _clock(armed)).total_seconds())
    story.check(seconds in _RESTORE_SECONDS, f"the agent waited {seconds} s")
    story.say(f"Ten minutes are over ({seconds} s by the agent's clock), after {tries} attempts:\n"
              f'"{restored["message"].split(": ")[-1]}".', restored)
    return restored


def _clock(event: Event) -> datetime.datetime:
    """The agent's own clock as it wrote a log line."""
    return datetime.datetime.fromisoformat(LINE.match(event["line"])["time"])


def _back(story: Narrator, before: str, restored: Event) -> None:
    """The device is as it was."""
    story.until("the old configuration in its place", lambda: _stored(story) == before)
    story.say(f"The old configuration is in its place again ({_CONFIG}).")
    _reboots(story, restored.index)
    address = _address(story)
    story.check(address.startswith(network.DEVICE_ADDRESS), f"the device's address is {address}")
    story.aside(f"with the old configuration: its address is {address}.")
    event = story.logged("MSG_REGISTER_SUCCESS received", restored.index)
    story.say("The device is registered again.", event)
    story.say("The operator reads its configuration: it is the old one, to the letter.")
    after = story.command(commands.pull_config).data["config"]
    story.check(after == before, "the configuration that was read at the end")
