"""The controller behind nginx and behind HAProxy, as it is found in the field: TLS ends at them."""

import json
import signal
import threading

import pytest
from expect import CONTROLLER, DEVICE_ID, FASTER, MAC, fence
from vitals import children, descriptors

from lab import proxy as proxies
from lab import rawpeer
from lab.onboarding import redirect

LOCATE = {"msgType": 115}


@pytest.fixture(params=proxies.KINDS)
def proxy(lab, request):
    """A proxy that is not started yet; the agent will be sent to it."""
    lab.onboarding.reply = redirect(proxies.URL)
    leaf = lab.authority.leaf([CONTROLLER])
    made = proxies.Proxy(lab.world, lab.device.folder / "proxy", leaf, request.param)
    yield made
    made.stop()


@pytest.fixture
def behind(proxy, start):
    """Starts proxy and agent: behind(idle=..., faketime=...) returns the lab, registered."""
    def begin(idle=600.0, **options):
        proxy.start(idle)
        lab = start(**options)
        lab.wait_registered()
        return lab
    return begin


class Flow:
    """Requests without a pause from a thread, for as long as there is a connection to send on."""

    def __init__(self, lab):
        self._lab = lab
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._send, daemon=True)

    def _send(self):
        while not self._over.wait(0.005):
            try:
                self._lab.controller.send(LOCATE)
            except (AssertionError, ConnectionError, RuntimeError):
                continue  # between two connections

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_exc):
        self._over.set()
        self._thread.join()


def back(lab, number):
    """Waits until the device is registered again, on its connection of this number."""
    lab.wait_registered()
    assert lab.controller.current.number == number
    fence(lab)


def test_the_upgrade_passes(behind):
    lab = behind()
    connection = lab.controller.current
    assert connection.path == "/ws"
    assert connection.query_string == f"mac={MAC}&deviceId={DEVICE_ID}"
    assert connection.subprotocols_offered == "websock_protocol"
    assert connection.headers["Upgrade"].lower() == "websocket"
    assert connection.headers["Connection"].lower() == "upgrade"
    assert connection.headers["Sec-WebSocket-Version"] == "13"
    assert connection.headers["Host"].split(":")[0] == CONTROLLER
    assert connection.headers["Origin"].endswith(CONTROLLER)
    assert connection.headers["X-Forwarded-For"] == "10.77.0.2", "it came through the proxy"
    fence(lab)


def test_pings_and_the_close_frame_pass(behind):
    lab = behind()
    lab.controller.wait_ping()
    lab.log.wait("Received Pong message from Orvanta")
    lab.supervisor.send_signal(signal.SIGTERM)
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_CFG_UPDATE")


def test_a_time_out_shorter_than_the_pings_closes_again_and_again(behind):
    lab = behind(idle=0.4)  # the first ping comes after three quarters of a second
    lab.log.wait("LWS_CALLBACK_CLOSED")
    lab.log.wait("Attempting (re)connection in 5 seconds")
    assert lab.controller.wait_closed().close_code is None, "not the agent's doing"
    lab.wait_registered()
    lab.log.wait("LWS_CALLBACK_CLOSED")
    lab.wait_registered()
    assert lab.controller.current.number == 3


def test_pings_hold_a_connection_that_would_time_out(behind):
    idle = 2.5
    lab = behind(idle=idle, faketime=FASTER)  # a ping each second or oftener
    first = lab.controller.wait_ping()
    while lab.controller.wait_ping().when < first.when + 2 * idle:
        pass
    assert len(lab.controller.connections) == 1
    fence(lab)


def test_a_crash_while_messages_flow(behind, proxy):
    lab = behind(faketime=FASTER)
    with Flow(lab):
        lab.controller.wait_message(415)
        proxy.kill()
        lab.log.wait("LWS_CALLBACK_CLOSED")
        lab.log.wait("LWS_CALLBACK_CLIENT_CONNECTION_ERROR")
        proxy.start()
        lab.wait_registered()
        again = lab.controller.current
        lab.journal.wait("from-agent", lambda e: e["connection"] is again and
                         e["message"]["msgType"] == 415)
    assert again.number == 2


