"""What the configuration tests share: pushes, the steps that answer them, and the files."""

import json
from typing import Any

from lab.lab import Lab

CONFIG = "/mnt/flash/config/config.txt"
BACKUP = "/mnt/flash/config/bkup-config.txt"
FLAG = "/mnt/flash/config/DEVICE_RECONFIGURED"
PARTIAL = "/tmp/partial_config"
STEPS = {
    "Initiated": "Initiated configuration update operation.",
    "InProgress": "Config update in progress",
    "Complete": "Configuration applied successfully",
    "CompleteWithReboot": "Rebooting device to apply new configuration",
}
OBJECT_STEPS = ["Initiated", "InProgress", "Complete"]
REVERTED = [["-f", BACKUP], ["-e", "save"]]


def push(lab: Lab, unchecked: bool = False, **members: Any) -> None:
    """Sends a configuration update."""
    lab.controller.send({"msgType": 106, **members}, unchecked)


def expect_steps(lab: Lab, *words: str) -> None:
    """Waits for the next steps of an update; their texts are exact."""
    for word in words:
        event = lab.journal.wait("from-agent", lambda e: e["message"].get("msgType") in (406, 706),
                                 what=f"the step {word}")
        assert event["text"] == (
            f'{{"msgType": 406, "status": "{word}", "message": "{STEPS[word]}"}}'), event["text"]


def expect_failure(lab: Lab, code: str, message: str, timeout: float = 15.0) -> None:
    """Waits for the next answer to an update, which has to be this failure, byte for byte."""
    event = lab.journal.wait("from-agent", lambda e: e["message"].get("msgType") in (406, 706),
                             timeout, what="the failure of an update")
    assert event["text"] == (f'{{"msgType": 706, "code": "{code}", '
                             f'"message": {json.dumps(message, ensure_ascii=False)}}}'), event["text"]


def pull(lab: Lab, timeout: float = 15.0) -> str:
    """The configuration as the controller gets it, its line breaks as they come."""
    lab.controller.send({"msgType": 107})
    return lab.controller.wait_message(407, timeout)["config"]
