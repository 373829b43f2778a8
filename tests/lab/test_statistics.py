"""The statistics side of the device's daemon: its names, its sources, what it makes of bad input."""

from __future__ import annotations

import json
import os
import sys
import time
from collections.abc import Callable
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab.scmd.stats import describe, request  # noqa: E402  (needs the path above)
from lab.scmd.stats.sample import Device, Sample  # noqa: E402
from lab.scmd.stats.vocabulary import FIELD_NAME_LIMIT, FIELDS, TABLES  # noqa: E402

FILES = {
    "/proc/uptime": "86412.37 160000.00\n",
    "/proc/loadavg": "0.31 0.22 0.15 1/123 4567\n",
    "/proc/stat": "cpu  300 0 100 600 0 0 0 0 0 0\ncpu0 100 0 50 350 0 0 0 0 0 0\n"
                  "cpu1 200 0 50 250 0 0 0 0 0 0\nintr 4711 0 0\nctxt 12345\n",
    "/proc/meminfo": "MemTotal: 1000 kB\nMemFree: 100 kB\nMemAvailable: 400 kB\n",
    "/proc/42/stat": "42 (a (b) c) S 1 42 42 0 -1 0 0 0 0 0 70 30 0 0 20 0 3 0 1 4096 25 0\n",
    "/proc/net/arp": "IP address HW type Flags HW address Mask Device\n"
                     "10.77.0.1 0x1 0x2 02:4f:56:aa:bb:01 * eth0\n"
                     "10.77.0.9 0x1 0x0 00:00:00:00:00:00 * eth0\n"
                     "10.77.0.8 0x1 0x6 02:4f:56:aa:bb:08 * eth1\n",
    "/proc/net/wireless": "Inter-| sta-|\n face | tus |\n"
                          " wlan0: 0000   70.  -39.  -256        0      0      0      1      2    3\n",
    "/sys/class/net/wan0/statistics/rx_bytes": "1000\n",
    "/sys/class/net/wan0/statistics/tx_bytes": "2000\n",
    "/sys/class/net/wan0/operstate": "up\n",
    "/sys/class/net/wan0/speed": "-1\n",
    "/sys/class/net/lo/statistics/rx_bytes": "77\n",
    "/sys/class/thermal/thermal_zone0/temp": "41500\n",
    "/sys/class/thermal/thermal_zone0/type": "soc\n",
    "/sys/class/hwmon/hwmon0/name": "board\n",
    "/sys/class/hwmon/hwmon0/temp1_input": "52000\n",
    "/sys/class/hwmon/hwmon0/temp1_label": "radio\n",
    "/sys/class/hwmon/hwmon0/fan1_input": "900\n",
}
ROUTE = "Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT\n"


@pytest.fixture
def tree(tmp_path: Path) -> Callable[..., Path]:
    """Makes a device's root folder of the files above, some of them changed (None: left out)."""
    def make(**changes: str | None) -> Path:
        for name, text in {**FILES, **changes}.items():
            path = tmp_path / name.lstrip("/")
            path.parent.mkdir(parents=True, exist_ok=True)
            if text is not None:
                path.write_text(text, encoding="utf-8")
        return tmp_path
    return make


@pytest.fixture(autouse=True)
def no_memory_of_earlier_reports() -> None:
    """Each test starts as the daemon does."""
    request._last.clear()


def ask(root: Path | str, fields: list[str], tables: list[str] = [], **more: object) -> dict:
    """The result of one request."""
    return request.answer({"fields": fields, "tables": tables, **more}, str(root))["stats_result"]


# ---------------------------------------------------------------- names

def test_field_names_survive_the_way() -> None:
    assert all(len(name.encode()) <= FIELD_NAME_LIMIT for name in FIELDS)
    header = (ROOT / "platform" / "stats-names.h").read_text(encoding="utf-8")
    assert f"FLD_NAME_SIZE = {FIELD_NAME_LIMIT + 1}," in header
    assert not any("%" in name for name in TABLES), "the agent interprets percent signs"


def test_the_page_is_up_to_date() -> None:
    assert describe.PAGE.read_text(encoding="utf-8") == describe.page(), \
        "run python3 -m lab.scmd.stats.describe"


def test_rows_have_the_columns_of_their_table(tree: Callable[..., Path]) -> None:
    for root in ("/", tree()):
        tables = ask(root, [], list(TABLES))["tables"]
        for name, rows in tables.items():
            for row in rows:
                assert list(row) == list(TABLES[name].columns), name
    assert ask("/", [], ["interfaces"])["tables"]["interfaces"], "this machine has a loopback"


def test_every_field_has_a_value_on_this_machine() -> None:
    values = ask("/", list(FIELDS))["fields"]
    assert {name for name, value in values.items() if value is None} <= {
        "cpuUse", "gateway", "temperature", "udpSockets"}


# ---------------------------------------------------------------- values

