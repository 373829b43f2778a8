"""The air around the simulated device is believable, and changes."""

from __future__ import annotations

import struct
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import radio  # noqa: E402  (the repository's root has to be on the path first)
from lab.echo import checksum, echo_reply  # noqa: E402
from lab.neighbourhood import BANDS, AccessPoint, Channel, Neighbourhood  # noqa: E402


class Clock:
    """A clock that a test moves."""

    def __init__(self) -> None:
        self.now = 100.0

    def __call__(self) -> float:
        return self.now


def seen(neighbourhood: Neighbourhood, band: str) -> dict[bytes, float]:
    """Whom a scan hears, and how loudly."""
    return {point.bssid: point.signal for point in neighbourhood.scan(band)[1]}


@pytest.mark.parametrize("band", BANDS)
def test_a_scan_is_consistent_and_in_bounds(band: str) -> None:
    clock = Clock()
    neighbourhood = Neighbourhood(seed=1, clock=clock)
    for _ in range(50):
        clock.now += 60
        channels, heard = neighbourhood.scan(band)
        assert tuple(channel.number for channel in channels) == BANDS[band]
        assert sum(channel.count for channel in channels) == len(heard)
        signals = [point.signal for point in heard]
        assert signals == sorted(signals, reverse=True)
        assert all(-95 < signal < -30 for signal in signals)
        assert all(0 <= channel.interference <= 100 for channel in channels)
        assert all(-100 < channel.noise < -90 for channel in channels)


def test_the_same_seed_gives_the_same_neighbours() -> None:
    clocks = Clock(), Clock()
    first, second = (Neighbourhood(seed=9, clock=clock) for clock in clocks)
    for _ in range(5):
        for clock in clocks:
            clock.now += 300
        assert first.scan("5GHz") == second.scan("5GHz")
    assert seen(first, "2.4GHz") != seen(Neighbourhood(seed=8), "2.4GHz")


def test_time_changes_it_and_haste_does_not() -> None:
    clock = Clock()
    neighbourhood = Neighbourhood(seed=2, clock=clock)
    before = seen(neighbourhood, "2.4GHz")
    assert seen(neighbourhood, "2.4GHz") == before
    clock.now += 30
    later = seen(neighbourhood, "2.4GHz")
    assert later != before
    assert all(abs(later[bssid] - before[bssid]) < 15 for bssid in later.keys() & before.keys())
    everybody = {bssid for bssid in before}
    sizes = set()
    for _ in range(60):
        clock.now += 120
        there = seen(neighbourhood, "2.4GHz")
        everybody |= there.keys()
        sizes.add(len(there))
    assert len(sizes) > 2 and len(everybody) == 9, "they come and go"


def test_entries_are_as_wide_as_the_agent_reads_them() -> None:
    point = AccessPoint(b"abcdef", "s" * 40, "e" * 40, "5GHz", 44, -60, -60.6, 0.1, True)
    entry = radio.neighbour_entry(point)
    assert len(entry) == 88
    assert entry[:80] == b"abcdef" + b"s" * 32 + b"e" * 34 + struct.pack("=2i", 44, -61)
    row = radio.channel_entry(Channel(44, 1, -95, 2))
    assert row == struct.pack("=4i", 44, 1, -95, 2)
    reply = radio.result([row], [entry, entry])
    assert reply[:4] == struct.pack("=I", 1) and reply[10:12] == b"\2\1"
    assert reply[12:] == row + entry + entry
    assert radio.failure("no")[10:] == b"no\0"


def test_ping_checksums() -> None:
    assert checksum(b"\x00\x01\xf2\x03\xf4\xf5\xf6\xf7") == 0x220D
    assert checksum(echo_reply(5, 6, b"odd")) == 0
