"""Opening the websocket: the request, and every answer to it but the right one."""

import pytest
from expect import CONTROLLER, DEVICE_ID, FASTER, MAC, seconds_between

from lab import rawpeer
from lab.onboarding import redirect

OTHER = f"https://{CONTROLLER}:8443/elsewhere"


@pytest.mark.parametrize("path, wanted", [("", "/"), ("/", "/"), ("/ws", "/ws"),
                                          ("/a/b/c", "/a/b/c"), ("/ws?x=1", "/ws")])
@pytest.mark.parametrize("device_id", [DEVICE_ID, ""])
def test_path_and_query(lab, start, path, wanted, device_id):
    cookie = device_id or "x" * 200  # nothing is kept of one that is too long
    lab.onboarding.reply = redirect(f"https://{CONTROLLER}:8443{path}", cookie)
    start()
    connection = lab.controller.wait_connected()
    query = f"mac={MAC}&deviceId={device_id}" if device_id else f"mac={MAC}"
    assert (connection.path, connection.query_string) == (wanted, query)
    lab.wait_registered()


@pytest.fixture
def answered(start):
    """Starts the agent towards the frame-level controller, whose first answer is this one."""
    def begin(answer, faketime=FASTER):
        lab = start(faketime=faketime)
        lab.onboarding.reply = redirect(rawpeer.URL)
        lab.rawpeer.next_upgrades = [answer]
        return lab
    return begin


def retried(lab):
    """The agent waits about a minute and tries the same address again."""
    failed = lab.log.wait("LWS_CALLBACK_CLIENT_CONNECTION_ERROR")
    lab.log.wait("max_reconnect_attempts  0,  reconnect_timeout")
    again = lab.log.wait("da_enter_state:DA_STATE_CONNECTING", since=failed.index)
    assert 59 <= seconds_between(failed, again) <= 79 + 2 + 1
    lab.rawpeer.wait_connected()
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1


@pytest.mark.parametrize("status, headers, body", [
    ("401 Unauthorized", 'WWW-Authenticate: Basic realm="x"\r\n', ""),
    ("403 Forbidden", "", "go away"),
    ("404 Not Found", "", "<html>" + "x" * 5000 + "</html>"),
    ("500 Internal Server Error", "", ""),
    ("503 Service Unavailable", "Retry-After: 1\r\n", ""),
    ("200 OK", "Content-Type: text/html\r\n", "<html>hello</html>"),
    ("302 Found", f"Location: {OTHER}\r\n", ""),
    ("307 Temporary Redirect", f"Location: {OTHER}\r\n", ""),
    ("301 Moved Permanently", "Location: http://10.77.0.1:80/\r\n", "")])
def test_a_refusal_is_told_and_tried_again(answered, status, headers, body):
    lab = answered(f"HTTP/1.1 {status}\r\n{headers}Content-Length: {len(body)}\r\n\r\n"
                   f"{body}".encode())
    line = lab.log.wait("Websocket rejected by server")
    assert line["message"] == f"Websocket rejected by server {status}"
    retried(lab)
    assert not lab.controller.connections, "a redirect is not followed"


ACCEPTED = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"


@pytest.mark.parametrize("answer", [
    b"", b"HTTP/1.1 101 Switching", b"\x00\x01\x02\xff" * 50, b"SSH-2.0-OpenSSH_9\r\n",
    f"{ACCEPTED}\r\n".encode(),
    f"{ACCEPTED}Sec-WebSocket-Accept: bm90IHRoZSByaWdodCBvbmUhISE=\r\n\r\n".encode(),
    b"HTTP/1.1 101 Switching Protocols\r\n" + b"X-Long: " + b"y" * 20000 + b"\r\n\r\n",
    b"HTTP/1.1 " + b"9" * 5000 + b"\r\n\r\n"],
    ids=["nothing", "half a line", "rubbish", "another protocol", "no accept", "wrong accept",
         "long header", "long status"])
def test_a_broken_answer_is_tried_again(answered, answer):
    retried(answered(answer))


def test_no_answer_is_given_up_after_a_minute(answered):
    lab = answered(3600.0)
    connecting = lab.log.wait("Device-Agent Waiting for connect... to Orvanta:")
    late = lab.log.wait("lws_connect_timeout_cb: Unable to connect websocket to Orvanta, "
                        "trying again")
    assert 60 <= seconds_between(connecting, late) <= 63
    lab.log.wait("max_reconnect_attempts  0,  reconnect_timeout")
    lab.rawpeer.wait_connected()
    lab.wait_registered()


@pytest.mark.parametrize("payload, code", [
    (b"", None), (b"\x03\xe8", 1000), (b"\x03\xe9going away", 1001),
    (b"\x0f\xa0" + b"x" * 123, 4000),
    (b"\x03", None), (b"\x03\xed", None)],
    ids=["no code", "code alone", "code and reason", "longest", "half a code", "reserved code"])
def test_close_frames_of_the_controller(start, payload, code):
    lab = start()
    lab.onboarding.reply = redirect(rawpeer.URL)
    lab.wait_registered()
    lab.rawpeer.send_frame(rawpeer.CLOSE, payload)
    if code is not None:
        assert lab.rawpeer.wait_frame(rawpeer.CLOSE).payload[:2] == code.to_bytes(2, "big")
    lab.rawpeer.wait_ended()
    lab.log.wait("LWS_CALLBACK_CLOSED")
    lab.log.wait("Attempting (re)connection in 5 seconds")
    lab.rawpeer.wait_connected()
    lab.wait_registered()
