"""Statistics over the wire: the requests, the reports, the refusals."""

import json
import time

from expect import until

ROUTE = {"destination": "10.77.0.0/24", "gateway": None, "interface": "eth0", "metric": 0}


def periodic(lab, index, interval, **wanted):
    """Starts a periodic report."""
    lab.controller.send({"msgType": 103, "stats": [{"index": index, "interval": interval,
                                                    **wanted}]})


def refusal(lab, number, text):
    """Sends a bad request and returns the reply as it came."""
    lab.controller.send_raw(text, unchecked=True)
    return lab.controller.wait_message_event(number)["text"]


def first_report(lab):
    """The report that the lab asks for after the registration."""
    return lab.controller.wait_message(404)


def test_the_device_is_shown_connected_and_reports(online):
    report = first_report(online)
    assert online.status() == "Connected to cloud.orvanta.example"
    assert report["stats"] == {"fields": {}, "tables": {}}
    assert report["sessId"] == int(online.device.read_text("/tmp/session_id"))
    assert online.scmd.statistics_requests() == [
        '{"mType": "STATS-GET", "stats-type": "orv-stats", "index": 0, "periodic": 0, '
        '"fields": [], "tables": []}']


def test_a_report_is_exact(online):
    first_report(online)
    before = int(time.time())
    online.controller.send({"msgType": 104, "stats": [
        {"fields": ["hostname", "cpuCount"], "tables": {"routes": ["metric", "interface"]}}]})
    event = online.controller.wait_message_event(404)
    report, session = event["message"], online.device.read_text("/tmp/session_id").strip()
    routes = report["stats"]["tables"]["routes"]
    assert ROUTE in routes
    cores = report["stats"]["fields"]["cpuCount"]
    assert cores > 0
    assert event["text"] == (
        f'{{"msgType": 404, "sessId": {session}, "ts": {report["ts"]}, "stats": {{"fields": '
        f'{{"hostname": "quill-lab", "cpuCount": {cores}}}, "tables": {{"routes": '
        f'{json.dumps(routes)}}}}}}}')
    assert before - 1 <= report["ts"], "by the device's clock, which runs faster here"


def test_a_long_name_is_cut_and_an_unknown_one_told(online):
    first_report(online)
    online.controller.send({"msgType": 104, "stats": [
        {"fields": ["a-name-of-twenty-cha", "uptime"], "tables": {"100%%": ["x"]}}]})
    stats = online.controller.wait_message(404)["stats"]
    assert stats["unknown"] == {"fields": ["a-name-of-twent"], "tables": ["100%"]}
    assert list(stats["fields"]) == ["uptime"]
    assert '"fields": ["a-name-of-twent", "uptime"], "tables": ["100%"]' in (
        online.scmd.statistics_requests()[-1])


def test_information_tells_what_is_known(online):
    first_report(online)  # a request made before its answer would share it
    online.controller.send({"msgType": 122})
    report = online.controller.wait_message(422)
    assert list(report) == ["msgType", "sessId", "ts", "stats"]
    assert report["stats"]["known"]["fields"]["uptime"] == "s"
    assert report["stats"]["known"]["tables"]["cpus"]["use"] == "%"


CUSTOM = [
    ({"subType": 240}, 424, {"subType": 240}), ({"subType": 254}, 424, {"subType": 254}),
    ({}, 424, {"subType": 240}), ({"subType": "7"}, 424, {"subType": 240}),
    ({"subType": 7}, 404, {}), ({"subType": 239}, 404, {}), ({"subType": 255}, 422, {}),
    ({"subType": 1}, 403, {"index": 0})]


def test_a_custom_report_goes_by_its_subtype(online):
    first_report(online)
    for given, number, members in CUSTOM:
        online.controller.send({"msgType": 124, **given})
        report = online.controller.wait_message(number)
        assert {"msgType": number, **members}.items() <= report.items(), given
        assert list(report) == ["msgType", *members, "sessId", "ts", "stats"], given


ONE_TIME = "on-demand stats request can have only 1 request object"
EMPTY = "Stats attribute in request is an empty array"
NOT_ARRAY = "stats object in json  is not an array"


BAD_ONE_TIME = [
    ('[{}, {}]', ONE_TIME), ("[]", EMPTY), ("5", NOT_ARRAY), ("null", NOT_ARRAY),
    ("[5]", "parse_stats_object: Not an array"),
    ('[{"fields": []}]', "Field object is missing in stats request"),
    ('[{"fields": ["a", 5]}]', "Failed to retrieve the field "),
    ('[{"tables": {}}]', "Not able to get tablesize  Please check the stats json request"),
    ('[{"tables": {"radio": []}}]', "Empty tbl array requested"),
    ('[{"tables": {"radio": 5}}]', "Not an array object in tables...."),
    ('[{"tables": {"radio": [null]}}]',
     "Either tbl_value is null or it is not string, please check stats json request")]


