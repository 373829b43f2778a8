"""Commands that renew the device's firmware and fetch its support archive, to the end."""

import asyncio
import contextlib
import json
import tarfile
import time
from collections.abc import AsyncIterator
from pathlib import Path
from typing import Any, Optional

from lab.controller import REGISTER, REGISTER_SUCCESS, Connection
from lab.desk import NOT_UNDERSTOOD, Desk, Failed, Outcome, told, words
from lab.firmwarefaults import FAULTS
from lab.journal import Event
from lab.lab import Lab

UPGRADE, SUPPORT = 101, 113
_STAGE, _UPGRADE_FAILURE, _SUPPORT_FAILURE = 401, 701, 713
_SECONDS = 900.0
_PROGRESS = "HTTPS_fw_dl: "
_UPLOAD_ENDED = "Upload process exited ."
_UPLOAD_EVENT = "TechSupportUpload"
_LAST_WORDS_SECONDS = 5.0
_ROOM = 16 * 1024
"""Bytes that a full disk still takes."""

Events = "asyncio.Queue[Event]"


# -- upgrade --------------------------------------------------------------------------------

def _open_store(lab: Lab) -> None:
    """Starts what serves images and takes uploads."""
    try:
        lab.files.start()
    except FileNotFoundError as error:  # a server program that is not installed
        raise Failed(str(error)) from None


def _offer(lab: Lab, version: str, fault: Optional[str]) -> str:
    """Makes an image, puts it where the device can fetch it, and returns the URL."""
    _open_store(lab)
    image = lab.firmware.image(version, fault=fault if fault in FAULTS else None)
    return lab.files.serve(f"fw-{version}.img", image)


@contextlib.asynccontextmanager
async def _device_fault(lab: Lab, fault: Optional[str]) -> AsyncIterator[None]:
    """The device's part of a fault: a script that ends as it is told, or no room for the image."""
    scripted = fault is not None and fault.startswith("status=")
    if scripted:
        lab.device.script_tool("upgrade.sh", int(fault.partition("=")[2]))
    if fault == "full-disk":
        await asyncio.to_thread(_limit_room, lab)
    try:
        yield
    finally:
        if scripted:
            lab.device.unscript_tool("upgrade.sh")
        if fault == "full-disk":
            await asyncio.to_thread(lab.device.run, ["mount", "-o", "remount,size=50%", "/tmp"])


def _limit_room(lab: Lab) -> None:
    used = lab.device.run(["df", "--output=used", "-B1", "/tmp"], check=True).stdout.split()[1]
    lab.device.run(["mount", "-o", f"remount,size={int(used) + _ROOM}", "/tmp"], check=True)


async def upgrade(desk: Desk, version: str = "", url: str = "", auto_reboot: bool = False,
                  fault: Optional[str] = None) -> Outcome:
    """Renews the device's firmware by an image that is made here, or by one from elsewhere. Done when
    it is in the flash; with `auto_reboot` when the device is registered with it.

    `fault` is one of `lab.firmware.FAULTS`, "full-disk" or "status=N" (of the device's script).
    """
    desk.connection()
    async with desk.turn(_SECONDS), _device_fault(desk.lab, fault):
        if not url:
            url = await asyncio.to_thread(_offer, desk.lab, version, fault)
        with desk.listening() as events:
            await _stages(desk, events, url, auto_reboot)
            if not auto_reboot:
                return Outcome(True, "the new firmware is in the flash; the device runs it after "
                                     "its next reboot (./dev ctl reboot)")
            register = await _comes_back(desk, events)
    active, standby = register["activeSwVersion"], register["inActiveSwVersion"]
    if version and active != version:
        raise Failed(f"the device is back with {active}, not with {version}")
    return Outcome(True, f"the device runs {active}, and {standby} stands by",
                   {"active": active, "standby": standby})


async def _stages(desk: Desk, events: Events, url: str, auto_reboot: bool) -> None:
    """Asks for the upgrade and shows its stages; returns when the device has written its flash."""
    text = json.dumps({"msgType": UPGRADE, "url": url, "autoReboot": auto_reboot})
    connection = desk.connection()
    await _deliver(desk, connection, text)
    last = "Rebooting" if auto_reboot else "UpdateComplete"
    while True:
        event = await events.get()
        if event.kind == "log" and event["message"].startswith(_PROGRESS):
            await desk.note(event["message"].removeprefix(_PROGRESS).strip())
        answer = await _answer(desk, event, connection, text, (_STAGE, _UPGRADE_FAILURE))
        if answer.get("status") == last:
            return


