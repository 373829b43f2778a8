"""Where the agent looks for its controller, and what it makes of the onboarding answers."""

import pytest
from expect import (CLOUD, CONTROLLER, COOKIE, DEVICE_ID, FASTER, MAC, STATIC_URL, board, fence,
                    onboarding_request)

from lab.onboarding import Reply, not_found, redirect

DHCP_43 = "/tmp/orv_dhcp_43_url"
DHCP_15 = "/tmp/orv_dhcp_15_domain"
TOKEN = "/mnt/flash/config/velmora_id"
FAILED = "Unable to discover Orvanta URL (re-discover in"


def asked_hosts(lab):
    """The HOST lines of the requests so far."""
    return [line for text in lab.onboarding.requests() for line in text.splitlines()
            if line.startswith("HOST:")]


@pytest.mark.parametrize("path, text, host, port", [
    (STATIC_URL, "https://onprem.example\n", "onprem.example", 443),
    (STATIC_URL, "onprem.example:443/anything?x=1", "onprem.example", 443),
    (DHCP_43, "https://onprem.example:443", "onprem.example", 443),
    (DHCP_43, "onprem.example\n", "onprem.example", 443),
    (DHCP_15, "branch.example\n", "orvanta.branch.example", 443)])
def test_a_configured_controller_is_asked(lab, start, path, text, host, port):
    lab.names.add(host)
    lab.device.write_text(path, text)
    start()
    assert lab.onboarding.wait_request()["text"] == onboarding_request(host, port)
    lab.wait_registered()
    lab.log.wait("Non-velmora/cloud Orvanta URL")
    assert len(lab.onboarding.requests()) == 1


def test_the_sources_have_an_order(lab, start):
    for path, host in ((STATIC_URL, "static.example"), (DHCP_43, "dhcp.example"),
                       (DHCP_15, "domain.example")):
        lab.names.add(host)
        lab.names.add("orvanta.domain.example")
        lab.device.write_text(path, host)
    start()
    lab.wait_registered()
    assert asked_hosts(lab) == ["HOST:static.example:443"]


def test_a_static_url_of_the_cloud_is_passed_over(lab, start):
    lab.device.write_text(STATIC_URL, f"https://{CLOUD}:443")
    lab.device.write_text(DHCP_43, "dhcp.example")
    lab.names.add("dhcp.example")
    start()
    lab.wait_registered()
    assert asked_hosts(lab) == ["HOST:dhcp.example:443"]


def test_an_unknown_domain_falls_through_to_the_cloud(lab, start):
    lab.device.write_text(DHCP_15, "branch.example")
    start(faketime=FASTER)
    lab.log.wait("Trying to contact [https://orvanta.branch.example]")
    lab.log.wait("Not able to resolve  orvanta.branch.example ")
    lab.wait_registered()
    assert asked_hosts(lab) == [f"HOST:{CLOUD}:443"]


@pytest.mark.parametrize("path", [STATIC_URL, DHCP_43])
def test_an_unreachable_configured_controller_is_not_replaced(lab, start, path):
    lab.device.write_text(path, "https://onprem.example")
    start(faketime=FASTER)
    lab.log.wait("Not able to resolve  onprem.example ")
    lab.log.wait(FAILED)
    assert lab.status() == "Resolving URL"
    lab.names.add("onprem.example")
    lab.wait_registered()
    assert asked_hosts(lab) == ["HOST:onprem.example:443"]


@pytest.mark.parametrize("path, text, complaint", [
    (STATIC_URL, "https://onprem.example:12345",
     "Invalid static Orvanta URL [https://onprem.example:12345] configured"),
    (STATIC_URL, "https://", "Invalid static Orvanta URL [https://] configured"),
    (DHCP_43, "https://onprem.example:99x",
     "Invalid DHCP43 Orvanta URL [https://onprem.example:99x]")])
def test_an_invalid_url_ends_the_pass(lab, start, path, text, complaint):
    lab.device.write_text(path, text)
    start(faketime=FASTER)
    lab.log.wait(complaint)
    lab.log.wait(FAILED)
    assert not lab.onboarding.requests()


def test_an_invalid_domain_falls_through_to_the_cloud(lab, start):
    lab.device.write_text(DHCP_15, "branch.example:12345")
    start(faketime=FASTER)
    lab.log.wait("Invalid DHCP15 Orvanta URL [https://orvanta.branch.example:12345], "
                 "falling to next discover method")
    lab.wait_registered()


