"""Answers the agent's requests for statistics ("STATS-GET")."""

import struct
import threading
from collections.abc import Iterable
from typing import Any

from lab.scmd.stats import cpu, processes
from lab.scmd.stats.sample import Device, Sample
from lab.scmd.stats.vocabulary import FIELDS, TABLES

INFORMATION = 255
_MOST_SLOTS = 64
_FAULTS_OF_A_SOURCE = (OSError, ValueError, LookupError, ArithmeticError, struct.error)

_one_at_a_time = threading.Lock()
_last: dict[tuple[int, int], Sample] = {}
"""The sample of each slot's last report, the oldest first. Reports of one slot follow each other, so
that each share covers the whole time since the one before."""


def _texts(message: dict[str, Any], member: str) -> list[str]:
    names = message.get(member)
    return [name for name in names if isinstance(name, str)] if isinstance(names, list) else []


def _integer(message: dict[str, Any], member: str) -> int:
    value = message.get(member)
    return value if isinstance(value, int) and not isinstance(value, bool) else 0


def _sampled(root: str, slot: tuple[int, int]) -> Device:
    """The device now, beside the slot's last sample; a new slot counts from the start."""
    device = Device(root, _last.get(slot))
    try:
        cpu.read(device)
        processes.read(device)
    except _FAULTS_OF_A_SOURCE:
        pass  # without a kernel's view shares are null
    _last.pop(slot, None)
    _last[slot] = device.now
    while len(_last) > _MOST_SLOTS:
        del _last[next(iter(_last))]
    return device


def _read(device: Device, read: Any, otherwise: Any) -> Any:
    """What a source says, or `otherwise` where the device has no such thing."""
    try:
        return read(device)
    except _FAULTS_OF_A_SOURCE:
        return otherwise


def collect(device: Device, fields: Iterable[str], tables: Iterable[str]) -> dict[str, Any]:
    """The values of these names; those that nobody knows are listed under "unknown"."""
    fields, tables = list(dict.fromkeys(fields)), list(dict.fromkeys(tables))
    result: dict[str, Any] = {
        "fields": {name: _read(device, FIELDS[name].read, None)
                   for name in fields if name in FIELDS},
        "tables": {name: _read(device, TABLES[name].read, []) for name in tables if name in TABLES},
    }
    unknown = {"fields": [name for name in fields if name not in FIELDS],
               "tables": [name for name in tables if name not in TABLES]}
    if unknown["fields"] or unknown["tables"]:
        result["unknown"] = unknown
    return result


def information() -> dict[str, Any]:
    """The names that can be asked for, with their units."""
    return {"fields": {name: field.unit for name, field in FIELDS.items()},
            "tables": {name: {column: unit for column, (unit, _) in table.columns.items()}
                       for name, table in TABLES.items()}}


def answer(message: dict[str, Any], root: str = "/") -> dict[str, Any]:
    """The answer to a request of the agent."""
    periodic, index = _integer(message, "periodic"), _integer(message, "index")
    fields, tables = _texts(message, "fields"), _texts(message, "tables")
    with _one_at_a_time:
        result = collect(_sampled(root, (periodic, index)), fields, tables)
    if periodic == INFORMATION:
        result["known"] = information()
    return {"periodic": periodic, "index": index, "stats_result": result}
