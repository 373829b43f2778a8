"""Sees every connection status that the device shows, in order: what a person in front of it sees."""

import os
from typing import Optional

from lab import linux
from lab.device import Device
from lab.journal import Journal
from lab.world import World

PATH = "/tmp/orv_state"
_EVENTS = linux.IN_CLOSE_WRITE | linux.IN_MOVED_TO


class ShownStatus:
    """Notes each new text as a "status" event with "text"; watches again after a reboot.

    A text that is replaced in the same breath ("Not Connected" on the way to "Connecting") may go
    unseen here, as it does for everybody else.
    """

    def __init__(self, world: World, journal: Journal, device: Device) -> None:
        self._world = world
        self._journal = journal
        self._device = device
        self._fd = -1
        self._last: Optional[str] = None

    def start(self) -> None:
        """Watches the (running) device from now on."""
        self._world.call(self._open)

    def _open(self) -> None:
        folder = f"/proc/{self._device.pid}/root{os.path.dirname(PATH)}"
        self._fd = linux.watch_folder(folder, _EVENTS)
        self._last = None
        self._world.loop.add_reader(self._fd, self._look)

    def stop(self) -> None:
        """Watches no more."""
        if self._fd != -1:
            self._world.call(self._close)

    def _close(self) -> None:
        self._world.loop.remove_reader(self._fd)
        os.close(self._fd)
        self._fd = -1

    def _look(self) -> None:
        if os.path.basename(PATH) not in linux.changed_names(os.read(self._fd, 65536)):
            return
        try:
            text = self._device.read_text(PATH)
        except FileNotFoundError:
            return
        if text != self._last:
            self._last = text
            self._journal.note("status", text=text)

    def texts(self, since: int = 0) -> list[str]:
        """The texts so far, without those that nobody can have read: "Not Connected" in passing."""
        texts = [event["text"] for event in self._journal.events("status", since)]
        passing = [text == "Not Connected" and following.startswith("Connecting")
                   for text, following in zip(texts, texts[1:])] + [False]
        lasting = [text for text, passed in zip(texts, passing) if not passed]
        return [text for text, before in zip(lasting, [None, *lasting]) if text != before]

    def wait(self, text: str, timeout: float = 20.0) -> None:
        """Waits until this text is shown (or has been, if nobody waited for it)."""
        self._journal.wait("status", lambda e: e["text"] == text, timeout,
                           what=f"the status {text!r} to be shown")
