"""What a person can have the device look at: its radio neighbourhood and the way to a host.

Commands as in `commands`, which collects them.
"""

from collections.abc import Awaitable, Callable
from typing import Any, Optional

from lab.desk import Desk, Failed, Outcome, answers

_RADIO_SCAN, _SCAN_RESULT, _SCAN_FAILURE = 111, 411, 711
_LATENCY_TEST, _LATENCY_RESULT, _LATENCY_REFUSAL = 112, 412, 712
_SCAN_SECONDS = 130.0
"""A little longer than the agent waits for the Wi-Fi daemon."""
_LATENCY_SECONDS = 40.0
"""Three probes of up to two seconds each, and the look-ups of a name server that is slow."""
_NO_RADIO = "does not support scanning"


async def scan(desk: Desk, band: str) -> Outcome:
    """Scans a band: "result" is the device's report."""
    async with desk.turn(_SCAN_SECONDS):
        try:
            result = await desk.ask({"msgType": _RADIO_SCAN, "band": band},
                                    answers(_SCAN_RESULT, _SCAN_FAILURE))
        except Failed as failed:
            if _NO_RADIO not in str(failed):
                raise
            raise Failed(f"{failed} (./dev run --sku 0 has a 5GHz radio that can scan, --sku 3 one "
                         "of 2.4GHz)") from None
    return Outcome(True, f"{len(result['channelInfo'])} channels, "
                   f"{len(result['neighborInfo'])} access points", {"result": result})


async def latency(desk: Desk, host: str, tries: Optional[int] = None) -> Outcome:
    """Measures the way from the device to a host: "milliseconds". Failed when nothing answers."""
    message: dict[str, Any] = {"msgType": _LATENCY_TEST, "destination": host}
    if tries is not None:
        message["tries"] = tries
    async with desk.turn(_LATENCY_SECONDS):
        answer = await desk.ask(message, answers(_LATENCY_RESULT, _LATENCY_REFUSAL))
    average = answer["avgLatency"]
    if average < 0:
        raise Failed(f"{host} did not answer, or the device does not know it")
    return Outcome(True, f"{average} ms to {host}", {"milliseconds": average})


COMMANDS: dict[str, Callable[..., Awaitable[Outcome]]] = {
    "scan": scan,
    "latency": latency,
}
