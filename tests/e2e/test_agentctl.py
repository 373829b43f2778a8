"""agentctl check: why is this device offline? Each way to fail, and no OK that is none."""

import asyncio
import contextlib
import json
import time

import pytest
from expect import CLOUD, COOKIE, CONTROLLER, FASTER, STATIC_URL, board, until
from toolbox import Agentctl

from lab import network
from lab.authority import Authority
from lab.network import run_batch
from lab.onboarding import Reply, not_found, redirect

SOURCE = "default cloud"
TOKEN = "/mnt/flash/config/velmora_id"
DHCP_43 = "/tmp/orv_dhcp_43_url"
DHCP_15 = "/tmp/orv_dhcp_15_domain"
ALLOW_ALL = "/mnt/flash/config/ALLOW_ALL"
UNSET_CLOCK = "@1971-01-02 00:00:00"
PREMISES = "onprem.example"


@pytest.fixture
def ctl(lab, binary):
    """agentctl in the lab's device."""
    return Agentctl(lab, binary)


@pytest.fixture
def idle(lab, start, ctl):
    """agentctl, and an agent that runs but is slow to begin: it gets nowhere in these tests."""
    lab.onboarding.reply = Reply()
    start(faketime="")
    lab.log.wait("Attempting (re)connection in 5 seconds")
    return ctl


def test_the_way_is_open_while_the_agent_is_connected(online, ctl):
    before = len(online.controller.connections)
    report = ctl.check()
    report.assert_open()
    assert report.step("name", SOURCE)["data"] == {"host": CLOUD, "address": network.WORLD_ADDRESS}
    certificate = report.step("certificate", SOURCE)["data"]
    assert certificate["issuer"] == "Quill Lab Root"
    assert certificate["daysLeft"] in (364, 365), "a year, less what has passed since"
    assert certificate["checked"] and certificate["accepted"]
    onboarding = report.step("onboarding", SOURCE)
    assert onboarding["data"]["status"] == "HTTP/1.1 302 Found"
    assert CONTROLLER in onboarding["detail"]
    assert report.step("controller name", SOURCE)["data"]["host"] == CONTROLLER
    assert report.step("controller certificate", SOURCE)["data"]["checked"]
    assert report.step("clock")["outcome"] == "ok"
    assert report.step("address of this device")["detail"] == network.DEVICE_ADDRESS
    for source in ("static URL", "DHCP option 43", "DHCP option 15"):
        assert "not configured" in report.step("address", source)["detail"]
    assert len(online.controller.connections) == before, "the agent keeps its connection"
    online.controller.send({"msgType": 697, "Orvanta": {"status": f"Connected to {CLOUD}"}})
    until(online, lambda: online.status() == f"Connected to {CLOUD}", "the status")
    text = ctl.run("check")
    assert text.returncode == 0
    assert text.stdout.endswith("The way to the controller is open, and the agent is connected.\n")
    assert "File " not in text.stderr


def changes(lab):
    """Every file of the device's folders that the agent keeps, with its last changes."""
    return lab.device.run(["find", "/tmp", "/mnt/flash", "/var/tmp", "/var/log", "/run",
                           "-path", "/run/lab", "-prune", "-o",
                           "-printf", "%p %i %s %m %T@ %C@\n"], check=True).stdout


@pytest.mark.parametrize("reply", [Reply(), not_found()], ids=["redirect", "404"])
def test_it_changes_nothing_and_spends_no_token(lab, start, ctl, reply):
    lab.onboarding.reply = Reply()
    start(faketime=FASTER)
    lab.wait_registered()
    lab.supervisor.stop()
    lab.onboarding.reply = reply
    lab.device.write_text(TOKEN, "abc:def\n")
    lab.device.write_text(COOKIE, "lab-device-1")
    before, requests = changes(lab), len(lab.onboarding.requests())
    report = ctl.check()
    assert changes(lab) == before
    assert report.exit_status == 1
    assert report.step("agent")["detail"] == "it is not running"
    text, = lab.onboarding.requests()[requests:]
    assert "velmoraId" not in text and "abc" not in text
    assert "cookie:deviceId=lab-device-1\r\n" in text
    assert report.step("onboarding", SOURCE)["data"]["tokenLeftOut"]


def test_a_refusal_without_the_token_is_no_verdict(lab, idle):
    lab.device.write_text(TOKEN, "abc:def\n")
    lab.onboarding.reply = not_found()
    report = idle.check()
    assert (report.verdict, report.exit_status) == ("unsure", 1)
    assert report.step("onboarding", SOURCE)["outcome"] == "unsure"
    lab.device.unlink(TOKEN, missing_ok=True)


