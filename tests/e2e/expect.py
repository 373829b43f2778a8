"""The exact texts of a device in the lab, and small helpers shared by the tests."""

import datetime
import json
import time
from typing import Any, Callable, Iterable

from lab import device_image, names, network
from lab.journal import Event
from lab.lab import Lab

MAC = network.MACS["eth0"]
PARENT_MAC = network.SWITCH_MAC.upper()
SERIAL = device_image.SERIAL_NUMBER
DEVICE_ID = "lab-device-1"
CLOUD = names.CLOUD_HOST
CONTROLLER = names.CONTROLLER_HOST
AGENT_VERSION = "2.78"
USER_AGENT = f"ovDA/1.0 (Quill/{device_image.SOFTWARE_VERSION}; DA/{AGENT_VERSION})"
FASTER = "+0 x30"
"""The agent's clock where it has to wait a minute or more."""
COOKIE = "/mnt/flash/config/device_id_cookie"
STATIC_URL = "/mnt/flash/config/orv_static_url"


def onboarding_request(host: str = CLOUD, port: int = 443, cookie: str = "", token: str = "",
                       serial: str = SERIAL) -> str:
    """The device's onboarding request, byte for byte."""
    text = f"GET /orv-onboarding/device?mac={MAC}&type=Quill"
    text += f"&serialNo={serial}" if serial else ""
    text += f"&velmoraId={token}" if token else ""
    text += " HTTP/1.1\r\n"
    text += f"cookie:deviceId={cookie}\r\n" if cookie else ""
    return text + f"HOST:{host}:{port}\r\nUser-Agent:{USER_AGENT}\r\n\n"


def register_text(session: int, parent_mac: str = PARENT_MAC) -> str:
    """The device's REGISTER, byte for byte."""
    return (
        f'{{"msgType": 100, "sessId": {session}, "mac": "{MAC}", "pMAC": "{parent_mac}", '
        f'"serialNo": "{SERIAL}", "type": "Quill", "model": "SA", "productName": "Strata SA", '
        f'"hostname": "{device_image.HOSTNAME}", "ipAddress": "{network.DEVICE_ADDRESS}", '
        '"mode": "wi-fi", "configVersion": 1, '
        f'"activeSwVersion": "{device_image.SOFTWARE_VERSION}", "inActiveSwVersion": "4.1.9", '
        f'"hwVersion": "6", "daVersion": "{AGENT_VERSION}", "swUpdateState": 0, "lumira": true}}')


def board(lab: Lab, **changes: Any) -> None:
    """Changes members of the device's board description; None takes one away."""
    facts = {**device_image.BOARD, **changes}
    facts = {name: value for name, value in facts.items() if value is not None}
    lab.device.write_text("/etc/velmora/board.json", json.dumps(facts))


def in_order(lines: Iterable[str], texts: list[str]) -> None:
    """Asserts that lines with these texts come in this order, others between them or not."""
    rest = iter(lines)
    for text in texts:
        assert any(text in line for line in rest), f"not in the log, or not in order: {text!r}"


def log_time(event: Event) -> datetime.datetime:
    """When the agent, by its own clock, wrote a log line."""
    return datetime.datetime.strptime(event["line"][:19], "%Y-%m-%d %H:%M:%S")


def seconds_between(first: Event, second: Event) -> float:
    """The seconds of the agent's clock between two log lines (whole seconds: +-1)."""
    return (log_time(second) - log_time(first)).total_seconds()


def agent_pid_inside(lab: Lab) -> int:
    """The agent's process id as the device numbers it."""
    with open(f"/proc/{lab.supervisor.pid}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith("NSpid:"):
                return int(line.split()[-1])
    raise AssertionError("no NSpid")


def replies(lab: Lab) -> list[dict[str, Any]]:
    """The agent's messages, but for the report that the lab asks for after each registration."""
    return [message for message in lab.controller.messages() if message.get("msgType") != 404]


def fence(lab: Lab) -> dict[str, Any]:
    """A request whose answer shows that everything sent before it has been dealt with."""
    lab.controller.send({"msgType": 123})
    return lab.controller.wait_message(423)


def block_place(lab: Lab, path: str) -> None:
    """No socket can be bound there: a folder that can be neither removed nor moved aside."""
    lab.device.run(["mkdir", "-p", path + "/full", path + ".aside/full"], check=True)


def until(lab: Lab, condition: Callable[[], bool], what: str, timeout: float = 15.0) -> None:
    """Waits for what shows in the device's files only; `what` names it in the failure."""
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, f"waited {timeout:g} s for {what}\n{lab.explain()}"
        time.sleep(0.02)
