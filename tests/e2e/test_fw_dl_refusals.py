"""fw_dl: what it does not take from a server, and what no server can talk it into."""

import json
import random

import pytest
from rude_server import BASE, PORT, Image, answers, raw
from transfers import IN_A_HURRY

from lab.authority import Authority
from lab.filestore import HOST

DATA = random.Random(9).randbytes(200_000)
URL = f"{BASE}/fw/image.img"
GIVEN_UP, REFUSED, UNTRUSTED, LOCAL, USAGE = 1, 2, 3, 4, 64


def failed(helpers, ended, status, reason):
    """It ended with this status and told this reason; nothing is left."""
    assert ended.status == status, ended.lines
    report = json.loads(ended.report)
    assert ended.report.startswith('{"msgType":701,"code":"DownloadFailed","message":"')
    assert list(report) == ["msgType", "code", "message"]
    assert reason in report["message"], report
    assert ended.lines[-1] == f"failed: {report['message']}"
    assert helpers.names() == set()


@pytest.mark.parametrize("status", ["404 Not Found", "401 Unauthorized", "416 Range", "204 No Content",
                                    "304 Not Modified", "206 Partial Content", "302 Found"])
def test_answers_that_are_final(helpers, rude, status):
    rude.follow(answers(status, "Retry-After: 1", b"" if status[:3] in ("204", "304") else b"body"))
    failed(helpers, helpers.fw_dl(URL), REFUSED, f"the server answers {status}")
    assert len(rude.requests) == 1


def test_many_failures_in_vain_are_enough(helpers, rude):
    rude.follow(answers("503 Busy"))
    ended = helpers.fw_dl(URL, clock=IN_A_HURRY)
    failed(helpers, ended, GIVEN_UP, "given up: ")
    assert ended.tries == 10 and any("the server answers 503 Busy" in line for line in ended.lines)


def test_a_server_that_never_sends_what_it_promises(helpers, rude):
    rude.follow(Image(DATA, ranges=False).ended(150_000))
    ended = helpers.fw_dl(URL, clock=IN_A_HURRY)
    failed(helpers, ended, GIVEN_UP, "given up: ")
    assert ended.tries == 11, "one step forward, then ten in vain"


def test_nobody_listens(helpers, transfer_lab):
    ended = helpers.fw_dl(f"https://{HOST}:8448/", clock=IN_A_HURRY)
    failed(helpers, ended, GIVEN_UP, "given up: ")
    assert ended.tries == 10 and any("Failed to connect" in line for line in ended.lines)


def test_a_name_that_nobody_knows(helpers):
    ended = helpers.fw_dl("https://absent.example/", clock=IN_A_HURRY)
    failed(helpers, ended, GIVEN_UP, "given up: ")
    assert any("Could not resolve host: absent.example" in line for line in ended.lines)


# -- redirects --------------------------------------------------------------------------------


def test_redirects_within_https_are_followed(helpers, rude, transfer_lab):
    elsewhere = transfer_lab.files.serve("moved.img", DATA)
    rude.follow(answers("302 Found", "Location: /other?a=b", b"moved"),
                answers("308 Permanent Redirect", f"Location: {elsewhere}"))
    ended = helpers.fw_dl(URL)
    assert ended.status == 0 and helpers.image() == DATA, ended.lines
    assert [request.target for request in rude.requests] == ["/fw/image.img", "/other?a=b"]


@pytest.mark.parametrize("to", [f"http://{HOST}/fw.img", "file:///etc/passwd",
                                "gopher://files.example/"])
def test_redirects_out_of_https_are_not(helpers, rude, to):
    rude.follow(answers("302 Found", f"Location: {to}"))
    failed(helpers, helpers.fw_dl(URL), REFUSED, "redirects to something other than https")


def test_redirects_without_end(helpers, rude):
    rude.follow(answers("301 Moved", f"Location: {URL}"))
    failed(helpers, helpers.fw_dl(URL), REFUSED, "redirects again and again")
    assert len(rude.requests) == 6


