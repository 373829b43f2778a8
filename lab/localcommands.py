"""Commands that have a program of the device do something, and show what comes of it."""

import asyncio

from lab.desk import Desk, Failed, Outcome

_SECONDS = 30.0


async def raise_event(desk: Desk, text: str) -> Outcome:
    """A program of the device raises this event; done when the controller has it."""
    desk.connection()
    async with desk.turn(_SECONDS):
        with desk.listening() as events:
            reason = await asyncio.to_thread(desk.lab.programs.raise_event, text)
            if reason:
                raise Failed(f"the agent does not take events: {reason}")
            while True:
                event = await events.get()
                if event.kind == "trap":
                    return Outcome(True, f"the controller got {len(event['data'])} bytes: "
                                         f"{event['text']}")


async def log_line(desk: Desk, text: str) -> Outcome:
    """A program of the device logs this line."""
    async with desk.turn(_SECONDS):
        reason = await asyncio.to_thread(desk.lab.programs.log, text)
    if reason:
        raise Failed(f"the agent does not take log lines: {reason}")
    return Outcome(True, "the line is among the device's last ones")
