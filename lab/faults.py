"""What can go wrong around the device, on demand: each fault begins, and most end when told to.

The parts of the lab are moved here as tests move them; this keeps account of what is broken, so
that a person sees it and can mend it.
"""

import signal
import subprocess
from collections.abc import Callable
from typing import TYPE_CHECKING, Any, NamedTuple, Optional

from lab import flashfull
from lab.controller import Refusal, Silence
from lab.journal import Event
from lab.names import CLOUD_HOST, CONTROLLER_HOST

if TYPE_CHECKING:  # the lab owns these faults
    from lab.lab import Lab


class FaultError(Exception):
    """The fault cannot begin or end now; the text says why."""


class Fault(NamedTuple):
    """One fault. Its name is for programs, its title for people; `watch` is what to look for."""

    name: str
    title: str
    meaning: str
    watch: str
    begin: Callable[["Lab", dict[str, Any]], None]
    """Gets the lab and a place to keep what `end` needs."""
    end: Optional[Callable[["Lab", dict[str, Any]], None]] = None
    """None: it is over as soon as it has happened."""
    hindrance: Callable[["Lab"], str] = lambda _lab: ""
    """Why it cannot happen now, "" if it can."""


# -- the cable ------------------------------------------------------------------------------

def _cut(lab: "Lab", _kept: dict[str, Any]) -> None:
    lab.network.cut()


def _black_hole(lab: "Lab", _kept: dict[str, Any]) -> None:
    lab.network.black_hole()


def _link_back(lab: "Lab", _kept: dict[str, Any]) -> None:
    lab.network.restore()


# -- the controller -------------------------------------------------------------------------

def _drop(lab: "Lab", _kept: dict[str, Any]) -> None:
    lab.controller.kill()


def _unconnected(lab: "Lab") -> str:
    return "there is no connection to drop" if lab.controller.newest is None else ""


def _stall(lab: "Lab", kept: dict[str, Any]) -> None:
    kept["registration"] = lab.controller.on_register
    lab.controller.answer_pings, lab.controller.on_register = False, Silence()


def _unstall(lab: "Lab", kept: dict[str, Any]) -> None:
    lab.controller.answer_pings, lab.controller.on_register = True, kept["registration"]


def _refuse(lab: "Lab", kept: dict[str, Any]) -> None:
    kept["registration"] = lab.controller.on_register
    lab.controller.on_register = Refusal()
    if lab.controller.newest is not None:
        lab.controller.kill()


def _accept(lab: "Lab", kept: dict[str, Any]) -> None:
    lab.controller.on_register = kept["registration"]


def _controller_off(lab: "Lab", _kept: dict[str, Any]) -> None:
    lab.controller.stop()


def _controller_on(lab: "Lab", _kept: dict[str, Any]) -> None:
    lab.controller.start()


def _show_certificate(lab: "Lab", valid_from: float, valid_to: float) -> None:
    leaf = lab.authority.leaf([CLOUD_HOST, CONTROLLER_HOST], valid_from=valid_from,
                              valid_to=valid_to)
    for service in (lab.onboarding, lab.controller):
        service.certificates.use(leaf)


def _expire(lab: "Lab", _kept: dict[str, Any]) -> None:
    _show_certificate(lab, -30.0, -1.0)
    if lab.controller.newest is not None:
        lab.controller.kill()


def _renew(lab: "Lab", _kept: dict[str, Any]) -> None:
    _show_certificate(lab, -1.0, 365.0)


# -- the device -----------------------------------------------------------------------------

def _fill_flash(lab: "Lab", _kept: dict[str, Any]) -> None:
    try:
        flashfull.fill(lab.device)
    except subprocess.CalledProcessError as error:
        raise FaultError(f"the flash could not be filled: {error.stderr.strip()}") from None


def _free_flash(lab: "Lab", _kept: dict[str, Any]) -> None:
    flashfull.free(lab.device)


def _kill_agent(lab: "Lab", _kept: dict[str, Any]) -> None:
    lab.supervisor.send_signal(signal.SIGKILL)


def _not_running(lab: "Lab") -> str:
    return "" if lab.supervisor.running else "the agent is not running"


def _power_cycle(lab: "Lab", _kept: dict[str, Any]) -> None:
    lab.reboot()


