"""What a person can do with the device's Wi-Fi daemon and its talk with the controller.

Commands as in `commands`, which collects them.
"""

import asyncio
import json
from collections.abc import Awaitable, Callable
from typing import Any

from lab.desk import Desk, Failed, Outcome, answers, told
from lab.journal import Event
from lab.wifid import ANSWER, CONNECTED_STATE, EVENT, REGISTRATION

CONTROLLER_RESPONSE = 416
_FROM_WIFID = {EVENT: 116, REGISTRATION: 118}
_SECONDS = 30.0
_NOT_UNDERSTOOD = 999


async def answer(desk: Desk, payload: Any) -> Outcome:
    """Sends the daemon an answer of the controller; done when the daemon has it."""
    message = {"msgType": CONTROLLER_RESPONSE, "ctrlrPayload": payload}
    with desk.listening() as events:
        async with desk.turn(_SECONDS):
            await desk.ask_silent(json.dumps(message), answers(None, _NOT_UNDERSTOOD))
            heard = await _next(events, lambda e: e.kind == "wifid" and e["dest"] == ANSWER)
    return Outcome(True, f"the Wi-Fi daemon heard {heard['text']}", {"text": heard["text"]})


async def event(desk: Desk, payload: Any) -> Outcome:
    """Has the daemon raise an event; done when the controller has it."""
    return await _say(desk, EVENT, payload)


async def register(desk: Desk, payload: Any) -> Outcome:
    """Has the daemon register; done when the controller knows, failed when it has to wait."""
    return await _say(desk, REGISTRATION, payload)


async def _say(desk: Desk, dest: int, payload: Any) -> Outcome:
    """Sends the agent a datagram of the daemon's and waits for what becomes of it."""
    desk.connection()
    number = _FROM_WIFID[dest]

    def settles(found: Event) -> bool:
        if found.kind == "wifid":
            return found["dest"] == CONNECTED_STATE and found["payload"] == {"status": 0}
        return found.kind == "from-agent" and found["message"].get("msgType") == number

    with desk.listening() as events:
        async with desk.turn(_SECONDS):
            try:
                await asyncio.to_thread(desk.lab.wifid.send, dest, json.dumps(payload))
            except OSError as error:
                raise Failed(f"the agent does not listen: {error}") from None
            found = await _next(events, settles)
    if found.kind == "wifid":
        raise Failed("the agent has told the Wi-Fi daemon to wait for the controller")
    await desk.tell(told(found))
    return Outcome(True, "the controller has it")


async def _next(events: "asyncio.Queue[Event]", fits: Callable[[Event], bool]) -> Event:
    while True:
        found = await events.get()
        if fits(found):
            return found


COMMANDS: dict[str, Callable[..., Awaitable[Outcome]]] = {
    "wifid-answer": answer,
    "wifid-event": event,
    "wifid-register": register,
}
