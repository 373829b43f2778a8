"""Carries out a request for a command, wherever it came in: the socket, the console.

A request is {"command": name, "arguments": {...}, "timeout": seconds or null}. Whoever asked is told
of each message and note while it runs, and gets its end: "outcome" ("done", "failed", "refused"),
"text" and "data".
"""

import inspect
from typing import Any

from lab import schemas
from lab.commands import COMMANDS
from lab.desk import Desk, Failed, Tell
from lab.lab import Lab


def _end(outcome: str, text: str, data: Any = None) -> dict[str, Any]:
    return {"outcome": outcome, "text": text, "data": data or {}}


async def carry_out(lab: Lab, request: Any, tell: Tell) -> dict[str, Any]:
    """The end of the command; a request that is none of this lab's is refused."""
    try:
        command = COMMANDS[request["command"]]
        arguments, timeout = request.get("arguments", {}), request.get("timeout")
        inspect.signature(command).bind(None, **arguments)
    except (TypeError, KeyError, AttributeError) as error:
        return _end("refused", f"not a command of this lab: {error}")
    try:
        outcome = await command(Desk(lab, lab.turn, tell, timeout), **arguments)
    except (Failed, schemas.SchemaError) as error:
        return _end("failed", str(error))
    except Exception as error:  # arguments of the wrong kind, or the lab's own fault: it lives on
        return _end("failed", f"the lab could not do it: {error or type(error).__name__}")
    return _end("done" if outcome.good else "failed", outcome.text, outcome.data)
