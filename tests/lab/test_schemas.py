"""The protocol's documents fit together, and lab.schemas holds messages to them."""

from __future__ import annotations

import json
import runpy
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
import yaml
from jsonschema import Draft202012Validator

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab import schemas  # noqa: E402  (the repository's root has to be on the path first)

PROTOCOL = ROOT / "docs" / "protocol"
FILES = sorted(PROTOCOL.rglob("*.schema.json"))
CATALOGUE = json.loads((PROTOCOL / "catalogue.json").read_text(encoding="utf-8"))
ROWS = CATALOGUE["messages"]
FROM_AGENT = [row for row in ROWS if row["direction"] == "to-controller"]
FROM_CONTROLLER = [row for row in ROWS if row["direction"] == "to-agent"]


OPTIONAL = {403: {"stats"}, 404: {"stats"}, 409: {"command", "output"}, 410: {"command", "status"}, 422: {"stats"}, 424: {"stats"},
            709: {"command"}, 699: {"varPayload"}}
"""The few members that the agent may leave out of a message."""

ANY_VALUE = {116: {"ctrlrPayload"}, 118: {"ctrlrPayload"}}
"""Members that hold whatever somebody else has put there."""

TYPE_PLACE = {116: 2, 118: 3}
"""The agent's messages in which the type has others before it, and how many."""


def row_id(row: Any) -> str:
    """Name a catalogue row or a file in pytest's output."""
    return row.name if isinstance(row, Path) else f'{row["direction"]}-{row["msgType"]}'


def read(path: str | Path) -> dict[str, Any]:
    """Read one of the documents."""
    return json.loads((PROTOCOL / path).read_text(encoding="utf-8"))


def wire(message: Any) -> str:
    """Write a message as the agent does."""
    return json.dumps(message, ensure_ascii=False)


def examples(rows: list[dict[str, Any]]) -> list[Any]:
    """All examples of some catalogue rows, as parameters for a test."""
    return [pytest.param(row, example, id=f"{row_id(row)}-{number}")
            for row in rows for number, example in enumerate(read(row["schema"])["examples"])]


def members(schema: dict[str, Any], path: str = "") -> Iterator[tuple[str, dict[str, Any]]]:
    """Walk every member that a schema describes, inner ones too."""
    for name, member in schema.get("properties", {}).items():
        yield f"{path}.{name}", member
        yield from members(member, f"{path}.{name}")
    inner = [schema.get("items"), schema.get("additionalProperties")]
    for number, part in enumerate(inner):
        if isinstance(part, dict):
            yield f"{path}[{number}]", part
            yield from members(part, f"{path}[{number}]")
    for number, branch in enumerate(schema.get("anyOf", [])):
        yield from members(branch, f"{path}({number})")


def references(document: Any) -> Iterator[str]:
    """Find every $ref in a document."""
    if isinstance(document, dict):
        for name, value in document.items():
            if name == "$ref":
                yield value
            else:
                yield from references(value)
    elif isinstance(document, list):
        for value in document:
            yield from references(value)


def resolve(base: Path, reference: str) -> Any:
    """Follow a reference that stands in the file `base`; fails if it leads nowhere."""
    file, _, pointer = reference.partition("#")
    path = (base.parent / file).resolve() if file else base
    found = yaml.safe_load(path.read_text(encoding="utf-8"))
    for step in pointer.split("/")[1:]:
        found = found[step]
    return found


def refused(direction: str, text: str | bytes) -> schemas.SchemaError:
    """Return the error with which a message is refused; fails if it is not."""
    with pytest.raises(schemas.SchemaError) as caught:
        schemas.check(direction, text)
    return caught.value


# ---------------------------------------------------------------- the documents

@pytest.mark.parametrize("path", FILES, ids=row_id)
def test_schema_is_valid_and_its_references_resolve(path: Path) -> None:
    schema = read(path)
    assert schema["$schema"] == "https://json-schema.org/draft/2020-12/schema"
    Draft202012Validator.check_schema(schema)
    for reference in references(schema):
        assert resolve(path, reference)


@pytest.mark.parametrize("path", FILES, ids=row_id)
def test_schema_and_members_are_described(path: Path) -> None:
    schema = read(path)
    described = [("", schema), *members(schema), *schema.get("$defs", {}).items()]
    for name, part in described:
        for keyword in ("title", "description"):
            assert part.get(keyword, "").strip(), f"{path.name}: {name} has no {keyword}"


