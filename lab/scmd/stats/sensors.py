"""Temperatures and other sensors, where the kernel has any."""

from typing import Any, Optional

from lab.scmd.stats.sample import Device

_ZONES, _CHIPS = "/sys/class/thermal", "/sys/class/hwmon"
_KINDS = {"temp": ("celsius", 1000), "fan": ("rpm", 1), "in": ("volt", 1000)}


def _zones(device: Device) -> list[dict[str, Any]]:
    rows = []
    for zone in device.names(_ZONES):
        value = device.number(f"{_ZONES}/{zone}/temp") if zone.startswith("thermal_zone") else None
        if value is not None:
            rows.append({"name": device.word(f"{_ZONES}/{zone}/type") or zone,
                         "value": value / 1000, "unit": "celsius"})
    return rows


def _chip(device: Device, chip: str) -> list[dict[str, Any]]:
    rows = []
    for file in device.names(f"{_CHIPS}/{chip}"):
        kind = file.removesuffix("_input").rstrip("0123456789") if file.endswith("_input") else ""
        value = device.number(f"{_CHIPS}/{chip}/{file}") if kind in _KINDS else None
        if value is None:
            continue
        unit, scale = _KINDS[kind]
        point = file.removesuffix("_input")
        label = device.word(f"{_CHIPS}/{chip}/{point}_label") or point
        name = device.word(f"{_CHIPS}/{chip}/name") or chip
        rows.append({"name": f"{name} {label}", "value": value / scale, "unit": unit})
    return rows


def table(device: Device) -> list[dict[str, Any]]:
    """Thermal zones, then the points of the monitoring chips."""
    return _zones(device) + [row for chip in device.names(_CHIPS) for row in _chip(device, chip)]


def temperature(device: Device) -> Optional[float]:
    """The warmest point."""
    found = [row["value"] for row in table(device) if row["unit"] == "celsius"]
    return max(found) if found else None