RESTARTS = 4


def flowing(lab, connection):
    """Waits for an answer on this connection to a request that is sent from now on."""
    lab.journal.wait("from-agent", lambda e: e["connection"] is connection and
                     e["message"]["msgType"] == 415, since=lab.journal.position, what="an answer")


@pytest.mark.parametrize("graceful", [False, True], ids=["crashes", "reloads"])
def test_restart_after_restart_while_messages_flow(behind, proxy, graceful):
    """Each costs one connection: the next comes up by itself, and nothing of the old is left."""
    lab = behind(faketime=FASTER)
    fence(lab)
    before = descriptors(lab)
    with Flow(lab):
        for number in range(2, 2 + RESTARTS):
            lost = lab.controller.current
            flowing(lab, lost)
            since = lab.journal.position
            if graceful:
                old = proxy.workers()
                proxy.reload()
                flowing(lab, lost)
                proxy.retire([worker for worker in old if worker in proxy.workers()])
            else:
                proxy.kill()
                proxy.start()
            lab.log.wait("LWS_CALLBACK_CLOSED", since=since)
            lab.wait_registered()
            assert (lab.controller.current.number, lost.open) == (number, False)
            flowing(lab, lab.controller.current)
    fence(lab)
    registers = [event["connection"].number for event in lab.journal.events("from-agent")
                 if event["message"]["msgType"] == 100]
    assert registers == list(range(1, 2 + RESTARTS)), "one on each connection"
    assert descriptors(lab) == before and children(lab) == []
    assert lab.supervisor.starts == 1


def test_a_reload_keeps_the_connection_until_the_old_worker_goes(behind, proxy):
    lab = behind()
    first = lab.controller.current
    with Flow(lab):
        lab.controller.wait_message(415)
        old = proxy.workers()
        proxy.reload()
        position = lab.journal.position
        lab.journal.wait("from-agent", since=position, what="messages after the reload")
        assert first.open and len(lab.controller.connections) == 1
        proxy.retire([worker for worker in old if worker in proxy.workers()])
        lab.log.wait("LWS_CALLBACK_CLOSED")
        lab.wait_registered()
    back_on = lab.controller.current
    assert (back_on.number, first.open) == (2, False)
    fence(lab)


def test_a_proxy_without_a_controller_behind_it(behind, proxy):
    lab = behind(faketime=FASTER)
    lab.controller.stop()
    lab.log.wait("LWS_CALLBACK_CLOSED")
    status = {"nginx": "502", "haproxy": "503"}[proxy.kind]
    lab.log.wait(f"Websocket rejected by server {status}")
    lab.log.wait("LWS_CALLBACK_CLIENT_CONNECTION_ERROR")
    waiting = lab.log.wait("max_reconnect_attempts  0")
    lab.controller.start()
    lab.log.wait("Previous state 2 new state 2", since=waiting.index)
    back(lab, 2)
    assert len(lab.onboarding.requests()) == 2, "a reconnect goes to the address already found"


def test_large_messages_pass(behind):
    lab = behind()
    text = json.dumps({"msgType": 123, "padding": "x" * (1024 * 1024)}).encode()
    lab.controller.send_raw(text.decode(), unchecked=True)  # one frame
    lab.controller.wait_message(423)
    pieces = [text[at:at + 3000] for at in range(0, len(text), 3000)]
    wire = b"".join(
        rawpeer.encode(rawpeer.CONTINUATION if at else rawpeer.TEXT, piece,
                       fin=at == len(pieces) - 1) for at, piece in enumerate(pieces))
    lab.controller.send_bytes(wire)
    lab.controller.wait_message(423)
    lab.log.wait(f"payload_offset = {3000 * (len(pieces) - 1)}")
    fence(lab)
    assert len(lab.controller.connections) == 1
