"""The device's configuration: what there is, what is right, and its two forms.

The object form is nested objects, as the controller sends it to the configuration daemon. The text
form is lines for the device's shell ("set radio0 channel 36"). Both are views of one complete
object with a value for every setting; `SETTINGS` and `SSID_SETTINGS` are all there is to know.
"""

import copy
import re
import shlex
from typing import Any, Callable, Iterator, NamedTuple

Config = dict[str, Any]
Check = Callable[[Any], Any]


class Wrong(Exception):
    """Something in a configuration is wrong; the text says what, for a human reader."""


class Setting(NamedTuple):
    """One setting: where it is in the object form, its words in the text form, what it may be."""

    path: tuple[str, ...]
    words: str
    default: Any
    check: Check
    item: str = ""
    """Its name in the flat file of items that the device's programs read."""


# -- what values may be ---------------------------------------------------------------------

def _text(pattern: str, meaning: str) -> Check:
    def check(value: Any) -> str:
        if not isinstance(value, str) or not re.fullmatch(pattern, value):
            raise Wrong(f"{shown(value)} is not {meaning}")
        return value
    return check


def _number(allowed: Any, meaning: str) -> Check:
    def check(value: Any) -> int:
        if isinstance(value, str) and re.fullmatch(r"\d{1,9}", value):
            value = int(value)  # as the shell reads it
        if isinstance(value, bool) or not isinstance(value, int) or value not in allowed:
            raise Wrong(f"{shown(value)} is not {meaning}")
        return value
    return check


def _switch(value: Any) -> bool:
    value = {"on": True, "off": False}.get(value, value) if isinstance(value, str) else value
    if not isinstance(value, bool):
        raise Wrong(f"{shown(value)} is neither on nor off")
    return value


def shown(value: Any) -> str:
    """A value as messages show it, on one line and not too long."""
    text = ascii(value) if not isinstance(value, str) else ascii(value)[1:-1]
    return text if len(text) <= 60 else text[:57] + "..."


_OCTET = r"(25[0-5]|2[0-4]\d|1\d\d|[1-9]?\d)"
_IPV4 = rf"{_OCTET}(\.{_OCTET}){{3}}"
_HOST = r"[A-Za-z0-9]([A-Za-z0-9.-]{0,61}[A-Za-z0-9])?"
_5_GHZ = (36, 40, 44, 48, 52, 56, 60, 64, 100, 104, 108, 112, 116, 120, 124, 128, 132, 136, 140)
_VLAN = _number(range(0, 4095), "a VLAN (0 to 4094)")

SETTINGS = (
    Setting(("system", "hostname"), "system hostname", "quill-lab",
            _text(_HOST, "a host name"), "hostname"),
    Setting(("system", "ntpServer"), "system ntp-server", "",
            _text(f"({_HOST})?", "a host name or address"), "ntp_server"),
    Setting(("log", "severity"), "log severity", 0,
            _number(range(0, 8), "a severity (1 to 7, 0 for none)"), "logging_syslog_sev"),
    Setting(("radios", "radio0", "enabled"), "radio0 enabled", True, _switch),
    Setting(("radios", "radio0", "channel"), "radio0 channel", 36,
            _number(_5_GHZ, "a channel of this radio (5 GHz)")),
    Setting(("radios", "radio0", "power"), "radio0 power", 20,
            _number(range(0, 24), "a power (0 to 23 dBm)")),
    Setting(("radios", "radio1", "enabled"), "radio1 enabled", True, _switch),
    Setting(("radios", "radio1", "channel"), "radio1 channel", 6,
            _number(range(1, 14), "a channel of this radio (2.4 GHz)")),
    Setting(("radios", "radio1", "power"), "radio1 power", 17,
            _number(range(0, 21), "a power (0 to 20 dBm)")),
    Setting(("management", "address"), "management address", "10.77.0.2/24",
            _text(rf"dhcp|none|{_IPV4}/(3[0-2]|[12]?\d)", "an address with its prefix length")),
    Setting(("management", "gateway"), "management gateway", "10.77.0.1",
            _text(f"({_IPV4})?", "an address")),
    Setting(("management", "vlan"), "management vlan", 0, _VLAN),
)
SSID_SETTINGS = (
    Setting(("security",), "security", "open",
            lambda value: _one_of(value, ("open", "wpa2-psk", "wpa3-sae"))),
    Setting(("passphrase",), "passphrase", "",
            _text(r"([\x20-\x7e]{8,63})?", "a passphrase (8 to 63 characters)")),
    Setting(("vlan",), "vlan", 0, _VLAN),
)
_SSID_NAME = _text(r"[\x21-\x7e]{1,32}", "the name of an SSID (1 to 32 characters)")
_MOST_SSIDS = 16


def _one_of(value: Any, allowed: tuple[str, ...]) -> str:
    if value not in allowed:
        raise Wrong(f"{shown(value)} is none of {', '.join(allowed)}")
    return value


# -- the object form ------------------------------------------------------------------------

def get(config: Config, path: tuple[str, ...]) -> Any:
    """The value at a path."""
    for step in path:
        config = config[step]
    return config


def _put(config: Config, path: tuple[str, ...], value: Any) -> None:
    for step in path[:-1]:
        config = config.setdefault(step, {})
    config[path[-1]] = value