def test_the_kernels_texts_are_read(tree: Callable[..., Path]) -> None:
    result = ask(tree(), ["uptime", "load15", "memUsed", "cpuCount", "interrupts", "rxBytes",
                          "temperature", "contextSwitches"],
                 ["neighbours", "wireless", "sensors", "processes"])
    assert result["fields"] == {
        "uptime": 86412, "load15": 0.15, "memUsed": 600 * 1024, "cpuCount": 2, "interrupts": 4711,
        "rxBytes": 1000, "temperature": 52.0, "contextSwitches": 12345}
    assert [row["state"] for row in result["tables"]["neighbours"]] == [
        "complete", "incomplete", "permanent"]
    assert result["tables"]["wireless"] == [
        {"name": "wlan0", "link": 70, "level": -39, "noise": -256, "retries": 1, "missed": 3}]
    assert result["tables"]["sensors"] == [
        {"name": "soc", "value": 41.5, "unit": "celsius"},
        {"name": "board fan1", "value": 900.0, "unit": "rpm"},
        {"name": "board radio", "value": 52.0, "unit": "celsius"}]
    assert result["tables"]["processes"] == [
        {"pid": 42, "name": "a (b) c", "state": "S", "cpu": 0.0, "cpuTime": 1000,
         "rss": 25 * 4096, "threads": 3}]


def test_routes_are_written_as_people_do(tree: Callable[..., Path]) -> None:
    root = tree(**{"/proc/net/route": ROUTE + (
        "eth0 00000000 01004D0A 0003 0 0 100 00000000 0 0 0\n"
        "eth0 00004D0A 00000000 0001 0 0 0 00FFFFFF 0 0 0\n"
        "eth1 0000A8C0 00000000 0000 0 0 0 0000FFFF 0 0 0\n")})
    result = ask(root, ["gateway"], ["routes"])
    assert result["fields"]["gateway"] == "10.77.0.1"
    assert result["tables"]["routes"] == [
        {"destination": "0.0.0.0/0", "gateway": "10.77.0.1", "interface": "eth0", "metric": 100},
        {"destination": "10.77.0.0/24", "gateway": None, "interface": "eth0", "metric": 0}]


def test_shares_are_counted_since_the_slots_last_report(tree: Callable[..., Path]) -> None:
    assert ask(tree(), ["cpuUse"], index=2)["fields"]["cpuUse"] == 40.0, "since the start"
    later = FILES["/proc/stat"].replace("cpu  300 0 100 600", "cpu  375 0 100 625")
    root = tree(**{"/proc/stat": later.replace("cpu0 100 0 50 350", "cpu0 175 0 50 375")})
    result = ask(root, ["cpuUse"], ["cpus"], index=2)
    assert result["fields"]["cpuUse"] == 75.0
    assert [row["use"] for row in result["tables"]["cpus"]] == [75.0, None]
    assert result["tables"]["cpus"][0]["user"] == 1750
    assert ask(root, ["cpuUse"], index=3)["fields"]["cpuUse"] == round(100 * 475 / 1100, 1)
    assert ask(root, ["cpuUse"], index=2)["fields"]["cpuUse"] is None, "no time has passed"


def test_the_busiest_process_comes_first() -> None:
    device = Device("/", Sample(time.monotonic() - 10.0, {}, {}))
    rows = TABLES["processes"].read(device)
    shares = [row["cpu"] for row in rows]
    assert shares == sorted(shares, reverse=True)
    assert len(rows) <= 10
    assert any(row["cpu"] > 0 for row in rows)
    mine = [row for row in rows if row["pid"] == os.getpid()]
    assert all(row["cpuTime"] > 0 for row in mine)


# ---------------------------------------------------------------- what is not as it should be

@pytest.mark.parametrize("text", ["", "\n", "garbage", "cpu\n", "cpu x y\n", "\0\0", "9" * 400,
                                  "a:b\n" * 3, "(", "42 (x", "Iface\nx y\n", "-1\n", "1e999 1e999\n",
                                  "x\ne FFFFFFFFF 0 FFF 0 0 0 0 0\n"])
def test_garbage_of_the_kernel_makes_null_and_empty(tree: Callable[..., Path], text: str) -> None:
    names = [*FILES, "/proc/net/route", "/proc/net/sockstat", "/proc/net/if_inet6", "/proc/mounts"]
    result = ask(tree(**{name: text for name in names}), list(FIELDS), list(TABLES))
    assert list(result["fields"]) == list(FIELDS)
    assert list(result["tables"]) == list(TABLES)
    json.dumps(result, allow_nan=False)


def test_an_empty_device_has_nothing(tmp_path: Path) -> None:
    result = ask(tmp_path, list(FIELDS), list(TABLES))
    assert set(result["tables"]) == set(TABLES)
    assert not any(result["tables"].values())
    assert {name for name, value in result["fields"].items() if value is not None} == {
        "clock", "processes", "rxBytes", "txBytes", "rxErrors", "txErrors"}


def test_unknown_names_are_told() -> None:
    result = ask("/", ["uptime", "colour", "uptime"], ["taste", "routes"])
    assert result["unknown"] == {"fields": ["colour"], "tables": ["taste"]}
    assert list(result["fields"]) == ["uptime"]
    assert "unknown" not in ask("/", ["uptime"])


@pytest.mark.parametrize("message", [
    {}, {"fields": 5, "tables": None, "index": "x", "periodic": []}, {"fields": [1, None, ["a"]]},
    {"index": True, "periodic": 1.5}])
def test_a_request_of_another_shape_is_answered(message: dict) -> None:
    answer = request.answer(message)
    assert answer == {"periodic": 0, "index": 0, "stats_result": {"fields": {}, "tables": {}}}


def test_the_memory_of_slots_is_bounded() -> None:
    for number in range(300):
        request.answer({"periodic": number, "index": number})
    assert len(request._last) == 64


def test_information_names_everything() -> None:
    known = ask("/", [], periodic=255)["known"]
    assert set(known["fields"]) == set(FIELDS)
    assert {name: set(columns) for name, columns in known["tables"].items()} == {
        name: set(table.columns) for name, table in TABLES.items()}