@pytest.mark.parametrize("row", ROWS, ids=row_id)
def test_schema_describes_its_row(row: dict[str, Any]) -> None:
    schema = read(row["schema"])
    assert schema["properties"]["msgType"]["const"] == row["msgType"]
    assert schema["additionalProperties"] is False
    assert schema["examples"]
    names = list(schema["properties"])
    if row["direction"] == "to-controller":
        assert names.index("msgType") == TYPE_PLACE.get(row["msgType"], 0)
        assert schema["x-member-order"] == names
        assert set(names) - set(schema["required"]) == OPTIONAL.get(row["msgType"], set())
    else:
        assert "x-member-order" not in schema
        assert "msgType" in schema["required"]


def test_catalogue_and_schema_files_are_the_same_set() -> None:
    listed = [row["schema"] for row in ROWS]
    assert len(listed) == len(set(listed))
    listed.append(CATALOGUE["ping"]["schema"])
    there = [path.relative_to(PROTOCOL).as_posix() for path in (PROTOCOL / "messages").iterdir()]
    assert sorted(listed) == sorted(there)


def test_catalogue_rows_are_consistent() -> None:
    known = {(row["direction"], row["msgType"]) for row in ROWS}
    assert len(known) == len(ROWS)
    for row in ROWS:
        number, name = row["msgType"], row["name"]
        assert row["schema"] == f"messages/{number}-{name}.schema.json"
        other = "to-agent" if row["direction"] == "to-controller" else "to-controller"
        for answer in (row["reply"], row["failure"]):
            assert answer is None or (other, answer) in known, row
        assert row["reply"] in (None, number + 300)
        special = {105: 703, 697: 999, 700: 700}
        assert row["failure"] in (None, special.get(number, number + 600))


def test_error_codes_are_the_table() -> None:
    assert read("definitions.schema.json")["$defs"]["errorCode"]["enum"] == [
        "No ERROR", "BadRequest", "DeviceNotFound", "FwUpdateInProgress", "OutOfRangeInput",
        "InvalidInput", "InvalidMessageType", "InternalError", "OperationTimedOut", "ServerBusy",
        "UploadInProgress"]


def test_close_reasons_fit_into_a_close_frame() -> None:
    reasons = [row["reason"] for row in CATALOGUE["close"]["reasons"]]
    assert len(reasons) == len(set(reasons)) > 0
    # a control frame carries 125 bytes, two of which are the status
    assert all(len(reason.encode()) <= 123 for reason in reasons)


def test_asyncapi_references_resolve() -> None:
    path = PROTOCOL / "asyncapi.yaml"
    document = yaml.safe_load(path.read_text(encoding="utf-8"))
    assert document["asyncapi"] == "3.0.0"
    found = list(references(document))
    assert found
    for reference in found:
        assert resolve(path, reference), reference


def test_asyncapi_lists_the_catalogue() -> None:
    document = yaml.safe_load((PROTOCOL / "asyncapi.yaml").read_text(encoding="utf-8"))
    described = {name: message["payload"]["schema"]["$ref"].removeprefix("./")
                 for name, message in document["components"]["messages"].items()}
    assert described == {row["name"]: row["schema"] for row in [*ROWS, CATALOGUE["ping"]]}
    channel = document["channels"]["controller"]["messages"]
    assert channel == {name: {"$ref": f"#/components/messages/{name}"} for name in described}


def test_asyncapi_operations_follow_the_catalogue() -> None:
    document = yaml.safe_load((PROTOCOL / "asyncapi.yaml").read_text(encoding="utf-8"))
    rows = {row["name"]: row for row in [*ROWS, CATALOGUE["ping"]]}
    used = set()
    for name, operation in document["operations"].items():
        sent = [rows[message["$ref"].rpartition("/")[2]] for message in operation["messages"]]
        answers = [rows[message["$ref"].rpartition("/")[2]]
                   for message in operation.get("reply", {}).get("messages", [])]
        action = "send" if sent[0]["direction"] == "to-controller" else "receive"
        assert operation["action"] == action, name
        wanted = [sent[0].get("reply"), sent[0].get("failure")]
        assert [row["msgType"] for row in answers] == [n for n in wanted if n is not None], name
        assert all(row["direction"] != sent[0]["direction"] for row in answers), name
        used |= {row["name"] for row in [*sent, *answers]}
    assert used == set(rows)


