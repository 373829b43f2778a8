"""fw_dl: stopped, killed, out of space, hindered; and its report, whoever listens."""

import json
import os
import random
import signal
import time

import pytest
from rude_server import BASE, Image, answers
from transfers import EVENTS, FASTER, IMAGE, killed, peak_kib

DATA = random.Random(10).randbytes(300_000)
URL = f"{BASE}/fw/image.img"
REFUSED, LOCAL, USAGE, UNREPORTED = 2, 4, 64, 75


def reason(ended):
    """The reason in the one report of a failure."""
    report = json.loads(ended.report)
    assert report["msgType"] == 701, report
    return report["message"]


def wait_until(condition, what):
    """Waits for what is to be seen in the device only."""
    deadline = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < deadline, f"waited for {what}"
        time.sleep(0.01)


# -- signals ----------------------------------------------------------------------------------


@pytest.fixture
def under_way(helpers, rude):
    """A download that has brought 100,000 bytes and waits for more."""
    rude.follow(Image(DATA).stalled(100_000))
    empty = helpers.held_bytes()
    running = helpers.start_fw_dl(URL, clock="")
    wait_until(lambda: helpers.held_bytes() >= empty + 98_304, "the first bytes")
    return running


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT])
def test_a_signal_stops_it_and_is_reported(helpers, under_way, number):
    assert helpers.names() == set(), "what is not complete has no name"
    begun = time.monotonic()
    under_way.signal(number)
    ended = under_way.end()
    assert time.monotonic() - begun < 20
    assert ended.status == 128 + number
    assert reason(ended).startswith("stopped by a signal: ")
    assert helpers.names() == set() and helpers.held_bytes() < 98_304


def test_a_kill_leaves_nothing(helpers, under_way):
    under_way.signal(signal.SIGKILL)
    ended = under_way.end()
    assert killed(ended) and ended.reports == []
    wait_until(lambda: helpers.held_bytes() < 98_304, "the kernel to take the bytes back")
    assert helpers.names() == set()


def test_a_signal_during_the_pause(helpers, rude):
    rude.follow(answers("503 Busy", "Retry-After: 300"))
    running = helpers.start_fw_dl(URL, clock="")
    running.wait_line("trying again in 3")
    running.signal(signal.SIGTERM)
    ended = running.end()
    assert ended.status == 128 + signal.SIGTERM and reason(ended).startswith("stopped")


def test_a_kill_at_any_moment_leaves_all_or_nothing(helpers, rude):
    rude.follow(Image(DATA))
    moments = random.Random(11)
    for _ in range(12):
        running = helpers.start_fw_dl(URL, clock="")
        time.sleep(moments.random() * 0.15)  # a moment, not a wait
        running.signal(signal.SIGKILL)
        ended = running.end()
        image = helpers.image()
        assert image in (None, DATA) and helpers.names() <= {"firmware"}
        assert len(ended.reports) <= 1 and (image == DATA or not ended.reports)
    ended = helpers.fw_dl(URL)
    assert ended.status == 0 and helpers.image() == DATA


# -- files ------------------------------------------------------------------------------------


def test_an_old_image_goes_first(helpers, rude):
    helpers.path(IMAGE).write_bytes(b"old")
    rude.follow(answers("404 Not Found"))
    assert helpers.fw_dl(URL).status == REFUSED and helpers.image() is None
    helpers.path(IMAGE).write_bytes(b"old")
    assert helpers.fw_dl("http://x/").status == USAGE and helpers.image() is None


@pytest.mark.parametrize("late", [False, True], ids=["from the start", "laid during the download"])
def test_nothing_is_written_through_a_link(helpers, rude, late):
    def lay():
        helpers.lab.device.run(["sh", "-c", f"echo precious > /tmp/victim; ln -s victim {IMAGE}; "
                                f"ln -s victim {IMAGE}.new"], check=True)

    def served(exchange):
        if late:
            lay()
        Image(DATA)(exchange)
    if not late:
        lay()
    rude.follow(served)
    assert helpers.fw_dl(URL).status == 0
    assert helpers.path("/tmp/victim").read_text() == "precious\n"
    assert not helpers.path(IMAGE).is_symlink() and helpers.image() == DATA


def test_a_folder_in_the_way(helpers, rude):
    rude.follow(Image(DATA))
    helpers.path(IMAGE).mkdir()
    assert helpers.fw_dl(URL).status == 0 and helpers.image() == DATA, "an empty one goes"
    helpers.clean()
    helpers.path(f"{IMAGE}/occupied").mkdir(parents=True)
    ended = helpers.fw_dl(URL)
    assert ended.status == LOCAL and reason(ended).startswith("something is in the way at /tmp/firmware")
    assert len(rude.requests) == 1, "it has not begun"