_TABLE = (
    Fault("link-cut", "Cut the cable", "The cable at eth0 is pulled: both ends lose their carrier.",
          "The agent misses its pongs, gives the connection up and looks for the controller anew.",
          _cut, _link_back),
    Fault("black-hole", "Swallow every frame",
          "The link stays up, but no frame passes in either direction.",
          "Nothing tells the agent but the pongs that it misses.", _black_hole, _link_back),
    Fault("drop-connection", "Drop the connection",
          "The controller resets the websocket without a word.",
          "The device is back within seconds.", _drop, hindrance=_unconnected),
    Fault("stall", "Stall the controller",
          "It takes connections and messages, but answers neither pings nor registrations.",
          "After five pings without a pong the agent closes and connects again, and waits for "
          "an answer to its registration.", _stall, _unstall),
    Fault("refuse", "Refuse the registration",
          "The connection is dropped and the registration is answered with 700.",
          "The agent waits longer and longer between its attempts.", _refuse, _accept),
    Fault("controller-off", "Switch the controller off", "Nobody listens at its port.",
          "The agent finds the controller's address, but nobody takes the connection.",
          _controller_off, _controller_on),
    Fault("certificate", "Expire the certificate",
          "Onboarding and controller show a certificate that expired yesterday; the connection is "
          "dropped.", "The agent refuses to talk to them until they show a good one.",
          _expire, _renew),
    Fault("flash-full", "Fill the flash", "Nothing can be written to /mnt/flash any more.",
          "A configuration that is pushed now is refused, and the old one stays.",
          _fill_flash, _free_flash),
    Fault("kill-agent", "Kill the agent", "SIGKILL, as the kernel does when memory runs out.",
          "The supervisor starts it again after a second.", _kill_agent, hindrance=_not_running),
    Fault("power-cycle", "Pull the power", "The device starts anew; only its flash is kept.",
          "It comes back with the configuration and the controller that it knew.", _power_cycle),
)
FAULTS = {fault.name: fault for fault in _TABLE}
_ONE_OF = (("link-cut", "black-hole"), ("stall", "refuse"))
"""Faults that would undo each other: only one of a pair at a time."""


def fault_words(event: Event) -> str:
    """What a "fault" event of the journal says."""
    if not event["lasting"]:
        return f"fault: {event['title'].lower()}"
    return f"fault {'begins' if event['active'] else 'is over'}: {event['title'].lower()}"


class Faults:
    """What is broken in a lab; calls may block, and come from any thread but the services' own."""

    def __init__(self, lab: "Lab") -> None:
        self._lab = lab
        self._active: dict[str, dict[str, Any]] = {}
        lab.journal.subscribe(self._listen)

    @property
    def active(self) -> list[str]:
        """The names of the faults that have begun and not ended."""
        return list(self._active)

    def begin(self, name: str) -> None:
        """Lets this fault happen; FaultError if it has already begun or cannot."""
        fault = FAULTS[name]
        if name in self._active:
            raise FaultError(f"{fault.title!r} has begun already")
        for pair in _ONE_OF:
            for other in pair:
                if name in pair and other in self._active:
                    raise FaultError(f"end {FAULTS[other].title!r} first")
        hindrance = fault.hindrance(self._lab)
        if hindrance:
            raise FaultError(hindrance)
        kept: dict[str, Any] = {}
        self._lab.journal.note("fault", name=name, title=fault.title, active=True,
                               lasting=fault.end is not None)
        if fault.end is not None:
            self._active[name] = kept
        try:
            fault.begin(self._lab, kept)
        except BaseException:
            if self._active.pop(name, None) is not None:
                self._note_end(fault)
            raise

    def end(self, name: str) -> None:
        """Mends it; FaultError if it has not begun."""
        fault = FAULTS[name]
        if name not in self._active or fault.end is None:
            raise FaultError(f"{fault.title!r} has not begun")
        fault.end(self._lab, self._active[name])
        del self._active[name]
        self._note_end(fault)

    def _note_end(self, fault: Fault) -> None:
        self._lab.journal.note("fault", name=fault.name, title=fault.title, active=False,
                               lasting=True)

    def _listen(self, event: Event) -> None:
        """A reboot gives the device a fresh mount of its flash, which is then as full as before."""
        if event.kind == "rebooted" and "flash-full" in self._active:
            flashfull.fill(self._lab.device)