def test_a_bad_one_time_request_is_refused(online):
    for number in (104, 122, 124):
        for stats, message in BAD_ONE_TIME:
            text = f'{{"msgType": {number}, "stats": {stats}}}'
            assert refusal(online, number + 600, text) == (
                f'{{"msgType": {number + 600}, "code": "BadRequest", "message": "{message}"}}')


BAD_PERIODIC = [
    ('[{"index": 1, "interval": 60}]', "Index out of range"),
    ('[{"index": 8, "interval": 60}]', "Index out of range"),
    ('[{"index": "2", "interval": 60}]', "Index out of range"),
    ('[{"interval": 60}]', "Index is missing in stats request"),
    ('[{"index": 2}]', "Interval object is missing in stats request"),
    ('[{"index": 2, "interval": 0}]',
     "Interval object value in stats request should be greater than 0"),
    ("{}", "stats json attribute is not of type STRING"), ("[]", EMPTY),
    ("[7]", "parse_stats_object: Not an array"),
    ('[{"index": 2, "interval": 60, "tables": {}}]',
     "Not able to get tablesize  Please check the stats json request"),
    ('[{"index": 2, "interval": 60, "tables": {"radio": []}}]', "Empty tbl array requested")]


def test_a_bad_periodic_request_is_refused(online):
    for stats, message in BAD_PERIODIC:
        assert refusal(online, 703, f'{{"msgType": 103, "stats": {stats}}}') == (
            f'{{"msgType": 703, "code": "BadRequest", "message": "{message}"}}')


def test_a_stop_of_no_slot_is_refused(online):
    for index in (9, 8, -1):
        assert refusal(online, 703, f'{{"msgType": 105, "index": {index}}}') == (
            '{"msgType": 703, "code": "BadRequest", '
            '"message": "Received stop stats request with invalid index"}')


def test_a_stop_without_an_index_stops_slot_0(online):
    online.controller.send({"msgType": 105})
    online.log.wait("Received periodic stats stop request t_index=0")


def test_the_first_and_the_last_slot_report(online):
    online.controller.send({"msgType": 103, "stats": [
        {"index": 2, "interval": 3, "fields": ["uptime"]},
        {"index": 7, "interval": 7, "fields": ["load1"]}]})
    found = {}
    while set(found) != {2, 7}:
        report = online.controller.wait_message(403)
        assert list(report) == ["msgType", "index", "sessId", "ts", "stats"]
        found[report["index"]] = report["stats"]
    assert list(found[2]["fields"]) == ["uptime"]
    assert list(found[7]["fields"]) == ["load1"]


def test_a_stopped_slot_fires_once_more_and_reports_nothing(online):
    periodic(online, 3, 4, fields=["uptime"])
    online.controller.wait_message(403)
    online.controller.send({"msgType": 105, "index": 3})
    online.log.wait("Received periodic stats stop request t_index=3")
    sent = len(online.controller.messages(403))
    online.log.wait("Stats request NOT active anymore disable recurrance of t_index=3")
    periodic(online, 4, 9, fields=["uptime"])  # longer than the stopped slot's interval
    while online.controller.wait_message(403)["index"] != 4:
        pass
    assert [r["index"] for r in online.controller.messages(403)[sent:]] == [4]


def test_a_slot_takes_a_new_request(online):
    periodic(online, 5, 3600, fields=["uptime"])
    periodic(online, 5, 2, fields=["load5"])
    online.log.wait("Periodic request already active, replacing with new one")
    for _ in range(2):
        assert list(online.controller.wait_message(403)["stats"]["fields"]) == ["load5"]


def test_a_bad_object_keeps_the_ones_before_it(online):
    reply = refusal(online, 703, json.dumps({"msgType": 103, "stats": [
        {"index": 2, "interval": 3}, {"index": 3, "interval": 5}, 7]}))
    assert "Not an array" in reply
    found = set()
    while found != {2, 3}:
        found.add(online.controller.wait_message(403)["index"])


def test_reports_end_with_the_connection(online):
    periodic(online, 6, 20, fields=["uptime"])
    online.log.wait("Started pstats timer t_index=6")
    online.controller.kill()
    online.log.wait("Cancelling pstats timer t_index=6")
    online.wait_registered()
    sent = len(online.controller.messages(403))
    periodic(online, 2, 45, fields=["uptime"])  # twice as long as the lost request's interval
    while online.controller.wait_message(403)["index"] != 2:
        pass
    assert [r["index"] for r in online.controller.messages(403)[sent:]] == [2]


def test_without_a_daemon_nothing_is_reported_and_all_else_works(online):
    first_report(online)
    online.scmd.stop()
    periodic(online, 2, 2, fields=["uptime"])
    online.log.wait("Failed to send stats, ret=-1")
    online.log.wait("Failed to send stats, ret=-1")
    online.scmd.start()
    assert online.controller.wait_message(403)["index"] == 2
    until(online, lambda: online.status().startswith("Connected to"), "the status")
