"""What the controller keeps of statistics, and how it shows them."""

from __future__ import annotations

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import ctlstats, reports  # noqa: E402  (needs the path above)


@pytest.fixture
def kept(tmp_path: Path) -> Iterator[reports.Reports]:
    """A file of the last 300 reports."""
    store = reports.Reports(tmp_path / "reports.sqlite", most=300)
    yield store
    store.close()


def report(slot: int, **fields: object) -> dict:
    """A periodic report with these fields and one table."""
    rows = [{"name": "eth0", "rxBytes": fields.get("rxBytes")}]
    return {"msgType": 403, "index": slot,
            "stats": {"fields": fields, "tables": {"interfaces": rows}}}


def test_values_are_found_by_name(kept: reports.Reports) -> None:
    kept.add(report(3, rxBytes=100, load1=0.5), 1000.0)
    kept.add(report(4, rxBytes=700), 1001.0)
    kept.add(report(3, rxBytes=300, load1=None), 1002.0)
    assert kept.series("load1", 9) == [(1000.0, 0.5)]
    assert kept.series("rxBytes", 9, slot=3) == [(1000.0, 100), (1002.0, 300)]
    assert kept.series("interfaces.eth0.rxBytes", 2) == [(1001.0, 700), (1002.0, 300)]
    assert kept.series("interfaces.eth9.rxBytes", 9) == []
    assert kept.series("colour", 9) == []


@pytest.mark.parametrize("stats", [None, 5, "x", [], {}, {"fields": 5}, {"tables": {"a": [5]}},
                                   {"tables": {"a": [{}]}}, {"fields": [], "tables": []}])
def test_statistics_of_another_shape_have_no_values(kept: reports.Reports, stats: object) -> None:
    kept.add({"msgType": 404, "stats": stats}, 1.0)
    kept.add({"msgType": 404}, 2.0)
    assert kept.series("a", 9) == kept.series("a.b.c", 9) == []
    assert list(reports.names_in(stats)) == []


def test_the_oldest_are_forgotten(kept: reports.Reports) -> None:
    for number in range(2000):
        kept.add(report(2, uptime=number), float(number))
    assert 300 <= kept.count() < 300 + 256
    assert kept.series("uptime", 1) == [(1999.0, 1999)]


def test_of_a_long_report_only_the_fact_is_kept(kept: reports.Reports) -> None:
    kept.add(report(2, uptime="x" * reports.LONGEST_TEXT), 1.0)
    assert kept.count() == 1
    assert kept.newest(1)[0].stats is None


def test_a_closed_file_takes_nothing_and_harms_nothing(tmp_path: Path) -> None:
    store = reports.Reports(tmp_path / "reports.sqlite")
    store.close()
    store.add(report(2, uptime=1), 1.0)


def test_a_counter_that_went_back_has_no_rate() -> None:
    points = [(0.0, 100), (10.0, 300), (20.0, 50), (20.0, 60), (30.0, 150)]
    assert reports.rates(points) == [(10.0, 20.0), (30.0, 9.0)]
    assert reports.rates([]) == reports.rates(points[:1]) == []


def test_units_are_those_of_the_vocabulary() -> None:
    assert reports.unit_of("rxBytes") == reports.unit_of("interfaces.eth0.txErrors") == "counter"
    assert reports.unit_of("cpuUse") == "%"
    assert reports.unit_of("colour") == reports.unit_of("a.b.c") == ""


def test_a_plot_shows_low_and_high() -> None:
    assert ctlstats.plot([0, 7, 3.5]) in ("▁█▄", "▁█▅")
    assert ctlstats.plot([5, 5]) == "▁▁"
    assert len(ctlstats.plot(range(500))) == 60


def test_a_picture_lists_the_newest_values() -> None:
    points = [(float(second), second) for second in range(20)]
    lines = ctlstats.picture({"name": "x", "unit": "s", "points": points}).splitlines()
    assert lines[0] == "x (s)"
    assert lines[1].endswith("  0 to 19")
    assert len(lines) == 12 and lines[-1].endswith("  19")
    assert ctlstats.picture({"name": "x", "unit": "", "points": []}) == "x: no values"
    words = ctlstats.picture({"name": "x", "unit": "", "points": [(0.0, "up")]}).splitlines()
    assert len(words) == 2