def _checked(setting: Setting, value: Any, where: str) -> Any:
    try:
        return setting.check(value)
    except Wrong as wrong:
        raise Wrong(f"{where}: {wrong}") from None


def defaults() -> Config:
    """The configuration of a device that nobody has configured."""
    config: Config = {}
    for setting in SETTINGS:
        _put(config, setting.path, setting.default)
    return {**config, "ssids": {}}


def _leaves(value: Any, path: tuple[str, ...] = ()) -> Iterator[tuple[tuple[str, ...], Any]]:
    if not isinstance(value, dict):
        yield path, value
        return
    if path and any(setting.path == path for setting in SETTINGS):
        yield path, value
        return
    for name, inner in value.items():
        yield from _leaves(inner, (*path, name))


def merged(config: Config, part: Config) -> Config:
    """A copy of `config` with the values of `part`, an object that names only what it changes.

    An SSID whose value is null goes away. Raises Wrong and changes nothing if anything is wrong.
    """
    result = copy.deepcopy(config)
    known = {setting.path: setting for setting in SETTINGS}
    rest = dict(part)
    ssids = rest.pop("ssids", {})
    for path, value in _leaves(rest):
        if path not in known:
            raise Wrong(f"{shown('.'.join(path))}: unknown setting")
        _put(result, path, _checked(known[path], value, ".".join(path)))
    if not isinstance(ssids, dict):
        raise Wrong(f"ssids: {shown(ssids)} is not an object")
    for name, members in ssids.items():
        _merge_ssid(result, name, members)
    return complete(result)


def _merge_ssid(config: Config, name: str, members: Any) -> None:
    where = f"ssids.{shown(name)}"
    try:
        _SSID_NAME(name)
    except Wrong as wrong:
        raise Wrong(f"ssids: {wrong}") from None
    if members is None:
        config["ssids"].pop(name, None)
        return
    if not isinstance(members, dict):
        raise Wrong(f"{where}: {shown(members)} is not an object")
    known = {setting.path[0]: setting for setting in SSID_SETTINGS}
    ssid = config["ssids"].setdefault(name, {s.path[0]: s.default for s in SSID_SETTINGS})
    for member, value in members.items():
        if member not in known:
            raise Wrong(f"{where}.{shown(member)}: unknown setting")
        ssid[member] = _checked(known[member], value, f"{where}.{member}")


def complete(config: Config) -> Config:
    """The configuration, looked at as a whole; raises Wrong for what does not go together."""
    if len(config["ssids"]) > _MOST_SSIDS:
        raise Wrong(f"ssids: {len(config['ssids'])} are too many ({_MOST_SSIDS} at most)")
    for name, ssid in config["ssids"].items():
        if (ssid["security"] == "open") != (ssid["passphrase"] == ""):
            without = "must not have" if ssid["security"] == "open" else "needs"
            raise Wrong(f"ssids.{name}: security {ssid['security']} {without} a passphrase")
    return config


def items(config: Config) -> dict[str, str]:
    """The flat texts that the device's programs read; what is not set has an empty text."""
    return {setting.item: str(get(config, setting.path) or "")
            for setting in SETTINGS if setting.item}


# -- the text form --------------------------------------------------------------------------

def _written(value: Any) -> str:
    if isinstance(value, bool):
        return "on" if value else "off"
    return shlex.quote(str(value))


def to_lines(config: Config) -> list[str]:
    """The whole configuration for the shell; carried out on any other it gives this one."""
    lines = ["defaults"]
    for setting in SETTINGS:
        lines.append(f"set {setting.words} {_written(get(config, setting.path))}")
    for name, ssid in config["ssids"].items():
        for setting in SSID_SETTINGS:
            value = ssid[setting.path[0]]
            if value != setting.default or setting is SSID_SETTINGS[0]:
                lines.append(f"set ssid {shlex.quote(name)} {setting.words} {_written(value)}")
    return lines


def carry_out(config: Config, line: str) -> Config:
    """The configuration after one line of the text form; raises Wrong for what it cannot be."""
    try:
        words = shlex.split(line, comments=True)
    except ValueError as error:
        raise Wrong(f"{shown(line)}: {error}".lower()) from None
    if not words:
        return config
    if words == ["defaults"]:
        return defaults()
    if words[:2] == ["delete", "ssid"] and len(words) == 3:
        if words[2] not in config["ssids"]:
            raise Wrong(f"there is no SSID {shown(words[2])}")
        return {**config, "ssids": {k: v for k, v in config["ssids"].items() if k != words[2]}}
    if words[:2] == ["set", "ssid"] and len(words) == 5:
        return _set_ssid(config, *words[2:])
    if words[0] == "set" and len(words) == 4:
        for setting in SETTINGS:
            if setting.words == " ".join(words[1:3]):
                result = copy.deepcopy(config)
                _put(result, setting.path, _checked(setting, words[3], setting.words))
                return result
    raise Wrong(f"{shown(line.strip())}: unknown command")


def _set_ssid(config: Config, name: str, word: str, value: str) -> Config:
    for setting in SSID_SETTINGS:
        if setting.words == word:
            result = copy.deepcopy(config)
            _merge_ssid(result, name, {setting.path[0]: value})
            return result
    raise Wrong(f"ssid {shown(name)}: there is no {shown(word)}")