def test_no_address(lab, idle):
    run_batch("ip", lab.network.device_fd, "address flush dev eth0")
    report = idle.check()
    report.assert_blocked("address of this device", None, "no interface has an IPv4 address")
    report.assert_blocked("name", SOURCE, CLOUD)


def test_a_name_that_is_unknown(lab, idle):
    lab.names.remove(CLOUD)
    idle.check().assert_blocked("name", SOURCE, f"{CLOUD}: No address associated with hostname")


def test_a_name_service_that_is_silent(lab, idle):
    lab.names.pause()
    try:
        report = idle.check()
    finally:
        lab.names.resume()
    report.assert_blocked("name", SOURCE, "")
    assert report.seconds < 10


def test_a_connection_that_is_refused(lab, idle):
    lab.onboarding.stop()
    report = idle.check()
    report.assert_blocked("connection", SOURCE, "Connection refused")
    assert not report.has("certificate", SOURCE)


def test_nobody_at_the_address(lab, idle):
    lab.names.add(CLOUD, "10.77.0.77")
    report = idle.check()
    report.assert_blocked("connection", SOURCE, "")
    assert report.seconds < 8


def test_a_server_that_says_nothing(lab, idle):
    async def serve(reader, writer):
        with contextlib.suppress(ConnectionError):
            await reader.read()
        writer.close()

    lab.onboarding.stop()
    server = lab.world.wait(asyncio.start_server(serve, network.WORLD_ADDRESS, 443))
    report = idle.check()
    lab.world.call(server.close)
    report.assert_blocked("certificate", SOURCE, "no answer within 5.0 s")


@pytest.mark.parametrize("part", ["onboarding", "controller"])
@pytest.mark.parametrize("names, how, detail", [
    (["other.example"], {}, "it does not name {host}"),
    (["{host}"], {"valid_from": -20, "valid_to": -10}, "certificate has expired"),
    (["{host}"], {"self_signed": True}, "self-signed certificate"),
], ids=["wrong host", "expired", "self-signed"])
def test_a_certificate_that_is_refused(lab, idle, part, names, how, detail):
    host = CLOUD if part == "onboarding" else CONTROLLER
    leaf = lab.authority.leaf([name.format(host=host) for name in names], **how)
    getattr(lab, part).certificates.use(leaf)
    report = idle.check()
    name = "certificate" if part == "onboarding" else "controller certificate"
    report.assert_blocked(name, SOURCE, detail.format(host=host))
    assert not report.step(name, SOURCE)["data"]["accepted"]
    assert report.has("onboarding", SOURCE) == (part == "controller")
    if "valid_to" in how:
        assert "it is ahead, or a certificate has expired" in report.step("clock")["detail"]


def test_a_forged_certificate_is_refused_although_the_clock_is_unset(lab, idle):
    lab.onboarding.certificates.use(Authority().leaf([CLOUD]))
    report = idle.check(clock=UNSET_CLOCK)
    report.assert_blocked("certificate", SOURCE, "refused: ")


def test_an_unset_clock_is_told_and_bars_nothing(lab, idle):
    report = idle.check(clock=UNSET_CLOCK)
    report.assert_open()
    assert report.step("clock")["outcome"] == "warning"
    assert "it is not set: 1971-01-02" in report.step("clock")["detail"]
    step = report.step("certificate", SOURCE)
    assert step["outcome"] == "warning" and "not yet valid by this clock" in step["detail"]


def test_a_clock_that_is_behind(lab, idle):
    lab.onboarding.certificates.use(lab.authority.leaf([CLOUD], valid_from=3.5))
    report = idle.check()
    report.assert_open()
    assert "it is behind: a certificate becomes valid in 3 days" in report.step("clock")["detail"]


@pytest.mark.parametrize("reply, detail", [
    (not_found(), 'HTTP/1.1 404 Not Found: no redirect, "Unknown device"'),
    (Reply(status_line="HTTP/1.1 500 Internal Server Error", body=b"<html>"),
     "HTTP/1.1 500 Internal Server Error: no redirect"),
    (Reply(headers=[("Location", f"https://{CONTROLLER}:8443/ws")]),
     "a redirect without the cookie deviceId"),
    (Reply(headers=[("Set-Cookie", "deviceId=x; Path=/")]), "a redirect without Location"),
    (Reply(content_length="0"), "a redirect without a body"),
    (Reply(body=b"<html>"), "JSON error"),
    (Reply(silent=True), "no answer within 5.0 s"),
    (Reply(drop=True), "no whole answer: SSL_read Not successful"),
], ids=["404", "500", "no cookie", "no Location", "no body", "no JSON", "silence", "dropped"])
def test_an_onboarding_that_fails(lab, idle, reply, detail):
    lab.onboarding.reply = reply
    report = idle.check()
    report.assert_blocked("onboarding", SOURCE, detail)
    assert not report.has("controller name", SOURCE)