def test_a_token_is_used_once(lab, start):
    board(lab, serialNumber=None)
    lab.device.write_text(TOKEN, "abc:def\n")
    start()
    assert lab.onboarding.wait_request()["text"] == onboarding_request(serial="", token="abc:def")
    lab.wait_registered()
    assert not lab.device.exists(TOKEN)
    lab.controller.kill()
    assert lab.onboarding.wait_request()["text"] == onboarding_request(serial="", cookie=DEVICE_ID)


def test_a_device_that_is_no_longer_known_forgets_its_cookie(lab, start):
    lab.device.write_text(COOKIE, "old-id")
    lab.onboarding.next_replies = [not_found()]
    start(faketime=FASTER)
    assert lab.onboarding.wait_request()["text"] == onboarding_request(cookie="old-id")
    lab.log.wait("get_from_orvrouter: Received 404 from Orvrouter ret=")
    lab.log.wait(FAILED)
    assert lab.status() == "Unknown device"
    assert not lab.device.exists(COOKIE)
    assert lab.onboarding.wait_request()["text"] == onboarding_request()
    lab.wait_registered()


def test_a_redirect_without_a_cookie_fails(lab, start):
    lab.device.write_text(TOKEN, "abc:def")
    lab.onboarding.next_replies = [Reply(headers=[("Location", f"https://{CONTROLLER}:8443/ws")])]
    start(faketime=FASTER)
    lab.log.wait("Not able to find deviceId Cookie, Try Discovering again")
    lab.log.wait(FAILED)
    assert not lab.device.exists(TOKEN)
    lab.wait_registered()


@pytest.mark.parametrize("reply, complaint", [
    (Reply(headers=[("Set-Cookie", "deviceId=x; Path=/")]),
     "Not able to find Orvanta, Try Discovering again"),
    (Reply(content_length=""), "content_length response received"),
    (Reply(body=b"not json"), "Unexpected response: JSON error"),
    (Reply(raw=b"\r\n\r\n"), "content_length response received"),
    (Reply(raw=b"\x00" * 3000 + b"\r\n\r\n"), "content_length response received"),
    (Reply(raw=b"HTTP/1.1 302 Found\r\nX: " + b"y" * 8000), "re-discover in")])
def test_a_useless_answer_fails_the_pass(lab, start, reply, complaint):
    lab.onboarding.next_replies = [reply]
    start(faketime=FASTER)
    lab.log.wait(complaint)
    if complaint != "re-discover in":
        lab.log.wait(FAILED)
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 2


def test_an_answer_in_pieces_is_put_together(lab, start):
    lab.onboarding.reply = Reply(pieces=(1, 30, 90), gap=0.02)
    start()
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1


def test_a_long_body_is_read_to_its_end(lab, start):
    body = b'{"padding": "' + b"x" * 20000 + b'"}'
    lab.onboarding.reply = Reply(body=body, pieces=(4000, 4000, 4000))
    start()
    lab.log.wait("Received full data")
    lab.wait_registered()


def test_the_onboarding_service_is_down_for_a_while(lab, start):
    lab.onboarding.stop()
    start(faketime=FASTER)
    lab.log.wait("OpenConnection to")
    lab.log.wait(FAILED)
    lab.onboarding.start()
    lab.wait_registered()


def test_a_redirect_to_a_bare_host(lab, start):
    lab.onboarding.reply = redirect(f"https://{CONTROLLER}:8443", "other-id")
    start()
    connection = lab.controller.wait_connected()
    assert (connection.path, connection.query_string) == ("/", f"mac={MAC}&deviceId=other-id")
    lab.wait_registered()
    fence(lab)


def test_a_redirect_to_an_unknown_host(lab, start):
    lab.onboarding.next_replies = [redirect("https://gone.cloud.orvanta.example:8443/ws")]
    start(faketime=FASTER)
    lab.log.wait("Failed to resolve redirect URL [gone.cloud.orvanta.example]")
    assert lab.status() == "Resolving URL"
    lab.wait_registered()


@pytest.mark.parametrize("url, complaint", [
    (f"https://{CONTROLLER}:18443/ws", "Failed to get orv_parsed_url details "),
    ("not a url", "Parse error : "), ("https:///ws", "Parse error : ")])
def test_a_redirect_that_is_no_url(lab, start, url, complaint):
    lab.onboarding.next_replies = [redirect(url)]
    start(faketime=FASTER)
    lab.log.wait(complaint)
    lab.wait_registered()
