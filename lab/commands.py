"""What a person can do with the lab's controller while it runs, each as one function.

A command takes its `Desk` and its arguments by name, tells the desk what happens, and returns an
`Outcome`; it raises `Failed` where the device says no. How it is asked for (the socket of
`ctlserver`, the words of `ctl`) is not known here. A new group of commands is a module like this
one whose functions are added to `COMMANDS`.
"""

import asyncio
import json
import time
from collections.abc import Awaitable, Callable
from typing import Any, Optional

from lab import (faultcommands, probecommands, runcommands, schemas, statscommands, upgradecommands,
                 wificommands)
from lab.controller import REGISTER, REGISTER_SUCCESS, Acceptance
from lab.desk import BAD, GOOD, MORE, Desk, Failed, Outcome, Verdict, answers, told
from lab.faults import fault_words
from lab.localcommands import log_line, raise_event

CONFIG_UPDATE = 106
_CONFIG_STATUS, _CONFIG_FAILURE = 406, 706
_LAST_STATUSES = ("Complete", "CompleteWithReboot")
_SECONDS = 30.0
_RECONNECT_SECONDS = 120.0
_LINE_BREAK = "\\n"
"""What the device writes for a line break in the configuration it sends."""


def _config_verdict(message: dict[str, Any]) -> Optional[str]:
    """An update tells its steps; the last one is good."""
    if message.get("msgType") in (_CONFIG_FAILURE, 999):
        return BAD
    if message.get("msgType") != _CONFIG_STATUS:
        return None
    return GOOD if message.get("status") in _LAST_STATUSES else MORE


async def push_config(desk: Desk, config: Any, overwrite: bool = False,
                      native: Optional[str] = None) -> Outcome:
    """Changes the device's configuration: `config` is an object, or a text for its shell."""
    message = {"msgType": CONFIG_UPDATE, "config": config}
    if native is not None:
        message["nativeConfig"] = native
    if overwrite:
        message["overwrite"] = True
    async with desk.turn(_SECONDS):
        answer = await desk.ask(message, _config_verdict)
    return Outcome(True, answer["message"], {"status": answer["status"]})


async def pull_config(desk: Desk) -> Outcome:
    """The device's stored configuration: "config", with its line breaks."""
    async with desk.turn(_SECONDS):
        answer = await desk.ask({"msgType": 107}, answers(407, 707))
    config = answer["config"].replace(_LINE_BREAK, "\n")
    return Outcome(True, f"{config.count(chr(10))} lines", {"config": config})


async def reboot(desk: Desk, reason: Optional[str] = None, delay: Optional[int] = None,
                 force: bool = False) -> Outcome:
    """Has the device reboot; done when it has agreed to, before it does."""
    message: dict[str, Any] = {"msgType": 102}
    if reason is not None:
        message["reason"] = reason
    if delay is not None:
        message["delay"] = delay
    if force:
        message["force"] = True
    async with desk.turn(_SECONDS):
        await desk.ask(message, answers(402, 702))
    return Outcome(True, "the device is going to reboot")


async def show_status(desk: Desk, text: str) -> Outcome:
    """Has the device show this text as its connection status."""
    message = {"msgType": 697, "Orvanta": {"status": text}}
    async with desk.turn(_SECONDS):
        await desk.ask_silent(json.dumps(message), answers(None, 999))
    return Outcome(True, f"the device shows {desk.lab.status_or_reason()!r}")


async def set_intervals(desk: Desk, wait: int, delta: int) -> Outcome:
    """Sets how long the device waits before it looks for a controller anew."""
    message = {"msgType": 117, "waitTime": wait, "deltaTime": delta}
    async with desk.turn(_SECONDS):
        await desk.ask_silent(json.dumps(message), answers(None, 717))
    return Outcome(True, "the device took it without a complaint")


async def offer_clock(desk: Desk, seconds: int) -> Outcome:
    """Makes the device register anew and offers it this time (0: none) as it does."""
    controller = desk.lab.controller
    offer = Acceptance(orv_time=seconds)
    async with desk.turn(_RECONNECT_SECONDS):
        calls = len(desk.lab.device.records("date"))
        controller.next_answers.insert(0, offer)
        try:
            await _register_anew(desk)
        finally:
            if offer in controller.next_answers:
                controller.next_answers.remove(offer)
        await desk.settle()
        made = desk.lab.device.records("date")[calls:]
    if made:
        return Outcome(True, f"the device set its clock: date {' '.join(made[0])}", {"date": made})
    if seconds:
        raise Failed("the device kept its own clock (it does while it has an NTP server)")
    return Outcome(True, "no time was offered, the device kept its own clock")


async def _register_anew(desk: Desk) -> None:
    """Closes the connection and waits until the device has come back and been accepted."""
    controller = desk.lab.controller
    with desk.listening() as events:
        if controller.newest is not None:
            await desk.note("closing the connection; the device comes back by itself")
            await controller.newest.socket.close(code=1000, message=b"")
        else:
            await desk.note("the device is not connected; waiting for it")
        while True:
            event = await events.get()
            if event.kind not in ("from-agent", "to-agent"):
                continue
            shown = told(event)
            if shown["number"] in (REGISTER, REGISTER_SUCCESS):
                await desk.tell(shown)
            if shown["number"] == REGISTER_SUCCESS:
                return