@pytest.fixture
def small_tmp(helpers):
    """The device's /tmp holds 4 MiB."""
    helpers.lab.device.run(["mount", "-o", "remount,size=4m", "/tmp"], check=True)
    yield helpers
    helpers.lab.device.run(["mount", "-o", "remount,size=50%", "/tmp"], check=True)


def test_an_image_that_does_not_fit_is_not_begun(small_tmp, rude):
    big = Image(bytes(3_500_000))
    rude.follow(big)
    ended = small_tmp.fw_dl(URL)
    assert ended.status == LOCAL and reason(ended) == "no space for the image in /tmp"
    assert small_tmp.names() == set()
    rude.follow(Image(bytes(2_900_000)))
    assert small_tmp.fw_dl(URL).status == 0, "1 MiB stays free, the rest may be used"


def test_a_medium_that_fills_up_on_the_way(small_tmp, rude):
    def endless(exchange):
        exchange.send(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
        for _ in range(100):
            exchange.send(b"10000\r\n" + bytes(65536) + b"\r\n")
    rude.follow(endless)
    ended = small_tmp.fw_dl(URL)
    assert ended.status == LOCAL and reason(ended) == "no space for the image in /tmp"
    assert small_tmp.names() == set() and small_tmp.held_bytes() < 100_000


def test_a_limit_for_files_is_no_crash(helpers, rude):
    rude.follow(Image(DATA))
    ended = helpers.fw_dl(URL, prefix=("prlimit", "--fsize=100000"))
    assert ended.status == LOCAL and "File too large" in reason(ended)
    assert helpers.names() == set()


# -- the report -------------------------------------------------------------------------------


def test_an_agent_that_starts_again_gets_the_report(helpers, rude):
    rude.follow(Image(DATA))
    for go in (helpers.events.close, helpers.events.leave):
        helpers.events.open()
        go()
        running = helpers.start_fw_dl(URL, clock="")
        running.wait_line("complete: ")
        helpers.events.open()
        ended = running.end()
        assert ended.status == 0 and json.loads(ended.report)["msgType"] == 401


def test_an_agent_that_is_busy_gets_the_report_once(helpers, rude):
    rude.follow(Image(DATA))
    helpers.events.fill()
    running = helpers.start_fw_dl(URL, clock="")
    running.wait_line("complete: ")
    taken = helpers.events.take()  # which makes room: the report may be among them
    ended = running.end()
    (report,) = [datagram for datagram in taken + ended.reports if datagram != b"filling"]
    assert ended.status == 0 and json.loads(report)["msgType"] == 401


def test_nobody_takes_the_report(helpers, rude):
    rude.follow(Image(DATA))
    helpers.events.close()
    running = helpers.start_fw_dl(URL, clock=FASTER)
    running.process.wait(timeout=20)
    output = running.process.stdout.read().decode()
    assert running.process.returncode == UNREPORTED
    assert f"nobody took the report at {EVENTS}: No such file or directory" in output
    assert helpers.names() == set(), "nobody would come for the image"


def test_a_signal_cuts_the_patience_short(helpers, rude):
    rude.follow(Image(DATA))
    helpers.events.fill()
    running = helpers.start_fw_dl(URL, clock="")
    running.wait_line("complete: ")
    running.signal(signal.SIGTERM)
    running.process.wait(timeout=20)
    assert running.process.returncode == 128 + signal.SIGTERM
    assert helpers.names() == set() and set(helpers.events.take()) == {b"filling"}


@pytest.mark.parametrize("words, status, told", [
    ([], USAGE, None), (["https://x/"], USAGE, None), (["--help"], 0, None), (["--version"], 0, None),
    (["https://x/", EVENTS, "more"], USAGE, "there are too many arguments"),
    (["x", EVENTS], USAGE, "the URL does not begin with https://")])
def test_wrong_usage_is_reported_where_the_socket_is_known(helpers, words, status, told):
    ended = helpers.start("fw_dl", *words).end()
    assert ended.status == status and ended.lines
    if told is None:
        assert ended.reports == []
    else:
        assert reason(ended) == told


def test_its_memory_does_not_grow_with_the_image(helpers, transfer_lab, tmp_path, binary):
    release = binary.parent.parent.parent / "build"
    assert (release / "fw_dl").exists(), "build it first: ./dev build"
    big = tmp_path / "big.img"
    with open(big, "wb") as file:
        os.posix_fallocate(file.fileno(), 0, 200 << 20)
    peaks = []
    for content in (b"x" * 100_000, big):
        url = transfer_lab.files.serve("any.img", content)
        helpers.events.close()  # it waits there at its end
        running = helpers.start_fw_dl(url, clock="", folder=release)
        running.wait_line("complete: ")
        peaks.append(peak_kib(running))
        helpers.events.open()
        assert running.end().status == 0
    assert helpers.path(IMAGE).stat().st_size == 200 << 20
    transfer_lab.files.withdraw("any.img")
    print(f"fw_dl: {peaks} KiB")
    assert peaks[1] < peaks[0] + 1024 < 20480, peaks