# -- certificates -----------------------------------------------------------------------------


@pytest.fixture
def show(rude, transfer_lab):
    """Shows another certificate until the test is over: show(names, **details of the leaf)."""
    rude.follow(Image(DATA))
    yield lambda names, **details: rude.show(transfer_lab.authority.leaf(names, **details))
    rude.show(transfer_lab.authority.leaf([HOST]))


@pytest.mark.parametrize("names, details, reason", [
    (["other.example"], {}, "no alternative certificate subject name matches"),
    ([HOST], {"self_signed": True}, "self-signed certificate"),
    ([HOST], {"valid_to": -0.5, "valid_from": -2.0}, "certificate has expired"),
    ([HOST], {"self_signed": True, "valid_from": 1.0}, "self-signed certificate"),
    (["other.example"], {"valid_from": 1.0}, "no alternative certificate subject name matches")],
    ids=["another name", "self-signed", "expired", "self-signed and not valid yet",
         "another name and not valid yet"])
def test_certificates_that_are_no_good(helpers, rude, show, names, details, reason):
    show(names, **details)
    failed(helpers, helpers.fw_dl(URL), UNTRUSTED, reason)
    assert not rude.requests, "nothing was told to such a server"


def test_a_forged_certificate_that_is_not_valid_yet(helpers, rude, show):
    show([HOST])
    rude.show(Authority().leaf([HOST], valid_from=1.0))
    failed(helpers, helpers.fw_dl(URL), UNTRUSTED, "certificate signature failure")


def test_a_clock_that_is_not_set(helpers, show):
    ended = helpers.fw_dl(URL, clock="@1990-01-01 00:00:00 x5")
    assert ended.status == 0 and helpers.image() == DATA, ended.lines
    assert any("is not valid yet" in line for line in ended.lines)


@pytest.mark.parametrize("env", [
    {"https_proxy": "http://127.0.0.1:9", "ALL_PROXY": "http://127.0.0.1:9",
     "SSL_CERT_FILE": "/dev/null", "SSL_CERT_DIR": "/dev", "CURL_CA_BUNDLE": "/dev/null",
     "OPENSSL_CONF": "/dev/full", "CURL_SSL_BACKEND": "none", "LOCALDOMAIN": "other.example"}])
def test_the_environment_changes_nothing(helpers, rude, env):
    rude.follow(Image(DATA))
    ended = helpers.fw_dl(URL, env={**env, "SSLKEYLOGFILE": "/tmp/keys"})
    assert ended.status == 0 and helpers.image() == DATA, ended.lines
    assert helpers.names() == {"firmware"}, "and no keys are laid down"


def test_the_environment_makes_nobody_trusted(helpers, rude, show):
    stranger = Authority()
    helpers.path("/tmp/ca.pem").write_text(stranger.root_pem)
    rude.show(stranger.leaf([HOST]))
    ended = helpers.fw_dl(URL, env={"SSL_CERT_FILE": "/tmp/ca.pem", "CURL_CA_BUNDLE": "/tmp/ca.pem"})
    assert ended.status == UNTRUSTED, ended.lines


# -- what a stranger sends ----------------------------------------------------------------------

OK = b"HTTP/1.1 200 OK\r\n"


@pytest.mark.parametrize("script, reason", [
    (raw(OK + b"\r\n" + DATA), "does not say how long the file is"),
    (raw(OK + b"Content-Length: 0\r\n\r\n"), "the file is empty"),
    (raw(OK + b"Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"), "the file is empty"),
    (raw(OK + b"Content-Length: 5\r\nContent-Length: 6\r\n\r\nhello"), "contradicts itself"),
    (raw(OK + b"Transfer-Encoding: gzip, chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"), "encodes the file"),
    (raw(OK + b"Transfer-Encoding: gzip\r\n\r\n" + b"\x1f\x8b" * 500), "encodes the file"),
    (raw(OK + b"X-Long: " + b"z" * 150_000 + b"\r\n\r\n"), "line without end"),
    (raw(b"HTTP/1.1 000 Nothing\r\n\r\n"), ""), (raw(b"HTTP/9.9 200 OK\r\n\r\n"), "")],
    ids=["no length", "empty", "no chunks", "two lengths", "coded chunks", "coded", "endless line", "no status",
         "another version"])
