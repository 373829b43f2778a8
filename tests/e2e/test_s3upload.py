"""s3upload: a file reaches a pre-signed URL, over broken links too, and the controller hears of it."""

import json
import os
import random
import signal
import time

import pytest
from rude_server import BASE, raw
from transfers import EVENTS, FASTER, IN_A_HURRY, killed, peak_kib

from lab import schemas
from lab.authority import Authority
from lab.filestore import HOST

DATA = random.Random(12).randbytes(300_000)
URL = f"{BASE}/bucket/support.tar.gz?X-Signature=secret"
FILE = "/tmp/techsupport.tar.gz"
GIVEN_UP, REFUSED, UNTRUSTED, LOCAL, USAGE, UNREPORTED = 1, 2, 3, 4, 64, 75


@pytest.fixture
def archive(helpers):
    """The file to be uploaded is there."""
    helpers.path(FILE).write_bytes(DATA)
    return helpers


def event(ended):
    """The details of the one event, which has the shape that is written down."""
    schemas.check_event(ended.report)
    found = json.loads(ended.report)
    assert found["eId"] == "TechSupportUpload", "not a report that the agent keeps"
    assert abs(found["eTime"] - time.time()) < 3600 * 24
    details = found["varPayload"]
    assert (details["outcome"] == "Failed") == ("reason" in details) == (ended.status != 0)
    return details


def uploaded(ended):
    """It ended well."""
    assert ended.status == 0, ended.lines
    details = event(ended)
    assert (details["outcome"], details["bytes"]) == ("Complete", len(DATA))
    return details


def failed(ended, status, reason, http_status=0):
    """It ended with this status and told this reason."""
    assert ended.status == status, ended.lines
    details = event(ended)
    assert reason in details["reason"], details
    assert ended.lines[-1] == f"failed: {details['reason']}"
    assert details["httpStatus"] == http_status


def taken(status="200 OK", headers=""):
    """A script: takes the body and answers."""
    def script(exchange):
        exchange.read_body()
        exchange.answer(status, headers)
    return script


def test_a_file_reaches_nginx(archive, transfer_lab):
    files = transfer_lab.files
    ended = archive.s3upload(files.upload_url("site 7.tar.gz"), FILE, name="site 7.tar.gz", clock="")
    details = uploaded(ended)
    assert (details["fileName"], details["httpStatus"]) == ("site 7.tar.gz", 201)
    assert files.uploaded("site 7.tar.gz") == DATA
    [request] = files.requests("site 7.tar.gz")
    assert (request["method"], request["type"]) == ("PUT", "application/gzip")
    assert request["length"] == str(len(DATA))
    assert ended.lines[0].startswith(f"uploading {len(DATA)} bytes to https://{HOST}:8446/uploads/")
    assert not any("Signature" in line for line in ended.lines)


def test_the_request_to_the_byte(archive, rude):
    rude.follow(taken())
    uploaded(archive.s3upload(URL, FILE, "application/x-tar; v=1"))
    [request] = rude.requests
    assert request.lines == [
        "PUT /bucket/support.tar.gz?X-Signature=secret HTTP/1.1", f"Host: {HOST}:8447",
        "User-Agent: device-agent/2.78", "Accept: */*", "Content-Type: application/x-tar; v=1",
        f"Content-Length: {len(DATA)}"]
    assert request.body == DATA
    rude.follow(taken("204 No Content"))
    uploaded(archive.s3upload(URL, FILE, ""))
    assert "content-type" not in rude.requests[0].headers


def test_an_empty_file(archive, rude):
    archive.path(FILE).write_bytes(b"")
    rude.follow(taken())
    assert archive.s3upload(URL, FILE).status == 0
    assert rude.requests[0].headers["content-length"] == "0"


def test_passing_failures_pass(archive, rude):
    def broken(exchange):
        exchange.read_body(100_000)
        exchange.break_off()

    def silent(exchange):
        exchange.read_body()
        exchange.break_off()
    rude.follow(taken("503 Slow Down", "Retry-After: 5"), broken, silent, taken("500 Oh"),
                taken("408 Request Timeout"), taken("429 Too Many"), taken())
    ended = archive.s3upload(URL, FILE, clock=FASTER)
    uploaded(ended)
    assert len(rude.requests) == 7
    assert rude.requests[-1].body == DATA, "from its beginning each time"


@pytest.mark.parametrize("status", ["403 Forbidden", "411 Length Required", "301 Moved",
                                    "307 Temporary"])
def test_refusals_are_final_and_told(archive, rude, status):
    def refuse(exchange):
        exchange.read_body()
        exchange.answer(status, body=b"<Error><Code>Expired</Code>\n\x1b[2J</Error>" + b"x" * 5000)
    rude.follow(refuse)
    ended = archive.s3upload(URL, FILE)
    failed(ended, REFUSED, f"the server answers {status}", int(status[:3]))
    [said] = [line for line in ended.lines if line.startswith("the server says: ")]
    assert said.startswith("the server says: <Error><Code>Expired</Code>??[2J</Error>xxx")
    assert len(said) < 400 and len(rude.requests) == 1


