"""What a person can break: the commands behind `./dev ctl fault`, as in `commands`."""

import asyncio
from collections.abc import Awaitable, Callable

from lab.desk import Desk, Failed, Outcome
from lab.faults import FAULTS, Fault, FaultError


def _known(name: str) -> Fault:
    if name not in FAULTS:
        raise Failed(f"no fault is called {name!r}; there are: {', '.join(FAULTS)}")
    return FAULTS[name]


async def _carefully(work: Callable[[str], None], name: str) -> None:
    """Does it beside the loop, since it waits for what runs in the loop."""
    try:
        await asyncio.to_thread(work, name)
    except FaultError as error:
        raise Failed(str(error)) from None


async def faults(desk: Desk) -> Outcome:
    """All that can go wrong on demand: "faults", each with "active" and "lasting"."""
    active = desk.lab.faults.active
    found = [{"name": fault.name, "title": fault.title, "meaning": fault.meaning,
              "watch": fault.watch, "lasting": fault.end is not None,
              "active": fault.name in active} for fault in FAULTS.values()]
    return Outcome(True, "", {"faults": found})


async def begin(desk: Desk, name: str) -> Outcome:
    """Lets a fault happen; one that lasts stays until it is ended."""
    fault = _known(name)
    await _carefully(desk.lab.faults.begin, name)
    return Outcome(True, fault.watch)


async def end(desk: Desk, name: str) -> Outcome:
    """Mends what a lasting fault has broken."""
    fault = _known(name)
    await _carefully(desk.lab.faults.end, name)
    return Outcome(True, f"over: {fault.title.lower()}")


COMMANDS: dict[str, Callable[..., Awaitable[Outcome]]] = {
    "faults": faults,
    "fault-begin": begin,
    "fault-end": end,
}