def test_a_controller_that_is_not_there(lab, idle):
    lab.controller.stop()
    report = idle.check()
    report.assert_blocked("controller connection", SOURCE, "Connection refused")


def test_a_device_that_nobody_can_know(lab, start, ctl):
    board(lab, serialNumber=None)
    start(faketime="")
    ctl.check().assert_blocked("onboarding", SOURCE, "not asked: there is no serial number")
    assert not lab.onboarding.requests()


# -- the sources ----------------------------------------------------------------------------

def test_premises_are_not_checked_and_come_before_the_cloud(lab, idle):
    bad = lab.authority.leaf(["whatever"], self_signed=True, valid_from=-20, valid_to=-10)
    lab.names.add(PREMISES)
    lab.onboarding.certificates.use(bad)
    lab.controller.certificates.use(bad)
    lab.onboarding.reply = redirect(f"https://{PREMISES}:8443/ws")
    lab.device.write_text(DHCP_43, PREMISES)
    report = idle.check()
    report.assert_open()
    step = report.step("certificate", "DHCP option 43")
    assert not step["data"]["checked"] and "not checked (the controller is on premises)" in step["detail"]
    assert "is not asked: DHCP option 43 comes first" in report.step("address", SOURCE)["detail"]
    assert not report.has("name", SOURCE)


@pytest.mark.parametrize("path, source", [(STATIC_URL, "static URL"), (DHCP_43, "DHCP option 43")])
def test_an_invalid_url_bars_the_way(lab, idle, path, source):
    lab.device.write_text(path, "https://host:123456")
    report = idle.check()
    report.assert_blocked("address", source, "is no valid URL")
    assert not lab.onboarding.requests()


def test_a_static_url_that_names_the_cloud_is_passed_over(lab, idle):
    lab.device.write_text(STATIC_URL, f"https://{CLOUD}")
    report = idle.check()
    report.assert_open()
    assert report.step("address", "static URL")["outcome"] == "skipped"


def test_a_domain_that_leads_nowhere_falls_back_to_the_cloud(lab, idle):
    lab.device.write_text(DHCP_15, "example.net")
    report = idle.check()
    report.assert_open()
    assert report.step("name", "DHCP option 15")["outcome"] == "failed"
    assert report.has("controller certificate", SOURCE)


def test_a_domain_that_leads_to_a_controller_ends_the_search(lab, idle):
    lab.device.write_text(DHCP_15, "example.net")
    lab.names.add("orvanta.example.net")
    report = idle.check()
    report.assert_open()
    assert not report.has("name", SOURCE)


def test_the_whole_stays_below_half_a_minute(lab, idle):
    lab.device.write_text(DHCP_15, "example.net")
    lab.names.add("orvanta.example.net")
    lab.onboarding.reply = Reply(silent=True)
    began = time.monotonic()
    report = idle.check()
    assert time.monotonic() - began < 30
    report.assert_blocked("onboarding", "DHCP option 15", "no answer within")
    report.assert_blocked("onboarding", SOURCE, "no answer within")


def test_the_marker_turns_the_check_off(lab, idle):
    lab.device.write_text(ALLOW_ALL, "")
    lab.onboarding.certificates.use(lab.authority.leaf(["x"], self_signed=True))
    report = idle.check()
    report.assert_open()
    assert "ALLOW_ALL is there" in report.step("certificate", SOURCE)["detail"]


# -- the agent ------------------------------------------------------------------------------

def test_an_agent_that_was_told_to_stay_idle(lab, start, ctl):
    start("-d", "3", "-i", faketime="")
    ctl.check().assert_blocked("agent", None, "started idle (-i)")


def test_the_url_of_the_command_line_wins(lab, start, ctl):
    lab.device.write_text(STATIC_URL, "other.example")
    start("-d", "3", "-s", PREMISES, faketime="")
    lab.names.remove(CLOUD)
    report = ctl.check()
    report.assert_blocked("name", "static URL", PREMISES)
    assert "option -s of the agent" in report.step("address", "static URL")["detail"]


def test_the_report_for_people(lab, idle):
    lab.names.remove(CLOUD)
    done = idle.run("check")
    assert done.returncode == 1
    assert "failed   default cloud, name" in done.stdout
    assert "The way to the controller is blocked: see what failed above.\n" in done.stdout
    assert json.loads(idle.run("check", "--json").stdout)["verdict"] == "blocked"