def test_readme_is_up_to_date() -> None:
    make_readme = runpy.run_path(str(PROTOCOL / "make_readme.py"))
    assert (PROTOCOL / "README.md").read_text(encoding="utf-8") == make_readme["render"](), \
        "run docs/protocol/make_readme.py"


# ---------------------------------------------------------------- what the agent sends

@pytest.mark.parametrize("row, example", examples(ROWS))
def test_example_passes(row: dict[str, Any], example: dict[str, Any]) -> None:
    assert schemas.check(row["direction"], wire(example)) == example
    assert schemas.check(row["direction"], wire(example).encode()) == example


@pytest.mark.parametrize("row, example", examples(FROM_AGENT))
def test_agent_owes_every_member(row: dict[str, Any], example: dict[str, Any]) -> None:
    for name in example.keys() - OPTIONAL.get(row["msgType"], set()):
        rest = {key: value for key, value in example.items() if key != name}
        assert (name, "is missing") in refused("to-controller", wire(rest)).problems


@pytest.mark.parametrize("row, example", examples(FROM_AGENT))
def test_agent_owes_the_type_of_every_member(row: dict[str, Any], example: dict[str, Any]) -> None:
    for name, value in example.items():
        if name in OPTIONAL.get(row["msgType"], set()) | ANY_VALUE.get(row["msgType"], set()):
            continue  # of any type
        wrong = {**example, name: str(value) if not isinstance(value, str) else 1}
        assert name in dict(refused("to-controller", wire(wrong)).problems)
        assert name in dict(refused("to-controller", wire({**example, name: None})).problems)


@pytest.mark.parametrize("row, example", examples(FROM_AGENT))
def test_agent_owes_the_order_of_members(row: dict[str, Any], example: dict[str, Any]) -> None:
    pairs = list(example.items())
    for i in range(len(pairs) - 1):
        swapped = pairs[:i] + [pairs[i + 1], pairs[i]] + pairs[i + 2:]
        error = refused("to-controller", wire(dict(swapped)))
        assert error.problems == [
            (pairs[i + 1][0], f'is out of order: "{pairs[i][0]}" belongs in its place')]


@pytest.mark.parametrize("row, example", examples(FROM_AGENT))
def test_agent_owes_the_separators(row: dict[str, Any], example: dict[str, Any]) -> None:
    for separators in ((",", ":"), (", ", ":"), (", ", " : ")):
        text = json.dumps(example, ensure_ascii=False, separators=separators)
        assert "separators" in str(refused("to-controller", text))
    assert "separators" in str(refused("to-controller", json.dumps(example, indent=1)))
    assert "separators" in str(refused("to-controller", wire(example) + "\n"))


@pytest.mark.parametrize("row, example", examples(ROWS))
def test_unknown_member_is_refused(row: dict[str, Any], example: dict[str, Any]) -> None:
    error = refused(row["direction"], wire({**example, "colour": "blue"}))
    assert error.problems == [("colour", "unknown member")]
    told = f'{row["direction"]} {row["msgType"]} {row["name"]}: member "colour": unknown member'
    assert str(error).startswith(told)


REGISTER = read("messages/100-register.schema.json")["examples"][0]

STEP = "Config update in progress"
TRAP = read("messages/699-event-trap.schema.json")["examples"][0]

SCAN = read("messages/411-radio-scan-result.schema.json")["examples"][0]
NEIGHBOUR = SCAN["neighborInfo"][0]