def test_bodies_that_are_not_taken(helpers, rude, script, reason):
    rude.follow(script)
    failed(helpers, helpers.fw_dl(URL), LOCAL if "line" in reason else REFUSED, reason)


@pytest.mark.parametrize("script", [
    raw(b"\x00\x01\x02\xff" * 500), raw(b""), raw(b"HTTP/1.1 20"),
    raw(OK + b"Content-Length: -5\r\n\r\n"), raw(OK + b"Content-Length: 5\0\r\n\r\nhel"),
    raw(OK + b"Content-Length: 99999999999999999999999\r\n\r\nhello"),
    raw(OK + b"Transfer-Encoding: chunked\r\n\r\nffffffffffffffffff\r\nhello"),
    raw(OK + b"Transfer-Encoding: chunked\r\n\r\n-1\r\nhello")])
def test_rubbish_is_survived(helpers, rude, script):
    rude.follow(script, Image(DATA))
    ended = helpers.fw_dl(URL)
    if ended.status == 0:
        assert helpers.image() == DATA and len(rude.requests) == 2
    else:
        failed(helpers, ended, REFUSED, "")


@pytest.mark.parametrize("script", [
    raw(OK, b"X-Endless: " + b"y" * 1000 + b"\r\n", repeat=1000),
    raw(b"HTTP/1.1 100 Continue\r\n\r\n", repeat=20000)], ids=["one answer", "preliminary answers"])
def test_headers_without_end_are_cut_short(helpers, rude, script):
    rude.follow(script, Image(DATA))
    ended = helpers.fw_dl(URL)
    assert ended.status == 0 and helpers.image() == DATA, ended.lines
    assert any(line.startswith("the server sends headers without end; trying again in ")
               for line in ended.lines), ended.lines


def test_what_a_server_says_steers_no_terminal(helpers, rude):
    rude.follow(answers("404 \x1b[2J\x07 go\x7f \xc2\x9b away"))
    ended = helpers.fw_dl(URL)
    assert ended.status == REFUSED
    text = "\n".join(ended.lines) + ended.report
    assert all(c == "\n" or c.isprintable() for c in text), ended.lines
    assert "404 ?[2J? go? " in ended.lines[-1]


# -- URLs -------------------------------------------------------------------------------------


@pytest.mark.parametrize("url", [f"http://{HOST}/x", "httpsx://x/", "", "--help"])
def test_urls_that_are_not_https(helpers, url):
    failed(helpers, helpers.fw_dl(url), USAGE, "the URL does not begin with https://")


@pytest.mark.parametrize("url", ["https://", "https://x/\r\nHost: y"])
def test_malformed_urls(helpers, url):
    failed(helpers, helpers.fw_dl(url), USAGE, "the URL is malformed")


def test_long_and_odd_urls(helpers, rude):
    rude.follow(Image(DATA))
    for path in ("/" + "x" * (2047 - len(BASE) - 1), "/%00%0d%0aX:y/../a;b?c=%25n%s&d={}[]\\"):
        helpers.clean()
        ended = helpers.fw_dl(f"{BASE}{path}#fragment" if len(path) < 99 else BASE + path)
        assert ended.status == 0 and helpers.image() == DATA, ended.lines
        assert rude.requests[-1].target == path, "it is asked for as it was given"
        assert max(map(len, ended.lines)) < 400
    assert helpers.fw_dl(f"HTTPS://user:hunter2@{HOST}:{PORT}/x").status == 0
    assert "hunter2" not in " ".join(ended.lines)
