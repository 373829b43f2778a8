"""What the tests of software upgrades share: stand-ins for the downloading program, the stages."""

from typing import Any

from lab.lab import Lab

PROGRESS = "/tmp/firmware.progress"
IMAGE = "/tmp/firmware"
SCRIPT = "/usr/bin/scripts/upgrade.sh"
URL = "https://files.cloud.orvanta.example/fw.img"
STAGES = {
    "Initiated": "Downloading firmware",
    "OnGoing": "Upgrade in progress",
    "InProgress": "Writing firmware to flash",
    "UpdateComplete": "Update finished, waiting for reboot",
    "Rebooting": "Rebooting device",
}
RESULTS = {
    1: ("GenericError", "Generic Error"),
    2: ("GenericError", "Generic Error"),
    3: ("DownloadFailed", "SW update file download failed"),
    4: ("UnpackFailed", "Unpack failed, damaged or wrong format package"),
    5: ("FwDSCheckFailed", "Firmware digital signature check failed"),
    6: ("BootloaderDSCheckFailed", "Bootloader digital signature check failed"),
    7: ("FwFlashingFailed", "Firmware FLASH write failed"),
    8: ("BootloaderFlashingFailed", "Bootloader FLASH write failed"),
    9: ("BootPartitionSwitchFailed", "Boot partition switch failed"),
    10: ("UnsupportedSKU", "Board SKU is not supported for this firmware"),
    11: ("UnknownSwVersion", "Can't read firmware version, upgrade is impossible"),
    12: ("DowngradeUnsupportedWithWiFiMode", "Down-grade not supported for 802.11 driver"),
    13: ("DowngradeUnsupportedWithLockedGPS",
         "Down-grade below 2.3.1 not supported on boards where the GPS is locked"),
    14: ("UnknownError", "Software update failed due to unknown reason"),
}
UNKNOWN = RESULTS[14]
BUSY = ("FwUpdateInProgress", "Another upgrade in progress, please try after some time")

_REPORT = """#!/usr/bin/python3 -SB
import socket, sys
with open("/tmp/firmware", "w") as image:
    image.write("an image")
socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).sendto({report!r}.encode(), sys.argv[2])
print("100 percent")
"""


def reporting(report: str = '{"msgType":401,"status":"Complete"}') -> str:
    """A downloading program that has an image at once and reports this."""
    return _REPORT.format(report=report)


LASTING = "#!/bin/sh\necho $$ >/run/lab/shared/fw_dl.pid\nexec sleep 100000\n"
"""One that has no end."""


def ask(lab: Lab, url: str = URL, **members: Any) -> None:
    """Sends an upgrade request."""
    lab.controller.send({"msgType": 101, "url": url, **members})


def expect_stages(lab: Lab, *words: str, timeout: float = 15.0) -> None:
    """Waits for the next stages; each is exact."""
    for word in words:
        expect(lab, f'{{"msgType": 401, "status": "{word}", "message": "{STAGES[word]}"}}', timeout)


def expect_failure(lab: Lab, code: str, message: str, timeout: float = 15.0) -> None:
    """Waits for the next answer, which has to be this failure."""
    expect(lab, f'{{"msgType": 701, "code": "{code}", "message": "{message}"}}', timeout)


def expect(lab: Lab, text: str, timeout: float) -> None:
    """Waits for the next message about the upgrade, which has to be this one."""
    event = lab.journal.wait("from-agent", lambda e: e["message"].get("msgType") in (401, 701),
                             timeout, what=text)
    assert event["text"] == text, event["text"]