HOSTILE_FROM_AGENT = [
    # what is wrong, the text, the member named, a piece of the reason
    ("unknown type", '{"msgType": 5}', "msgType", "unknown type"),
    ("controller's type", '{"msgType": 108}', "msgType", "unknown type"),
    ("type as text", '{"msgType": "408"}', "msgType", "unknown type"),
    ("type as real", '{"msgType": 408.0}', "msgType", "unknown type"),
    ("type as truth", '{"msgType": true}', "msgType", "unknown type"),
    ("type as array", '{"msgType": [408]}', "msgType", "unknown type"),
    ("type absent", '{"code": "BadRequest"}', "msgType", "is missing"),
    ("member twice", '{"msgType": 408, "msgType": 408}', "msgType", "comes twice"),
    ("nothing", "", "", "is not JSON"),
    ("no JSON", "hello", "", "is not JSON"),
    ("cut off", '{"msgType": 408', "", "is not JSON"),
    ("text behind", '{"msgType": 408}{}', "", "is not JSON"),
    ("not a number", '{"msgType": NaN}', "", "is not JSON"),
    ("array", "[408]", "", "is not a JSON object"),
    ("deep", "[" * 100_000, "", "is not JSON"),
    ("not UTF-8", b'{"msgType": 408, "\xff": 1}', "", "is not UTF-8"),
    ("code outside the table", '{"msgType": 715, "code": "Oops", "message": ""}', "code",
     "is not one of"),
    ("code of success", '{"msgType": 715, "code": "No ERROR", "message": ""}', "code", "No ERROR"),
    ("code as number", '{"msgType": 715, "code": 1, "message": ""}', "code", "not of type"),
    ("another failure's code", '{"msgType": 999, "code": "ServerBusy", "message": ""}', "code",
     "BadRequest"),
    ("longer than its buffer", wire({"msgType": 715, "code": "BadRequest", "message": "x" * 1024}),
     "message", "too long"),
    ("needless escape", '{"msgType": 715, "code": "BadRequest", "message": "\\u00e9"}', "",
     "needless escape \\u00e9"),
    ("escaped slash", '{"msgType": 715, "code": "BadRequest", "message": "a\\/b"}', "",
     "needless escape \\/"),
    ("blanks in an empty place", '{ "msgType": 408}', "", "at character 2"),
    ("MAC in upper case", wire({**REGISTER, "mac": "02:4F:56:10:20:30"}), "mac", "does not match"),
    ("MAC with its newline", wire({**REGISTER, "mac": REGISTER["mac"] + "\n"}), "mac", "too long"),
    ("parent MAC in lower case", wire({**REGISTER, "pMAC": "02:4f:56:aa:bb:01"}), "pMAC",
     "does not match"),
    ("address out of range", wire({**REGISTER, "ipAddress": "10.77.0.256"}), "ipAddress",
     "does not match"),
    ("session id as real", wire({**REGISTER, "sessId": 5.0}), "sessId", "not of type"),
    ("session id out of range", wire({**REGISTER, "sessId": 2 ** 31}), "sessId", "maximum"),
    ("another version", wire({**REGISTER, "daVersion": "2.79"}), "daVersion", "2.78"),
    ("false", wire({**REGISTER, "lumira": False}), "lumira", "True"),
    ("an unknown step", wire({"msgType": 406, "status": "Done", "message": STEP}), "status",
     "is not one of"),
    ("an unknown step's text", wire({"msgType": 406, "status": "Complete", "message": "fine"}),
     "message", "is not one of"),
    ("another step's text", wire({"msgType": 406, "status": "Complete", "message": STEP}),
     "message", "was expected"),
    ("a line break in a configuration", wire({"msgType": 407, "config": "a\nb"}), "config",
     "should not be valid"),
    ("configuration as object", wire({"msgType": 407, "config": {}}), "config", "not of type"),
    ("an update's code", wire({"msgType": 706, "code": "ServerBusy", "message": ""}), "code",
     "is not one of"),
    ("a pull's text", wire({"msgType": 707, "code": "BadRequest", "message": "no file"}),
     "message", "ERR_BAD_REQUEST"),
    ("an interval's text", wire({"msgType": 717, "code": "BadRequest", "message": "bad"}),
     "message", "is not one of"),
    ("version beyond 32 bits", wire({"msgType": 698, "configVersion": 2 ** 31}), "configVersion",
     "maximum"),
    ("details without a value", wire({**TRAP, "varPayload": None}), "varPayload", "not of type"),
    ("one for true", wire({**REGISTER, "lumira": 1}), "lumira", "True"),
    ("a report without its slot", wire({"msgType": 403, "sessId": 5, "ts": 0, "stats": {}}),
     "index", "is missing"),
    ("a slot in a one-time report",
     wire({"msgType": 404, "index": 0, "sessId": 5, "ts": 0, "stats": {}}), "index",
     "unknown member"),
    ("a subtype that is no custom report's",
     wire({"msgType": 424, "subType": 7, "sessId": 5, "ts": 0, "stats": {}}), "subType", "minimum"),
    ("a scan without its band",
     wire({"msgType": 411, "status": "Complete", "channelInfo": [], "neighborInfo": []}), "band",
     "is missing"),
    ("a neighbour with colons",
     wire({**SCAN, "neighborInfo": [{**NEIGHBOUR, "bssid": "02:00:5E:10:00:01"}]}),
     "neighborInfo[0].bssid", "does not match"),
    ("a neighbour without a maker",
     wire({**SCAN, "neighborInfo": [{k: v for k, v in NEIGHBOUR.items() if k != "manufacturer"}]}),
     "neighborInfo[0].manufacturer", "is missing"),
    ("a failed scan's code",
     wire({"msgType": 711, "code": "InvalidInput", "message": "radio is off"}), "message",
     "was expected"),
    ("a latency below none", wire({"msgType": 412, "avgLatency": -2}), "avgLatency", "minimum"),
    ("a latency in parts", wire({"msgType": 412, "avgLatency": 1.5}), "avgLatency", "not of type"),
    ("a latency test's code",
     wire({"msgType": 712, "code": "InternalError", "message": "Latency test already in progress"}),
     "code", "is not one of"),
    ("a stop's own number", '{"msgType": 705, "code": "BadRequest", "message": ""}', "msgType",
     "unknown type"),
    ("output without a text", '{"msgType": 409, "status": "InProgress"}', "output", "is missing"),
    ("an error with a text", '{"msgType": 409, "status": "Error", "output": ""}', "", "not be valid"),
    ("a name with output",
     '{"msgType": 409, "command": "wifiperf", "status": "Initiated", "output": ""}', "",
     "not be valid"),
    ("clients that are just being sent away",
     '{"msgType": 409, "command": "disconnect-clients", "status": "Initiated"}', "status",
     "was expected"),
    ("a stop's name alone", '{"msgType": 410, "command": "wifiperf"}', "", "dependency"),
    ("a name with a refusal",
     '{"msgType": 709, "command": "wifiperf", "code": "BadRequest", "message": "Execution failed"}',
     "code", "was expected"),
    ("short of memory for a stop", '{"msgType": 703, "code": "InternalError", "message": ""}',
     "code", "is not one of"),
]


