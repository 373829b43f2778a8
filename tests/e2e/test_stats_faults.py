"""A statistics daemon that does everything wrong: the agent goes on, and the next report comes."""

import json
import time

import pytest
import vitals
from expect import fence

ONE_TIME = {"msgType": 104, "stats": [{"fields": ["uptime"]}]}


@pytest.fixture
def asking(online):
    """A registered device whose first report is through."""
    online.controller.wait_message(404)
    return online


def recovers(lab):
    """A daemon that behaves again gets the next request."""
    lab.scmd.behave()
    fence(lab)
    lab.controller.send(ONE_TIME)
    report = lab.controller.wait_message(404)
    assert list(report["stats"]["fields"]) == ["uptime"]


def descriptors(lab):
    """How many descriptors the agent holds."""
    return len(vitals.descriptors(lab))


@pytest.mark.parametrize("fault, said", [
    ("close", "Failed read scm stats"), ("dead", "Failed read scm stats"),
    ("huge", "Failed read scm stats"), ("lying", "Failed read scm stats")])
def test_an_answer_that_does_not_come_whole_costs_the_report(asking, fault, said):
    before = descriptors(asking)
    asking.scmd.fail(fault, mType="STATS-GET")
    asking.controller.send(ONE_TIME)
    asking.log.wait(said)
    assert descriptors(asking) == before
    recovers(asking)
    assert len(asking.controller.messages(404)) == 2


@pytest.mark.parametrize("fault", ["garbage", "shape"])
def test_an_answer_that_is_no_object_leaves_the_connection_open(asking, fault):
    before = descriptors(asking)
    asking.scmd.fail(fault, mType="STATS-GET")
    asking.controller.send(ONE_TIME)
    asking.log.wait("Failed to load json")
    fence(asking)
    assert descriptors(asking) == before + 1
    recovers(asking)
    assert descriptors(asking) == before, "the first good answer closes it"


def test_of_several_answers_one_is_reported(asking):
    asking.scmd.fail("several", mType="STATS-GET", times=5)
    asking.controller.send(ONE_TIME)
    asking.controller.wait_message(404)
    fence(asking)
    assert len(asking.controller.messages(404)) == 2
    recovers(asking)


def test_a_silent_daemon_holds_nothing_up(asking):
    asking.scmd.fail("silent", mType="STATS-GET")
    for _ in range(5):
        asking.controller.send(ONE_TIME)
    begin = time.monotonic()
    fence(asking)
    assert time.monotonic() - begin < 2.0
    assert "STATS ANSWER" not in asking.log.tail(10_000)
    # The daemon goes: that ends the connection, and the report that still waits.
    asking.scmd.stop()
    asking.log.wait("Failed read scm stats")
    asking.scmd.start()
    recovers(asking)


def test_a_slow_answer_is_reported_or_given_up(asking):
    asking.scmd.fail("slow", mType="STATS-GET", seconds=0.02)  # 0.4 s of the agent's clock a byte
    asking.controller.send(ONE_TIME)
    asking.log.wait("Failed read scm stats")
    asking.scmd.fail("slow", mType="STATS-GET", seconds=0.0)
    asking.controller.send(ONE_TIME)
    assert asking.controller.wait_message(404)["stats"]["fields"]
    recovers(asking)


def test_a_daemon_that_dies_is_not_missed(asking):
    asking.scmd.fail("die", mType="STATS-GET")
    asking.controller.send(ONE_TIME)
    asking.log.wait("Failed read scm stats")
    fence(asking)
    asking.scmd.stop()
    asking.scmd.start()
    recovers(asking)


ROW = {"name": "eth0", "state": "up", "rxBytes": 123456789, "use": 0.5, "mac": "02:4f:56:10:20:30"}


def large(size):
    """An answer of about this many bytes, as text."""
    row = json.dumps(ROW)
    rows = ", ".join([row] * (size // (len(row) + 2)))
    return f'{{"periodic": 0, "index": 0, "stats_result": [{rows}]}}'


def test_an_answer_of_four_megabytes_arrives_whole_and_holds_nothing_up(asking):
    text = large(4 * 1024 * 1024 - 100)
    asking.scmd.fail("text", mType="STATS-GET", text=text)
    before = descriptors(asking)
    asking.controller.send(ONE_TIME)
    for _ in range(10):  # pings, for the queue takes no replies while it holds so much
        asking.controller.ping(b"are you there")
        asking.journal.wait("pong", timeout=2.0)
    stats = asking.controller.wait_message(404, timeout=30)["stats"]
    assert len(stats) == text.count('"eth0"')
    assert all(row == ROW for row in stats)
    fence(asking)
    assert descriptors(asking) == before
    recovers(asking)


RESULTS = ["null", "0.1", "-0.0", '"\\u00e9\\ud83d\\ude00"', "[]", "9223372036854775807", "1e300",
           '{"": {"b": [1, {"c": null}]}}', "[true, false]"]


def test_any_result_passes_unchanged(asking):
    for result in RESULTS:
        asking.scmd.fail("text", mType="STATS-GET",
                         text=f'{{"stats_result": {result}, "index": 3, "periodic": 1}}')
        asking.controller.send(ONE_TIME)
        report = asking.controller.wait_message(403)
        assert list(report) == ["msgType", "index", "sessId", "ts", "stats"]
        assert report["index"] == 3
        assert json.dumps(report["stats"]) == json.dumps(json.loads(result))


def test_an_answer_without_a_result_is_a_report_without_statistics(asking):
    asking.scmd.fail("text", mType="STATS-GET", text="{}")
    asking.controller.send(ONE_TIME)
    assert list(asking.controller.wait_message(404)) == ["msgType", "sessId", "ts"]