def test_a_refusal_before_the_end_is_heard(archive, rude):
    def early(exchange):
        exchange.read_body(1000)
        exchange.answer("403 Forbidden", body=b"no")
        exchange.stall()
    rude.follow(early)
    failed(archive.s3upload(URL, FILE), REFUSED, "the server answers 403 Forbidden", 403)


def test_a_success_before_the_end_is_none(archive, rude):
    archive.path(FILE).write_bytes(bytes(8_000_000))

    def early(exchange):
        exchange.read_body(1000)
        exchange.answer("200 OK")
    rude.follow(early, taken("403 Forbidden"))
    assert archive.s3upload(URL, FILE).status == REFUSED


@pytest.mark.parametrize("status", ["307 Temporary Redirect", "308 Permanent Redirect"])
def test_the_same_request_elsewhere(archive, rude, transfer_lab, status):
    rude.follow(taken(status, f"Location: {BASE}/region"), taken())
    uploaded(archive.s3upload(URL, FILE))
    assert [(request.method, request.target, request.body == DATA) for request in rude.requests] == [
        ("PUT", "/bucket/support.tar.gz?X-Signature=secret", True), ("PUT", "/region", True)]


def test_a_place_elsewhere_that_fails_is_tried_again(archive, rude):
    def broken(exchange):
        exchange.read_body(1000)
        exchange.break_off()
    rude.follow(taken("307 Temporary Redirect", f"Location: https://{HOST}:8448/dead"),
                taken("307 Temporary Redirect", f"Location: {BASE}/region"), broken, taken())
    uploaded(archive.s3upload(URL, FILE))
    assert len(rude.requests) == 4


@pytest.mark.parametrize("status, to, reason", [
    ("301 Moved", f"{BASE}/x", "the server answers 301 Moved"),
    ("302 Found", f"{BASE}/x", "the server answers 302 Found"),
    ("303 See Other", f"{BASE}/x", "the server answers 303 See Other"),
    ("307 Temporary", f"http://{HOST}/x", "redirects to something other than https"),
    ("308 Permanent", URL, "redirects again and again")])
def test_redirects_that_are_not_followed(archive, rude, status, to, reason):
    rude.follow(taken(status, f"Location: {to}"))
    failed(archive.s3upload(URL, FILE), REFUSED, reason, int(status[:3]))
    assert len(rude.requests) == (6 if to == URL else 1)


def test_a_stranger_gets_nothing(archive, rude, transfer_lab):
    rude.follow(taken())
    rude.show(Authority().leaf([HOST]))
    try:
        failed(archive.s3upload(URL, FILE), UNTRUSTED, "SSL certificate problem")
    finally:
        rude.show(transfer_lab.authority.leaf([HOST]))
    assert not rude.requests


def test_a_server_that_stalls_is_left_and_asked_again(archive, rude):
    archive.path(FILE).write_bytes(os.urandom(8_000_000))

    def stuck(exchange):
        exchange.read_body(1000)
        time.sleep(10)  # takes nothing: its kernel's buffer fills up
    rude.follow(stuck, taken("403 Forbidden"))
    ended = archive.s3upload(URL, FILE, clock=FASTER)
    assert ended.status == REFUSED and any("Operation too slow" in line for line in ended.lines)


def test_many_failures_in_vain_are_enough(archive, rude):
    rude.follow(taken("503 Busy"))
    ended = archive.s3upload(URL, FILE, clock=IN_A_HURRY)
    assert ended.status == GIVEN_UP and event(ended)["reason"].startswith("given up: ")
    assert ended.tries == 10 and any("the server answers 503 Busy" in line for line in ended.lines)


@pytest.mark.parametrize("script", [
    raw(b"\x00\xff" * 500), raw(b""), raw(b"HTTP/1.1 000 x\r\n\r\n"),
    raw(b"HTTP/1.1 200 OK\r\n", b"X: " + b"y" * 1000 + b"\r\n", repeat=500),
    raw(b"HTTP/1.1 100 Continue\r\n\r\n", repeat=20000),
    raw(b"HTTP/1.1 403 Forbidden\r\n\r\n", b"words without end " * 999, repeat=100)])
def test_rubbish_is_survived(archive, rude, script):
    rude.follow(script, taken())
    ended = archive.s3upload(URL, FILE)
    event(ended)
    assert (ended.status == 0 and len(rude.requests) == 2) or ended.status == REFUSED, ended.lines


# -- the file and the words ---------------------------------------------------------------------


@pytest.mark.parametrize("lay, reason", [
    ("true", "No such file"), ("mkdir x", "Invalid argument"), ("mkfifo x", "Invalid argument"),
    ("ln -s /etc/version x", "Too many levels")])
