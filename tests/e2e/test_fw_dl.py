"""fw_dl: an image arrives whole, over broken links too, and is never a mixture of two."""

import hashlib
import os
import random
import re
import stat

import pytest
from rude_server import BASE, Image, answers
from transfers import FASTER, IMAGE

DATA = random.Random(7).randbytes(700_000)
OTHER = random.Random(8).randbytes(700_000)
URL = f"{BASE}/fw/image.img?token=secret"
DONE = re.compile(r'\{"msgType":401,"status":"DownloadComplete","message":"(\d+) bytes in \d+ s"\}')


def arrived(helpers, ended, data=DATA):
    """It ended well: image, report, exit status, and nothing else is left."""
    assert ended.status == 0, ended.lines
    found = DONE.fullmatch(ended.report)
    assert found and int(found[1]) == len(data), ended.report
    assert hashlib.sha256(helpers.image() or b"").digest() == hashlib.sha256(data).digest()
    assert helpers.names() == {"firmware"}


def ranges(rude):
    """What was asked for, request by request: (Range, If-Range)."""
    return [(request.headers.get("range"), request.headers.get("if-range"))
            for request in rude.requests]


def test_an_image_arrives_from_nginx(helpers, transfer_lab):
    url = transfer_lab.files.serve("fw.img", DATA)
    helpers.path(IMAGE).write_bytes(b"an old image")
    ended = helpers.fw_dl(url, clock="")
    arrived(helpers, ended)
    assert ended.lines[0] == f"downloading {url}"
    assert ended.lines[-1].startswith(f"complete: {len(DATA)} bytes in ")
    status = helpers.path(IMAGE).stat()
    assert stat.S_IMODE(status.st_mode) == 0o600 and status.st_nlink == 1
    [request] = transfer_lab.files.requests("fw.img")
    assert (request["method"], request["status"], request["range"]) == ("GET", 200, "")
    assert request["userAgent"] == "device-agent/2.78"


def test_nginx_dies_and_comes_back(helpers, transfer_lab):
    files = transfer_lab.files
    files.serve("slow.img", DATA)
    running = helpers.start_fw_dl(files.url("slow.img", rate="400k"), clock=FASTER)
    running.wait_line("%)")
    files.kill()
    running.wait_line("trying again in")
    files.start()
    ended = running.end()
    arrived(helpers, ended)
    last = files.requests("slow.img")[-1]
    assert last["status"] == 206 and last["range"].startswith("bytes=") and last["ifRange"], last


@pytest.mark.parametrize("end", [Image.cut, Image.ended], ids=["broken", "ended"])
def test_it_goes_on_where_it_was_cut(helpers, rude, end):
    image = Image(DATA)
    rude.follow(image.cut(-20), end(image, 0), end(image, 1), end(image, 200_000), end(image, 99_999),
                end(image, len(DATA) - 300_001), image)
    ended = helpers.fw_dl(URL)
    arrived(helpers, ended)
    at = [0, 1, 200_001, 300_000, len(DATA) - 1]
    assert ranges(rude) == [(None, None)] * 3 + [(f"bytes={n}-", '"v1"') for n in at[1:]]


def test_the_time_of_change_stands_in_for_an_etag(helpers, rude):
    image = Image(DATA, etag="")
    rude.follow(image.cut(100_000), image)
    arrived(helpers, helpers.fw_dl(URL))
    assert ranges(rude)[1] == ("bytes=100000-", image.modified)


@pytest.mark.parametrize("etag, modified", [
    ("", ""), ('W/"v1"', "Fri, 20 Nov 2026 09:00:00 GMT"), ("v1", ""),
    ("", "Sat, 21 Nov 2026 09:59:30 GMT")],
    ids=["nothing", "weak ETag", "ETag without quotes", "changed just now"])