async def _deliver(desk: Desk, connection: Connection, text: str) -> None:
    try:
        await desk.lab.controller.deliver(connection, text)
    except ConnectionError as error:
        raise Failed(f"the device is not connected: {error}") from None


async def _answer(desk: Desk, event: Event, connection: Connection, sent: str,
                  answers: tuple[int, ...]) -> dict[str, Any]:
    """The message if this event is one of the answers, else {}; what was sent and the answers are
    shown. Fails on a bad answer and when the connection has ended."""
    if event.data.get("connection") is not connection:
        return {}
    if event.kind == "disconnected":
        raise Failed("the device closed the connection before it had finished")
    if event.kind == "to-agent" and event["text"] == sent:
        await desk.tell(told(event))
    if event.kind != "from-agent" or event["message"].get("msgType") not in (*answers,
                                                                            NOT_UNDERSTOOD):
        return {}
    await desk.tell(told(event))
    if "code" in event["message"]:
        raise Failed(words(event["message"]))
    return event["message"]


_HAPPENINGS = {
    "disconnected": lambda event: f'the device says good-bye: "{event["reason"]}"',
    "rebooting": lambda event: "the device goes down",
    "rebooted": lambda event: "the device is up again",
    "connected": lambda event: f"connection {event['connection'].number} opened",
}


async def _comes_back(desk: Desk, events: Events) -> dict[str, Any]:
    """Shows how the device reboots; returns the REGISTER with which it has been accepted."""
    rebooted, register = False, {}
    while True:
        event = await events.get()
        if event.kind in _HAPPENINGS:
            rebooted |= event.kind == "rebooted"
            await desk.tell({"kind": "event", "time": event.wall,
                             "text": _HAPPENINGS[event.kind](event)})
        if not rebooted or event.kind not in ("from-agent", "to-agent"):
            continue
        number = told(event)["number"]
        if number == REGISTER:
            register = event["message"]
        if number in (REGISTER, REGISTER_SUCCESS):
            await desk.tell(told(event))
        if number == REGISTER_SUCCESS and register:
            return register


# -- support archive ------------------------------------------------------------------------

async def support_archive(desk: Desk, name: str = "") -> Outcome:
    """Has the device upload an archive of its logs and its state, and looks into it: "path" is
    where it lies, "members" what it holds (name and size)."""
    desk.connection()
    name = name or time.strftime("support-%Y%m%d-%H%M%S.tar.gz")
    async with desk.turn(_SECONDS):
        await asyncio.to_thread(_open_store, desk.lab)
        url = desk.lab.files.upload_url(name)
        event = await _uploaded(desk, url, name)
    path = desk.lab.files.uploaded_path(name)
    if not path.exists():
        raise Failed(str(event.get("desc", "nothing was uploaded")))
    members = await asyncio.to_thread(_look_into, path)
    return Outcome(True, f"{len(members)} files in {path.stat().st_size} bytes",
                   {"path": str(path), "name": name, "members": members})


async def _uploaded(desk: Desk, url: str, name: str) -> dict[str, Any]:
    """Asks for the archive; returns the event that tells what became of its upload."""
    text = json.dumps({"msgType": SUPPORT, "url": url, "filename": name,
                       "contentType": "application/gzip"})
    connection = desk.connection()
    with desk.listening() as events:
        await _deliver(desk, connection, text)
        patience: Optional[float] = None
        while True:
            try:
                event = await asyncio.wait_for(events.get(), patience)
            except TimeoutError:
                raise Failed("the uploading program ended without a word") from None
            if event.kind == "log" and event["message"] == _UPLOAD_ENDED:
                patience = _LAST_WORDS_SECONDS
            if event.kind == "trap" and _is_upload_event(event["data"]):
                await desk.tell({"kind": "received", "time": event.wall, "number": 699,
                                 "name": "event-trap", "text": event["text"]})
                return json.loads(event["data"])
            await _answer(desk, event, connection, text, (_SUPPORT_FAILURE,))


def _is_upload_event(data: bytes) -> bool:
    try:
        return json.loads(data).get("eId") == _UPLOAD_EVENT
    except (ValueError, AttributeError):
        return False


def _look_into(path: Path) -> list[tuple[str, int]]:
    """The files of an archive with their sizes, each read to its end."""
    try:
        with tarfile.open(path, "r:gz") as archive:
            return [(member.name, len(archive.extractfile(member).read()))
                    for member in archive if member.isfile()]
    except (tarfile.TarError, OSError, EOFError) as error:
        raise Failed(f"the archive does not open: {error}") from None


COMMANDS = {"upgrade": upgrade, "support-archive": support_archive}