@pytest.mark.parametrize("text, member, reason", [row[1:] for row in HOSTILE_FROM_AGENT],
                         ids=[row[0] for row in HOSTILE_FROM_AGENT])
def test_hostile_text_of_the_agent(text: str | bytes, member: str, reason: str) -> None:
    error = refused("to-controller", text)
    reasons = [why for name, why in error.problems if name == member]
    assert any(reason in why for why in reasons), error


def test_texts_keep_their_own_blanks_and_escapes() -> None:
    message = {"msgType": 999, "code": "BadRequest",
               "message": 'a,b:c  ,  "d\\" \\u00e9 {"x":1}\b\f\n\r\t \u00e9\U0001f600\ufffd\x7f'}
    assert schemas.check("to-controller", wire(message)) == message
    control = '{"msgType": 999, "code": "BadRequest", "message": "\\u001B[0m"}'
    assert schemas.check("to-controller", control)["message"] == "\x1b[0m"


def test_every_problem_is_told() -> None:
    error = refused("to-controller", '{"msgType": 423, "uptime": "long", "colour": 1}')
    assert {name for name, _ in error.problems} == {
        "lastCloseReason", "lastCloseTS", "lastRebootReason", "lastRebootTS", "uptime", "colour"}


# ---------------------------------------------------------------- what the controller sends

@pytest.mark.parametrize("row, example", examples(FROM_CONTROLLER))
def test_controller_may_write_as_it_likes(row: dict[str, Any], example: dict[str, Any]) -> None:
    turned = dict(reversed(example.items()))
    for text in (wire(turned), json.dumps(example, separators=(",", ":")),
                 json.dumps(example, indent=4) + "\n"):
        assert schemas.check("to-agent", text) == example