def test_what_is_no_plain_file_is_not_sent(helpers, rude, lay, reason):
    helpers.lab.device.run(["sh", "-c", f"cd /tmp; {lay}"], check=True)
    rude.follow(taken())
    failed(helpers.s3upload(URL, "/tmp/x"), LOCAL, f"the file cannot be read: {reason}")
    assert not rude.requests


def test_a_file_that_becomes_shorter(archive, rude):
    archive.path(FILE).write_bytes(bytes(8_000_000))

    def slowly(exchange):
        exchange.read_body(1000)
        archive.path(FILE).write_bytes(b"short")
        exchange.read_body()
    rude.follow(slowly)
    failed(archive.s3upload(URL, FILE), LOCAL, "the file has become shorter")


@pytest.mark.parametrize("url, content_type, reason", [
    (f"http://{HOST}/x", "a/b", "does not begin with https://"), ("https://x y/", "a/b", "malformed"),
    (URL, "a/b\r\nX: y", "may not stand in a header"), (URL, "x" * 256, "too long")])
def test_wrong_words(archive, rude, url, content_type, reason):
    rude.follow(taken())
    failed(archive.s3upload(url, FILE, content_type), USAGE, reason)
    assert not rude.requests


def test_names_are_meant_from_where_it_is_started(archive, rude):
    rude.follow(taken())
    ended = archive.start("s3upload", URL, "techsupport.tar.gz", "a/b", "n", EVENTS[len("/tmp/"):],
                          cwd="/tmp").end()
    uploaded(ended)


@pytest.mark.parametrize("words, reports", [
    ([], 0), (["a", "b", "c", "d"], 0), (["--help"], 0), ([URL, FILE, "a/b", "n", EVENTS, "more"], 1)])
def test_usage(helpers, words, reports):
    ended = helpers.start("s3upload", *words).end()
    assert ended.status == (0 if words == ["--help"] else USAGE)
    assert len(ended.reports) == reports and ended.lines


@pytest.mark.parametrize("name", ["", '"' * 5000, "a\u20ac\x1b" * 3000])
def test_the_event_fits_whatever_the_name(archive, rude, name):
    long = "403 " + '"\\' * 400
    rude.follow(taken(long))
    ended = archive.s3upload(URL, FILE, name=name)
    assert ended.status == REFUSED and event(ended)["httpStatus"] == 403
    assert len(ended.report.encode()) <= 2048


# -- stopped, killed, unheard -------------------------------------------------------------------


def test_a_signal_and_a_kill(archive, rude):
    def stuck(exchange):
        exchange.read_body(1000)
        exchange.stall()
    for number, reports in ((signal.SIGTERM, 1), (signal.SIGKILL, 0)):
        rude.follow(stuck)
        running = archive.start("s3upload", URL, FILE, "a/b", "n", EVENTS, clock="")
        deadline = time.monotonic() + 20
        while not rude.requests:
            assert time.monotonic() < deadline
            time.sleep(0.01)
        running.signal(number)
        ended = running.end()
        assert len(ended.reports) == reports
        assert killed(ended) or (ended.status == 128 + number and
                                 event(ended)["reason"].startswith("stopped by a signal"))
        assert archive.names() == {"techsupport.tar.gz"}, "nothing of its own"


def test_nobody_takes_the_event(archive, rude):
    rude.follow(taken())
    archive.events.close()
    running = archive.start("s3upload", URL, FILE, "a/b", "n", EVENTS, clock=FASTER)
    running.process.wait(timeout=20)
    assert running.process.returncode == UNREPORTED
    assert "nobody took the event" in running.process.stdout.read().decode()


def test_the_controller_hears_of_it_through_the_agent(online, binary):
    path = str(binary.parent / "s3upload")
    online.device.write_text("/tmp/x", "text")
    done = online.device.run([path, "https://absent.example/x", "/tmp/absent", "a/b", "x", EVENTS])
    assert done.returncode == LOCAL, done.stdout + done.stderr
    told = json.loads(online.controller.wait_trap())
    assert told["varPayload"]["reason"] == "the file cannot be read: No such file or directory"


def test_its_memory_does_not_grow_with_the_file(helpers, transfer_lab, binary):
    release = binary.parent.parent.parent / "build"
    assert (release / "s3upload").exists(), "build it first: ./dev build"
    peaks = []
    for size in (100_000, 200 << 20):
        with open(helpers.path(FILE), "wb") as file:
            file.truncate(size)
        helpers.events.close()  # it waits there at its end
        running = helpers.start("s3upload", transfer_lab.files.upload_url("big"), FILE, "a/b", "n",
                                EVENTS, clock="", folder=release)
        running.wait_line("uploaded: ")
        peaks.append(peak_kib(running))
        helpers.events.open()
        assert running.end().status == 0
        assert transfer_lab.files.uploaded_path("big").stat().st_size == size
    transfer_lab.files.uploaded_path("big").unlink()
    print(f"s3upload: {peaks} KiB")
    assert peaks[1] < peaks[0] + 1024 < 20480, peaks
