"""What a person can have the device run: commands behind `./dev ctl run`, as in `commands`."""

import asyncio
import json
from collections.abc import Awaitable, Callable
from typing import Any, Optional

from lab.controller import Connection
from lab.desk import BAD, GOOD, Desk, Failed, Outcome, answers
from lab.journal import Event

EXEC_CMD, EXEC_STOP = 109, 110
OUTPUT, STOPPED, REFUSED = 409, 410, 709
_SECONDS = 30.0
_STOP_SECONDS = 5.0
_NOT_UNDERSTOOD = 999
_DONE = {"wifiperf": "the end point of the speed test is on, for 900 s",
         "disconnect-clients": "the clients have been sent away"}


def _begins(message: dict[str, Any]) -> Optional[str]:
    """The verdict on the first answer; what an earlier command still has to say is none."""
    number = message.get("msgType")
    if number in (REFUSED, _NOT_UNDERSTOOD):
        return BAD
    if number != OUTPUT:
        return None
    failed_look_up = message["status"] == "Complete" and message.get("output")
    return GOOD if message["status"] == "Initiated" or "command" in message or failed_look_up else None


async def run(desk: Desk, command: str, arguments: Optional[dict[str, Any]] = None,
              duration: int = 0) -> Outcome:
    """Runs a command on the device and tells of its output as it comes, in pieces of kind "output".
    When whoever asked goes away, or closes their side of the socket, the command is stopped."""
    message: dict[str, Any] = {"msgType": EXEC_CMD, "command": command}
    if arguments:
        message["arguments"] = arguments
    if duration:
        message["duration"] = duration
    connection = desk.connection()
    with desk.listening() as events:
        async with desk.turn(_SECONDS):
            first = await desk.ask(message, _begins)
        if "command" in first:
            return Outcome(True, _DONE.get(first["command"], first["status"]))
        if first["status"] == "Complete":
            raise Failed(first["output"])
        try:
            await _skip_to(events, first)
            stopped = await _follow(desk, events, connection)
        except asyncio.CancelledError:
            await _stop(desk, events, connection)
            return Outcome(False, "stopped")
    if stopped:
        return Outcome(bool(duration), "it was stopped")
    return Outcome(True, "it has ended")


async def _skip_to(events: "asyncio.Queue[Event]", message: dict[str, Any]) -> None:
    while True:
        event = await events.get()
        if event.kind == "from-agent" and event["message"] is message:
            return


async def _follow(desk: Desk, events: "asyncio.Queue[Event]", connection: Connection) -> bool:
    """Tells of output to its end; whether the command was stopped."""
    stopped = False
    while True:
        event = await events.get()
        if event.data.get("connection") is not connection:
            continue
        if event.kind == "disconnected":
            raise Failed("the device has lost its connection, and has ended the command with it")
        if event.kind != "from-agent":
            continue
        message = event["message"]
        number = message.get("msgType")
        if number in (OUTPUT, STOPPED) and "command" in message:
            continue
        stopped = stopped or number == STOPPED
        if number != OUTPUT:
            continue
        if message["status"] == "Initiated":  # another one, by somebody else
            return True
        if message.get("output"):
            await desk.tell({"kind": "output", "text": message["output"]})
        if message["status"] == "Complete":
            return stopped


async def _stop(desk: Desk, events: "asyncio.Queue[Event]", connection: Connection) -> None:
    """Stops the command and tells of what it still has to say."""
    try:
        async with asyncio.timeout(_STOP_SECONDS):
            await desk.lab.controller.deliver(connection, json.dumps({"msgType": EXEC_STOP}))
            await _follow(desk, events, connection)
    except TimeoutError:
        raise Failed("the device has not said that it stopped the command") from None


async def stop(desk: Desk) -> Outcome:
    """Stops the command that runs on the device."""
    async with desk.turn(_SECONDS):
        await desk.ask({"msgType": EXEC_STOP}, answers(STOPPED, 710))
    return Outcome(True, "no command runs any more")


COMMANDS: dict[str, Callable[..., Awaitable[Outcome]]] = {"run": run, "run-stop": stop}