async def locate(desk: Desk) -> Outcome:
    """Has the device blink its lights."""
    async with desk.turn(_SECONDS):
        await desk.ask({"msgType": 115}, answers(415, 715))
    return Outcome(True, "the device has blinked its lights")


async def device_info(desk: Desk) -> Outcome:
    """Why the device last closed its connection and rebooted, and since when it runs."""
    async with desk.turn(_SECONDS):
        answer = await desk.ask({"msgType": 123}, answers(423, 723))
    return Outcome(True, "", {name: answer[name] for name in answer if name != "msgType"})


async def managed_info(desk: Desk, managed: Optional[bool] = None, account: Optional[str] = None,
                       expiry: Optional[str] = None) -> Outcome:
    """Tells the device whether and for whom it is managed; None leaves a member out."""
    members = {"managed": managed, "accountId": account, "hwExpiryDate": expiry}
    message = {"msgType": 108, **{k: v for k, v in members.items() if v is not None}}
    async with desk.turn(_SECONDS):
        await desk.ask(message, answers(408, 708))
    return Outcome(True, "the device has taken it in")


def _expected(text: str) -> Optional[Verdict]:
    """What ends the exchange that this text begins; None when nothing needs to answer it."""
    try:
        message = json.loads(text)
        number = message["msgType"]
    except (ValueError, TypeError, KeyError):
        return None
    good, bad = schemas.answers_to(number)
    if number == CONFIG_UPDATE:
        return _config_verdict if "config" in message else None
    return answers(good, bad) if good is not None else None


async def send(desk: Desk, text: str, unchecked: bool = False) -> Outcome:
    """Sends any text and waits for the answers that belong to it."""
    verdict = _expected(text)
    async with desk.turn(_SECONDS):
        if verdict is not None:
            await desk.ask_text(text, verdict, unchecked)
            return Outcome(True, "answered")
        bad = _number(text) and schemas.answers_to(_number(text))[1]
        await desk.ask_silent(text, answers(None, bad), unchecked)
    return Outcome(True, "not answered; the device has dealt with it")


def _number(text: str) -> Optional[int]:
    try:
        return json.loads(text).get("msgType")
    except (ValueError, AttributeError):
        return None


async def watch(desk: Desk, count: int = 0) -> Outcome:
    """Tells of every message in either direction, of connections and of the device's ups and downs,
    until `count` messages have been seen (0: until the client goes)."""
    seen = 0
    ending = (asyncio.get_running_loop().time() + desk.timeout) if desk.timeout else None
    with desk.listening() as events:
        while not count or seen < count:
            try:
                async with asyncio.timeout_at(ending):
                    event = await events.get()
            except TimeoutError:
                raise Failed(f"{seen} messages within {desk.timeout:g} s") from None
            if event.kind in ("to-agent", "from-agent"):
                seen += 1
                await desk.tell(told(event))
            elif event.kind in _HAPPENINGS:
                await desk.tell({"kind": "event", "time": event.wall,
                                 "text": _HAPPENINGS[event.kind](event)})
    return Outcome(True, f"{seen} messages")


def _closed(event: Any) -> str:
    how = f'with "{event["reason"]}"' if event["code"] else "without a word"
    return f"connection {event['connection'].number} ended {how}"


_HAPPENINGS: dict[str, Callable[[Any], str]] = {
    "connected": lambda event: f"connection {event['connection'].number} opened",
    "disconnected": _closed,
    "agent-started": lambda event: f"the agent started (start {event['count']})",
    "agent-ended": lambda event: f"the agent ended with status {event['status']}",
    "trap": lambda event: f"the device forwarded an event: {event['text']}",
    "rebooting": lambda event: "the device goes down",
    "rebooted": lambda event: "the device is up again",
    "fault": lambda event: fault_words(event),
}


async def state(desk: Desk) -> Outcome:
    """How the device is: what it shows, its connection, its agent. Good while it is registered."""
    lab = desk.lab
    newest = lab.controller.newest
    registered = newest is not None and newest.accepted
    return Outcome(registered, "", {
        "status": lab.status_or_reason(),
        "connection": newest.number if newest else None,
        "registered": registered,
        "connections": len(lab.controller.connections),
        "running": lab.supervisor.running,
        "starts": lab.supervisor.starts,
        "time": time.time(),
    })


Command = Callable[..., Awaitable[Outcome]]
COMMANDS: dict[str, Command] = {
    "config-push": push_config,
    "config-pull": pull_config,
    "reboot": reboot,
    "status": show_status,
    "intervals": set_intervals,
    "clock": offer_clock,
    "locate": locate,
    "info": device_info,
    "managed": managed_info,
    "send": send,
    "event": raise_event,
    "log": log_line,
    "watch": watch,
    "state": state,
    **runcommands.COMMANDS,
    **probecommands.COMMANDS,
    **statscommands.COMMANDS,
    **upgradecommands.COMMANDS,
    **wificommands.COMMANDS,
    **faultcommands.COMMANDS,
}
