"""Makes a configuration true on the simulated device: its name, its "eth0", its route."""

import json
import socket
import subprocess
import sys

from lab.scmd.model import Config

UPLINK = "eth0"


def _ip(*words: str, check: bool = True) -> str:
    done = subprocess.run(["ip", *words], capture_output=True, text=True, check=False)
    if check and done.returncode != 0:
        print(f"ip {' '.join(words)}: {done.stderr.strip()}", file=sys.stderr)
    return done.stdout if done.returncode == 0 else ""


def _links() -> list[str]:
    return [link["ifname"] for link in json.loads(_ip("-j", "link") or "[]")]


def _addresses(link: str) -> list[str]:
    found = json.loads(_ip("-j", "-4", "address", "show", "dev", link, check=False) or "[]")
    return [f"{entry['local']}/{entry['prefixlen']}"
            for one in found for entry in one.get("addr_info", [])]


def _gateway() -> str:
    routes = json.loads(_ip("-j", "route", "show", "default") or "[]")
    return routes[0].get("gateway", "") if routes else ""


def _address_link(vlan: int) -> str:
    """The interface that bears the management address; "" where the kernel cannot make it."""
    wanted = f"{UPLINK}.{vlan}"
    for link in _links():
        if link.startswith(UPLINK + ".") and link != wanted:
            _ip("link", "delete", link)
    if vlan == 0:
        return UPLINK
    if wanted not in _links():
        _ip("link", "add", "link", UPLINK, "name", wanted, "type", "vlan", "id", str(vlan))
        if wanted not in _links():
            return ""
    _ip("link", "set", wanted, "up")
    return wanted


def apply(config: Config) -> None:
    """Changes what is not yet as the configuration says; returns when it is in force.

    A gateway that cannot be reached is not set: the device then has no way out, as a real one.
    """
    if socket.gethostname() != config["system"]["hostname"]:
        socket.sethostname(config["system"]["hostname"])
    management = config["management"]
    if management["address"] == "dhcp":
        return  # the DHCP client's business
    link = _address_link(management["vlan"])
    wanted = [management["address"]] if management["address"] != "none" else []
    if link != UPLINK:
        _ip("-4", "address", "flush", "dev", UPLINK)
    if link and _addresses(link) != wanted:
        _ip("-4", "address", "flush", "dev", link)
        for address in wanted:
            _ip("address", "add", address, "dev", link)
    if _gateway() != management["gateway"]:
        if _gateway():
            _ip("route", "delete", "default")
        if management["gateway"] and link:
            _ip("route", "add", "default", "via", management["gateway"], "dev", link)
