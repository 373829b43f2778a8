"""What a person can do with statistics: the commands behind `./dev ctl stats`, as in `commands`."""

import json
from typing import Any, Optional

from lab import reports
from lab.desk import Desk, Failed, Outcome, answers, told
from lab.scmd.stats.vocabulary import TABLES

_SECONDS = 30.0
_ONE_TIME = {"once": (104, 404), "info": (122, 422), "custom": (124, 424)}


def _lists(fields: list[str], tables: list[str]) -> dict[str, Any]:
    """The two lists of a request object. Tables are reported whole, but each has to name columns."""
    wanted: dict[str, Any] = {}
    if fields:
        wanted["fields"] = fields
    if tables:
        wanted["tables"] = {name: list(TABLES[name].columns) if name in TABLES else ["all"]
                            for name in tables}
    return wanted


async def subscribe(desk: Desk, slot: int, interval: int, fields: list[str],
                    tables: list[str]) -> Outcome:
    """Starts a periodic report, and starts it again whenever the device has registered anew."""
    request = {"index": slot, "interval": interval, **_lists(fields, tables)}
    text = json.dumps({"msgType": 103, "stats": [request]})
    async with desk.turn(_SECONDS):
        await desk.ask_silent(text, answers(None, 703), unchecked=True)
    desk.lab.controller.standing[slot] = request
    return Outcome(True, f"slot {slot} reports every {interval} s, also after a reconnect")


async def stop(desk: Desk, slot: int) -> Outcome:
    """Ends a periodic report."""
    desk.lab.controller.standing.pop(slot, None)
    text = json.dumps({"msgType": 105, "index": slot})
    async with desk.turn(_SECONDS):
        await desk.ask_silent(text, answers(None, 703), unchecked=True)
    return Outcome(True, f"slot {slot} reports no more")


async def once(desk: Desk, kind: str, fields: list[str], tables: list[str],
               subtype: Optional[int] = None) -> Outcome:
    """One report, now: "stats"."""
    number, good = _ONE_TIME[kind]
    message: dict[str, Any] = {"msgType": number}
    if fields or tables:
        message["stats"] = [_lists(fields, tables)]
    if subtype is not None:
        message["subType"] = subtype
        good = 424 if 240 <= subtype <= 254 else {1: 403, 255: 422}.get(subtype, 404)
    async with desk.turn(_SECONDS):
        answer = await desk.ask(message, answers(good, number + 600))
    return Outcome(True, "", {"stats": answer.get("stats")})


async def show(desk: Desk, names: list[str], last: int, slot: Optional[int] = None) -> Outcome:
    """The values of these names in the last reports, counters as rates: "series"."""
    kept = desk.lab.reports
    if not names:
        found = kept.newest(1, slot)
        names = list(reports.names_in(found[-1].stats)) if found else []
    series = []
    for name in names:
        points, unit = kept.series(name, last, slot), reports.unit_of(name)
        if unit == "counter":
            points, unit = reports.rates(points), "per s"
        series.append({"name": name, "unit": unit, "points": points})
    if not any(one["points"] for one in series):
        raise Failed(f"none of the {kept.count()} reports kept has such values")
    return Outcome(True, f"of {kept.count()} reports kept", {"series": series})


async def watch(desk: Desk, count: int = 0) -> Outcome:
    """Tells of every report as it comes, until there were `count` (0: until the client goes)."""
    seen = 0
    with desk.listening() as events:
        while not count or seen < count:
            event = await events.get()
            if event.kind == "from-agent" and event["message"].get("msgType") in reports.KINDS:
                seen += 1
                await desk.tell(told(event))
    return Outcome(True, f"{seen} reports")


COMMANDS = {"stats-subscribe": subscribe, "stats-stop": stop, "stats-once": once,
            "stats-show": show, "stats-watch": watch}