TOLERATED = [
    '{"msgType": 108}',
    '{"msgType": 108, "managed": "yes"}',
    '{"msgType": 108, "accountId": 5}',
    '{"msgType": 108, "accountId": "\\u0041"}',
    '{"msgType": 400, "orvTime": 0}',
    '{"msgType": 700}',
    '{"msgType": 102, "reason": 5, "delay": "soon", "force": "yes"}',
    '{"msgType": 106, "config": {}, "overwrite": "true"}',
    '{"msgType": 106, "config": "", "nativeConfig": ""}',
    '{"msgType": 104, "stats": [{}]}',
    '{"msgType": 104, "stats": [{"fields": "uptime", "tables": ["radio"]}]}',
    '{"msgType": 103}',
    '{"msgType": 105, "index": "3"}',
    '{"msgType": 124, "subType": "custom"}',
    '{"msgType": 124, "subType": 7}',
    '{"msgType": 109, "command": "ping", "arguments": {"hostname": "a", "verbose": []}}',
    '{"msgType": 109, "command": "ping", "arguments": null, "duration": "5"}',
    '{"msgType": 110, "command": 5}',
    '{"msgType": 111}',
    '{"msgType": 112, "tries": 10}',
]


@pytest.mark.parametrize("text", TOLERATED)
def test_what_the_agent_tolerates_passes(text: str) -> None:
    assert schemas.check("to-agent", text) == json.loads(text)


HOSTILE_FROM_CONTROLLER = [
    ("agent's type", '{"msgType": 408}', "msgType", "unknown type"),
    ("type not there yet", '{"msgType": 116}', "msgType", "unknown type"),
    ("type as text", '{"msgType": "108"}', "msgType", "unknown type"),
    ("type absent", '{"foo": 1}', "msgType", "is missing"),
    ("time as text", '{"msgType": 400, "orvTime": "1767225600"}', "orvTime", "not of type"),
    ("time beyond 64 bits", '{"msgType": 400, "orvTime": 9223372036854775808}', "orvTime",
     "maximum"),
    ("member twice", '{"msgType": 108, "managed": true, "managed": false}', "managed",
     "comes twice"),
    ("nothing to update", '{"msgType": 106, "overwrite": true}', "config", "is missing"),
    ("a list to update", '{"msgType": 106, "config": []}', "config", "not of type"),
    ("a native object", '{"msgType": 106, "nativeConfig": {}}', "nativeConfig", "not of type"),
    ("half the intervals", '{"msgType": 117, "waitTime": 600}', "deltaTime", "is missing"),
    ("an interval as text", '{"msgType": 117, "waitTime": "1", "deltaTime": 2}', "waitTime",
     "not of type"),
    ("no status object", '{"msgType": 697}', "Orvanta", "is missing"),
    ("a status as number", '{"msgType": 697, "Orvanta": {"status": 5}}', "Orvanta.status",
     "not of type"),
    ("two requests", '{"msgType": 104, "stats": [{}, {}]}', "stats", "too long"),
    ("no request", '{"msgType": 104, "stats": []}', "stats", "too short"),
    ("request is no object", '{"msgType": 104, "stats": [5]}', "stats[0]", "not of type"),
    ("unknown in a request", '{"msgType": 104, "stats": [{"subType": 240}]}', "stats[0].subType",
     "unknown member"),
    ("no field", '{"msgType": 104, "stats": [{"fields": []}]}', "stats[0].fields", "too short"),
    ("field as number", '{"msgType": 104, "stats": [{"fields": ["a", 5]}]}', "stats[0].fields[1]",
     "not of type"),
    ("no table", '{"msgType": 104, "stats": [{"tables": {}}]}', "stats[0].tables",
     "does not have enough properties"),
    ("no column", '{"msgType": 104, "stats": [{"tables": {"radio": []}}]}',
     "stats[0].tables.radio", "too short"),
    ("a slot of one-time requests", '{"msgType": 103, "stats": [{"index": 1, "interval": 60}]}',
     "stats[0].index", "minimum"),
    ("a slot that is not there", '{"msgType": 103, "stats": [{"index": 8, "interval": 60}]}',
     "stats[0].index", "maximum"),
    ("no interval", '{"msgType": 103, "stats": [{"index": 2}]}', "stats[0].interval", "is missing"),
    ("no time between", '{"msgType": 103, "stats": [{"index": 2, "interval": 0}]}',
     "stats[0].interval", "minimum"),
    ("stopping what is not there", '{"msgType": 105, "index": 9}', "index", "maximum"),
    ("no command", '{"msgType": 109}', "command", "is missing"),
    ("a command that is not approved", '{"msgType": 109, "command": "sh"}', "command",
     "is not one of"),
    ("table as text", '{"msgType": 104, "stats": [{"tables": {"radio": "noise"}}]}',
     "stats[0].tables.radio", "not of type"),
]