def test_what_cannot_be_told_from_a_changed_file_is_asked_for_anew(helpers, rude, etag, modified):
    image = Image(DATA, etag=etag, modified=modified)
    rude.follow(image.cut(100_000), image)
    ended = helpers.fw_dl(URL)
    arrived(helpers, ended)
    assert ranges(rude) == [(None, None)] * 2
    assert "starting over" in ended.lines


def test_a_server_that_ignores_ranges(helpers, rude):
    image = Image(DATA, ranges=False)
    rude.follow(image.cut(500_000), image.cut(400_000), image)
    arrived(helpers, helpers.fw_dl(URL))
    assert [asked for asked, _ in ranges(rude)] == [None, "bytes=500000-", "bytes=400000-"]


@pytest.mark.parametrize("changed", [
    Image(OTHER, etag='"v2"'), Image(OTHER[:-1], etag='"v2"'),
    Image(OTHER, etag='"v2"', heeds_if_range=False),
    Image(OTHER + b"longer", etag="", heeds_if_range=False)],
    ids=["whole", "shorter", "a part under another ETag", "a part of another length"])
def test_a_file_that_changes_in_between_is_never_mixed(helpers, rude, changed):
    rude.follow(Image(DATA).cut(300_000), changed)
    arrived(helpers, helpers.fw_dl(URL), changed.data)


PART = "HTTP/1.1 206 Partial Content\r\nConnection: close\r\n"


@pytest.mark.parametrize("headers", [
    f"Content-Range: bytes 300001-{len(DATA) - 1}/{len(DATA)}\r\nContent-Length: 399999",
    f"Content-Range: bytes 300000-{len(DATA) - 1}/{len(DATA) + 1}\r\nContent-Length: 400000",
    f"Content-Range: bytes 300000-{len(DATA) - 1}/{len(DATA)}\r\nContent-Length: 400001",
    "Content-Type: multipart/byteranges; boundary=x\r\nContent-Length: 400000"])
def test_a_wrong_part_is_not_taken(helpers, rude, headers):
    def wrong(exchange):
        exchange.send(f"{PART}{headers}\r\n\r\n".encode() + OTHER)
    image = Image(DATA)
    rude.follow(image.cut(300_000), wrong, image)
    arrived(helpers, helpers.fw_dl(URL))
    assert ranges(rude)[2] == (None, None)


def test_a_shorter_part_is_taken_and_the_rest_asked_for(helpers, rude):
    def short(exchange):
        exchange.send((f"{PART}Content-Range: bytes 300000-399999/{len(DATA)}\r\n"
                             "Content-Length: 100000\r\n\r\n").encode() + DATA[300_000:400_000])
    image = Image(DATA)
    rude.follow(image.cut(300_000), short, image)
    arrived(helpers, helpers.fw_dl(URL))
    assert ranges(rude)[2] == ("bytes=400000-", '"v1"')


def test_a_part_that_stops_short_completes_nothing_of_unknown_length(helpers, rude):
    """The first answer told no length: what the file's length is, the part says."""
    def cut_chunks(exchange):
        exchange.send(b'HTTP/1.1 200 OK\r\nETag: "v1"\r\nTransfer-Encoding: chunked\r\n\r\n'
                      b"493e0\r\n" + DATA[:300_000] + b"\r\n")

    def short(exchange):
        exchange.send((f"{PART}Content-Range: bytes 300000-399999/{len(DATA)}\r\n"
                       "Content-Length: 100000\r\n\r\n").encode() + DATA[300_000:400_000])
    rude.follow(cut_chunks, short, Image(DATA))
    arrived(helpers, helpers.fw_dl(URL))
    assert [asked for asked, _ in ranges(rude)] == [None, "bytes=300000-", "bytes=400000-"]


def test_416_makes_it_start_over(helpers, rude):
    image = Image(DATA)
    rude.follow(image.cut(300_000), answers("416 Range Not Satisfiable"), image)
    arrived(helpers, helpers.fw_dl(URL))
    assert ranges(rude)[2] == (None, None)


