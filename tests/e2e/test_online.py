"""From power-on to registered, through the default cloud: every step on the wire and in the log."""

from expect import (CLOUD, CONTROLLER, COOKIE, DEVICE_ID, MAC, fence, in_order,
                    onboarding_request, register_text)


def test_the_onboarding_request_is_exact(start):
    lab = start()
    request = lab.onboarding.wait_request()
    assert request["text"] == onboarding_request()
    assert request["names"] == [CLOUD]


def test_the_websocket_is_opened_as_promised(start):
    lab = start()
    connection = lab.controller.wait_connected()
    assert connection.path == "/ws"
    assert connection.query_string == f"mac={MAC}&deviceId={DEVICE_ID}"
    assert connection.subprotocols_offered == "websock_protocol"
    assert connection.headers["Host"] == CONTROLLER
    assert connection.headers["Origin"].endswith(CONTROLLER)
    assert connection.headers["Sec-WebSocket-Version"] == "13"
    assert lab.controller.certificates.asked_names[-1] == CONTROLLER


def test_register_is_exact(start):
    lab = start()
    event = lab.controller.wait_message_event(100, timeout=30)
    session = int(lab.device.read_text("/tmp/session_id"))
    assert 0 < session < 2**31
    assert event["text"] == register_text(session)
    assert event["binary"]


def test_without_a_marking_switch_register_comes_with_an_empty_parent(start):
    lab = start(faketime="+0 x20")
    lab.switch.mode = "unmarked"
    event = lab.controller.wait_message_event(100, timeout=30)
    assert event["message"]["pMAC"] == ""
    assert lab.journal.events("lldp")


def test_every_step_is_logged(online):
    in_order([event["message"] for event in online.journal.events("log")], [
        "Initializing Velmora Device Agent da.debug_level=3",
        "Device-agent version [2.78]",
        f"Ethernet MAC [{MAC}] len 17",
        "sw_version - (4.2.1)",
        "Hardware version : [6]",
        "MSN [QL-0042-7781]",
        "Initializing da.state to [0]",
        "Device-agent started (0)",
        "Previous state 0 new state 0",
        "da_enter_state:DA_STATE_IDLE",
        "started discover timer, idle_timeout = 5",
        "Attempting (re)connection in 5 seconds",
        "Previous state 0 new state 1",
        "da_enter_state:DA_STATE_DISCOVERY",
        "No Static URL configured ",
        "No dhcp 43 option  configured ",
        "Try DHCP Option 15 DomainName",
        "No DHCP Option 15 DomainName found",
        f"discover_orv: method 4 orv_url [{CLOUD}]",
        f"Resolved router {CLOUD} to 10.77.0.1",
        "TCP connection is successful",
        "SSL_connect successful",
        "Server certificate is verified and it is valid",
        f"SSL write {len(onboarding_request())} bytes",
        "Found end of http headers",
        "Found http 302 status code",
        "Found Location Header",
        "HTTP content-length is  22",
        "Received full data",
        f"orv cloud url = https://{CONTROLLER}:8443/ws, cloud len ",
        f"Discovered method is 0 orv_url [https://{CONTROLLER}:8443/ws]",
        f"Make Websocket connection to {CONTROLLER} : 8443 : path = ",
        "Previous state 1 new state 2",
        "da_enter_state:DA_STATE_CONNECTING",
        f"Device-Agent Waiting for connect... to Orvanta:[{CONTROLLER}",
        "LWS_CALLBACK_CLIENT_ESTABLISHED",
        "Previous state 2 new state 3",
        "Connected to Orvanta (0)",
        "Sending REGISTER request",
        "handle_orv_msg: MSG_REGISTER_SUCCESS received",
    ])


def test_the_accepted_device_shows_it(start):
    lab = start()
    lab.controller.on_register.follow_ups = []
    lab.wait_registered()
    fence(lab)
    assert lab.status() == "Device Approval Pending"
    assert lab.device.read_text(COOKIE) == DEVICE_ID


def test_the_next_visit_brings_the_cookie(online):
    lab = online
    lab.onboarding.wait_request()
    lab.supervisor.stop()
    lab.supervisor.resume()
    request = lab.onboarding.wait_request()
    assert request["text"] == onboarding_request(cookie=DEVICE_ID)


def test_the_offered_time_is_taken(start):
    lab = start()
    lab.controller.on_register.orv_time = 1700000000
    lab.log.wait("parse_register_response: set device time", timeout=30)


def test_no_time_is_taken_when_none_is_offered(start):
    lab = start()
    lab.controller.on_register.orv_time = 0
    lab.wait_registered()
    fence(lab)
    assert "set device time" not in lab.log.tail(10000)
    assert lab.device.records("date") == []
