"""Any JSON at all as a request for statistics: accepted or refused as written down, never else.

The oracle below is the rules of the request in a few lines. It and the agent are given the same
texts; what it says is compared with what comes back.
"""

import json

from expect import fence
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

EMPTY = "Stats attribute in request is an empty array"
NOT_STRING = "Either tbl_value is null or it is not string, please check stats json request"
NO_TABLE = "Not able to get tablesize  Please check the stats json request"
RANGE = "Interval object value in stats request should be greater than 0"


def low_32_bits(value):
    """The number that a slot index is taken for; anything but an integer is 0."""
    number = value if type(value) is int else 0
    return (number + 2**31) % 2**32 - 2**31


def lists(element):
    """The complaint about a request object's lists, None when they are good."""
    fields, tables = element.get("fields"), element.get("tables")
    if isinstance(fields, list):
        if not fields:
            return "Field object is missing in stats request"
        if not all(isinstance(name, str) for name in fields):
            return "Failed to retrieve the field "
    if isinstance(tables, dict):
        if not tables:
            return NO_TABLE
        for columns in tables.values():
            if not isinstance(columns, list):
                return "Not an array object in tables...."
            if not columns:
                return "Empty tbl array requested"
            if not all(isinstance(name, str) for name in columns):
                return NOT_STRING
    return None


def periodic_complaint(stats):
    """About a 103."""
    if not isinstance(stats, list):
        return "stats json attribute is not of type STRING"
    if not stats:
        return EMPTY
    for element in stats:
        if not isinstance(element, dict):
            continue
        if "index" not in element:
            return "Index is missing in stats request"
        if not 2 <= low_32_bits(element["index"]) <= 7:
            return "Index out of range"
        if "interval" not in element:
            return "Interval object is missing in stats request"
        if not (type(element["interval"]) is int and element["interval"] >= 1):
            return RANGE
    return built(stats)


def built(stats):
    """About the elements, one after the other."""
    for element in stats:
        if not isinstance(element, dict):
            return "parse_stats_object: Not an array"
        if (complaint := lists(element)) is not None:
            return complaint
    return None


def one_time_complaint(stats):
    """About a 104, 122 or 124."""
    if not isinstance(stats, list):
        return "stats object in json  is not an array"
    if not stats:
        return EMPTY
    if len(stats) > 1:
        return "on-demand stats request can have only 1 request object"
    return built(stats)


def expected(message):
    """The number and the text of the refusal, None when the message is accepted."""
    number, complaint = message["msgType"], None
    if number == 105:
        index = message.get("index")
        if not 0 <= (index if type(index) is int else 0) <= 7:
            complaint = "Received stop stats request with invalid index"
        return complaint and (703, complaint)
    if "stats" in message:
        complaint = (periodic_complaint if number == 103 else one_time_complaint)(message["stats"])
    return complaint and (number + 600, complaint)


integers = st.integers(-2**63, 2**63 - 1) | st.integers(-2, 9) | st.sampled_from(
    [2**31, 2**32 + 3, -2**32 + 5, 2**31 - 1])
texts = st.text(st.characters(blacklist_categories=("Cs",), blacklist_characters="\0"), max_size=20)
leaves = (st.none() | st.booleans() | integers | texts
          | st.floats(allow_nan=False, allow_infinity=False))
anything = st.recursive(leaves, lambda inner: st.lists(inner, max_size=3)
                        | st.dictionaries(texts, inner, max_size=3), max_leaves=6)
names = st.lists(texts, max_size=4)
tables = st.dictionaries(texts, st.lists(texts, min_size=1, max_size=2) | names | anything,
                         max_size=3)
lists_of_a_request = {"fields": names | anything, "tables": tables | anything, "extra": anything}
indexes = st.integers(0, 9) | st.sampled_from([2**32 + 3, -2**32 + 5, 2**31, 2**63 - 1])
intervals = st.integers(3600, 2**40) | st.integers(-1, 1)
slots = st.fixed_dictionaries({"index": indexes, "interval": intervals},
                              optional=lists_of_a_request)
elements = slots | st.fixed_dictionaries({}, optional={
    "index": indexes | anything, "interval": intervals | anything, **lists_of_a_request})
stats_members = (st.lists(elements, min_size=1, max_size=1)
                 | st.lists(elements | anything, max_size=3) | anything)
messages = st.one_of(
    st.fixed_dictionaries({"msgType": st.just(103), "stats": stats_members}),
    st.fixed_dictionaries({"msgType": st.sampled_from([104, 122, 124]), "stats": stats_members},
                          optional={"subType": anything}),
    st.fixed_dictionaries({"msgType": st.just(105)}, optional={"index": indexes | anything}),
    st.fixed_dictionaries({"msgType": st.sampled_from([103, 104, 105, 122, 124])},
                          optional={"index": anything, "subType": anything}))


def ask(lab, message):
    """Sends the message and returns the refusals that it gets: number and text."""
    position = lab.journal.position
    lab.controller.send_raw(json.dumps(message), unchecked=True)
    fence(lab)
    sent = [event["message"] for event in lab.journal.events("from-agent", since=position)]
    assert all(m["msgType"] in (403, 404, 422, 423, 424, 703, 704, 722, 724) for m in sent), sent
    return [(m["msgType"], m["message"]) for m in sent if m["msgType"] >= 700]


def test_any_request_is_accepted_or_refused_as_written(online):
    online.controller.wait_message(404)

    @settings(max_examples=500, deadline=None, database=None,
              suppress_health_check=list(HealthCheck))
    @given(messages)
    def each(message):
        refused = expected(message)
        assert ask(online, message) == ([refused] if refused else []), message

    each()
    assert online.supervisor.starts == 1
    assert len(online.controller.connections) == 1


def test_the_oracle_knows_both_answers():
    assert expected({"msgType": 104}) is None
    assert expected({"msgType": 105, "index": 2**32 + 3}) == (
        703, "Received stop stats request with invalid index")
    assert expected({"msgType": 105, "index": 9}) == (
        703, "Received stop stats request with invalid index")
    assert expected({"msgType": 103, "stats": [{"index": 2, "interval": 1}, 5]}) == (
        703, "parse_stats_object: Not an array")
    assert expected({"msgType": 124, "stats": [{"fields": "x", "tables": []}]}) is None