def test_chunks_and_what_comes_behind_the_file(helpers, rude):
    def chunked(exchange):
        exchange.send(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
        for at in range(0, len(DATA), 99_000):
            piece = DATA[at:at + 99_000]
            exchange.send(b"%x\r\n%b\r\n" % (len(piece), piece))
        exchange.send(b"0\r\nX-Trailer: HTTP/1.1 404\r\n\r\n")

    def cut_chunks(exchange):
        exchange.send(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                            b"5000\r\n" + DATA[:0x5000] + b"\r\n")
    rude.follow(cut_chunks, chunked)
    arrived(helpers, helpers.fw_dl(URL))

    def longer(exchange):
        head, body = Image(DATA).answer_to(exchange.request)
        exchange.send(head + body + b"and more" * 1000)
    rude.follow(longer)
    arrived(helpers, helpers.fw_dl(URL))


def test_bytes_are_stored_as_they_come(helpers, rude):
    packed = b"\x1f\x8b" + DATA
    rude.follow(Image(packed, extra="Content-Encoding: gzip"))
    arrived(helpers, helpers.fw_dl(URL), packed)
    assert "accept-encoding" not in rude.requests[0].headers


def test_passing_failures_pass(helpers, rude):
    image = Image(DATA)
    rude.follow(*[answers(status, "Retry-After: 7", b"<html>later</html>") for status in
                  ("503 Busy", "429 Slow Down", "408 Late", "425 Early", "599 Odd")],
                image.cut(70_000), answers("502 Bad Gateway"), image)
    ended = helpers.fw_dl(URL, clock=FASTER)
    arrived(helpers, ended)
    waits = [float(found[1]) for line in ended.lines
             if (found := re.fullmatch(r"the server answers .*; trying again in ([\d.]+) s", line))]
    assert len(waits) == 6 and all(7 <= wait <= 8.8 for wait in waits[:3]), waits
    assert 16 <= waits[4] <= 20, "its own patience grows"
    assert 1 <= waits[5] <= 1.3, "and is small again after a step forward"
    assert ranges(rude)[-1] == ("bytes=70000-", '"v1"'), "what was there has been kept"


def test_a_server_that_stalls_is_left_and_asked_again(helpers, rude):
    image = Image(DATA)
    rude.follow(image.stalled(-30), image.stalled(250_000), image)
    ended = helpers.fw_dl(URL, clock=FASTER)
    arrived(helpers, ended)
    assert sum("Operation too slow" in line for line in ended.lines) == 2
    assert ranges(rude)[-1] == ("bytes=250000-", '"v1"')


def test_progress_is_told_now_and_then(helpers, rude):
    def steady(exchange):
        head, body = Image(DATA).answer_to(exchange.request)
        exchange.send(head)
        for at in range(0, len(body), 7000):
            exchange.send(body[at:at + 7000])
    rude.follow(steady)
    ended = helpers.fw_dl(URL, clock="")
    arrived(helpers, ended)
    told = [line for line in ended.lines if line.endswith("%)")]
    assert len(told) <= ended_seconds(ended), "at most one a second"
    assert all(re.fullmatch(r"\d+ of 700000 bytes \(\d+ %\)", line) for line in told)
    assert not any("secret" in line for line in ended.lines), "the query may be a secret"


def ended_seconds(ended):
    """The seconds that a download took by its own account."""
    return int(re.search(r"in (\d+) s", ended.report)[1])


def test_a_reader_who_does_not_read_holds_up_nothing(helpers, rude):
    read_end, write_end = os.pipe()
    os.set_blocking(write_end, False)
    try:
        while True:
            os.write(write_end, b"x" * 4096)
    except BlockingIOError:
        os.set_blocking(write_end, True)
    rude.follow(Image(DATA))
    running = helpers.start_fw_dl(URL, stdout=write_end)
    running.process.wait(timeout=20)
    os.close(write_end)
    os.close(read_end)
    assert running.process.returncode == 0 and helpers.image() == DATA
    assert len(helpers.events.take()) == 1
