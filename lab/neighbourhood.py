"""The air around the device: access points whose signals drift, that come and go, and the channels
they share. A believable one, not a measured one; the same seed gives the same neighbours."""

import random
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass

BANDS = {"2.4GHz": (1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13),
         "5GHz": (36, 40, 44, 48, 52, 56, 60, 64, 100, 104, 108, 112, 116, 132, 136, 140)}
_LIKED = {"2.4GHz": (1, 6, 11), "5GHz": (36, 40, 44, 48, 100)}
"""Where most people leave their access points."""

_OVERLAP = {"2.4GHz": 4, "5GHz": 0}
"""How far, in channel numbers, an access point disturbs its neighbours on the band."""

_PEOPLE = (("Bakery", "WPA2"), ("Hall 3", "WPA2/WPA3"), ("", "WPA2"), ("Caf\u00e9 Anna", "Open"),
           ("Quill-Guest", "Open"), ("TV living room", "WPA2"), ("\u6771\u4eac\u5bff\u53f8", "WPA3"),
           ("Workshop", "WPA2"), ("linen", "WPA/WPA2"), ("Reception", "WPA2-Enterprise"),
           ("Printer-4F21", "Open"), ("attic", "WPA3"))
_MAKERS = ("001018", "001B63", "0050F2", "0024E4", "FCECDA", "02004C")
"""Prefixes of real makers, and one of nobody's: who made an access point is found by them."""

_FLOOR, _FAINTEST, _LOUDEST = -96, -92, -38
_STEP_SECONDS, _STEPS_AT_MOST = 5.0, 720


@dataclass
class AccessPoint:
    """One access point; `signal` in dBm, `load` how much of the air it takes, 0 to 1."""

    bssid: bytes
    ssid: str
    encryption: str
    band: str
    channel: int
    usual: float
    signal: float
    load: float
    there: bool


@dataclass
class Channel:
    """One channel as a scan finds it; `interference` in percent, `noise` in dBm."""

    number: int
    interference: int
    noise: int
    count: int


class Neighbourhood:
    """The access points of both bands. Each look lets as much time pass as has passed."""

    def __init__(self, seed: int = 4, clock: Callable[[], float] = time.monotonic) -> None:
        self._dice = random.Random(seed)
        self._clock = clock
        self._looked = clock()
        self.points = [point for band in BANDS for point in self._settle(band)]

    def _settle(self, band: str) -> Iterator[AccessPoint]:
        for ssid, encryption in self._dice.sample(_PEOPLE, 9 if band == "2.4GHz" else 6):
            bssid = bytes.fromhex(self._dice.choice(_MAKERS)) + self._dice.randbytes(3)
            usual = self._dice.uniform(-85, -45)
            yield AccessPoint(bssid, ssid, encryption, band, self._choose(band), usual, usual,
                              self._dice.betavariate(1.2, 6), self._dice.random() < 0.85)

    def _choose(self, band: str) -> int:
        return self._dice.choice(_LIKED[band] if self._dice.random() < 0.8 else BANDS[band])

    def pass_time(self, seconds: float) -> None:
        """Lets this much time pass over the neighbourhood."""
        for _ in range(min(int(seconds / _STEP_SECONDS), _STEPS_AT_MOST)):
            for point in self.points:
                self._step(point)

    def _step(self, point: AccessPoint) -> None:
        pull = 0.1 * (point.usual - point.signal)
        point.signal = min(max(point.signal + pull + self._dice.gauss(0, 1.2), _FAINTEST), _LOUDEST)
        point.load = min(max(point.load + self._dice.gauss(0, 0.03), 0.01), 0.9)
        if self._dice.random() < (0.01 if point.there else 0.04):
            point.there = not point.there
        if self._dice.random() < 0.002:  # it has looked for a better channel
            point.channel = self._choose(point.band)

    def scan(self, band: str) -> tuple[list[Channel], list[AccessPoint]]:
        """What a radio of this band finds now: its channels, and whom it hears, the loudest first."""
        now = self._clock()
        steps = int((now - self._looked) / _STEP_SECONDS)
        self._looked += steps * _STEP_SECONDS
        self.pass_time(steps * _STEP_SECONDS)
        heard = [point for point in self.points if point.there and point.band == band]
        heard.sort(key=lambda point: -point.signal)
        return [self._channel(band, number, heard) for number in BANDS[band]], heard

    def _channel(self, band: str, number: int, heard: list[AccessPoint]) -> Channel:
        disturbance = 0.0
        for point in heard:
            apart = abs(point.channel - number)
            if apart <= _OVERLAP[band]:
                nearness = 1 - apart / (_OVERLAP[band] + 1)
                disturbance += nearness * point.load * (point.signal - _FLOOR) / (_LOUDEST - _FLOOR)
        count = sum(point.channel == number for point in heard)
        return Channel(number, min(round(100 * disturbance) + self._dice.randint(0, 3), 100),
                       _FLOOR + self._dice.randint(0, 3), count)