@pytest.mark.parametrize("text, member, reason", [row[1:] for row in HOSTILE_FROM_CONTROLLER],
                         ids=[row[0] for row in HOSTILE_FROM_CONTROLLER])
def test_hostile_text_of_the_controller(text: str, member: str, reason: str) -> None:
    error = refused("to-agent", text)
    reasons = [why for name, why in error.problems if name == member]
    assert any(reason in why for why in reasons), error


def test_direction_has_to_be_one_of_the_two() -> None:
    with pytest.raises(ValueError, match="to-nobody"):
        schemas.check("to-nobody", '{"msgType": 408}')


# ---------------------------------------------------------------- pings

PING = '{"Message":"ping from device agent", "Pid": "1042", "PongLoss": "0"}'


def test_ping_passes() -> None:
    read_back = {"Message": "ping from device agent", "Pid": "1042", "PongLoss": "0"}
    assert schemas.check_ping(PING) == read_back
    assert schemas.check_ping(PING.encode()) == read_back
    schema = read(CATALOGUE["ping"]["schema"])
    for example in schema["examples"]:
        assert schemas.check_ping(schema["x-text"] % example) == example


@pytest.mark.parametrize("old, new, reason", [
    ('"Message":', '"Message": ', "is not written as"),
    (", ", ",", "is not written as"),
    ("}", "}\x00", "is not JSON"),
    ("}", "} ", "is not written as"),
    ('"1042"', "1042", 'member "Pid"'),
    ('"1042"', '"0"', 'member "Pid"'),
    ('"1042"', '"-7"', 'member "Pid"'),
    ('"PongLoss": "0"', '"PongLoss": "5"', 'member "PongLoss"'),
    ("agent", "agents", 'member "Message"'),
    (', "PongLoss": "0"', "", 'member "PongLoss": is missing'),
    ('"0"}', '"0", "Seq": "1"}', 'member "Seq": unknown member'),
    ('"Pid": "1042", "PongLoss": "0"', '"PongLoss": "0", "Pid": "1042"', "is out of order"),
])
def test_hostile_ping(old: str, new: str, reason: str) -> None:
    text = PING.replace(old, new)
    assert text != PING
    with pytest.raises(schemas.SchemaError) as caught:
        schemas.check_ping(text)
    assert reason in str(caught.value)
    assert str(caught.value).startswith("ping: ")


# ---------------------------------------------------------------- events of local programs

EVENTS = [pytest.param(path, example, id=f"{path.name}-{number}")
          for path in sorted((PROTOCOL / "events").iterdir())
          for number, example in enumerate(read(path)["examples"])]


@pytest.mark.parametrize("path, example", EVENTS)
def test_event_examples_pass_and_are_events(path: Path, example: dict[str, Any]) -> None:
    assert path.name == f"{example['eId']}.schema.json"
    schemas.check_event(json.dumps(example, separators=(",", ":")).encode())
    assert schemas.check("to-controller", wire(example)) == example


@pytest.mark.parametrize("path, example", EVENTS)
def test_event_of_another_shape_is_refused(path: Path, example: dict[str, Any]) -> None:
    details = example["varPayload"]
    for wrong in ({**example, "more": 1}, {**example, "eTime": "now"},
                  {**example, "varPayload": {**details, "outcome": "Perhaps"}},
                  {**example, "varPayload": dict(reversed(details.items()))},
                  {name: value for name, value in example.items() if name != "varPayload"}):
        with pytest.raises(schemas.SchemaError, match=f"event {example['eId']}"):
            schemas.check_event(wire(wrong))


@pytest.mark.parametrize("text", [
    b"", b"\xff", b"[699]", b'"eId"', b"{}", b"[" * 100000, b'{"msgType": 699, "eId": "DoorOpened"}',
    b'{"eId": ["TechSupportUpload"]}', b'{"eId": 5}'])
def test_what_nobody_has_written_down_is_not_judged(text: bytes) -> None:
    schemas.check_event(text)
