"""Checks what agent and controller say to each other against the documents in docs/protocol.

The documents are the one source of the wire protocol: a message, a member or an order of members
that they do not know is an error here, and so fails the run in which it was seen. The agent is held
to every letter. The controller may order its members as it likes and may send whatever the
documents say that the agent tolerates.
"""

from __future__ import annotations

import json
import re
import threading
from collections.abc import Iterator
from functools import lru_cache
from os.path import commonprefix
from pathlib import Path
from typing import Any, NamedTuple

from jsonschema import Draft202012Validator, RefResolver, ValidationError, validators

PROTOCOL = Path(__file__).resolve().parent.parent / "docs" / "protocol"
DIRECTIONS = ("to-controller", "to-agent")

# The only escapes that the agent's JSON writer makes; everything else it writes as it is.
_AGENT_ESCAPES = re.compile(r'\\(?:["\\bfnrt]|u00[01][0-9A-F])')
_ANY_ESCAPE = re.compile(r"\\(?:u.{4}|.)", re.DOTALL)
_SPACED = re.compile(r'("(?:[^"\\]|\\.)*")|\s*([:,])\s*|\s+', re.DOTALL)

# The reference resolver keeps a stack while it validates, and the lab checks from several threads.
_one_at_a_time = threading.Lock()


class SchemaError(Exception):
    """A text that the protocol's documents do not allow.

    `label` names the message ("to-controller 100 register"), `problems` holds pairs of a member
    (empty when the message as a whole is meant) and the reason; the exception's text has them all.
    """

    def __init__(self, label: str, problems: list[tuple[str, str]], text: str) -> None:
        self.label = label
        self.problems = problems
        told = "; ".join(
            f'member "{member}": {reason}' if member else reason for member, reason in problems)
        super().__init__(f"{label}: {told} -- in {_short(text)}")


class _Document(NamedTuple):
    name: str
    schema: dict[str, Any]
    validator: Any
    answers: tuple[int | None, int | None]


class _Documents(NamedTuple):
    messages: dict[tuple[str, int], _Document]
    events: dict[str, _Document]
    ping: _Document


def check(direction: str, text: str | bytes) -> dict[str, Any]:
    """Return the message that `text` holds, or raise SchemaError if the documents do not allow it.

    `direction` is "to-controller" (sent by the agent: the order of its members and its separators
    count as well) or "to-agent".
    """
    if direction not in DIRECTIONS:
        raise ValueError(f"direction {direction!r} is none of {DIRECTIONS}")
    text = _decode(direction, text)
    message = _parse(direction, text)
    number = message.get("msgType")
    if "msgType" not in message:
        raise SchemaError(direction, [("msgType", "is missing")], text)
    # bool is an int to Python, and 1.0 equals 1, but neither is an integer on the wire
    known = type(number) is int
    document = _load().messages.get((direction, number)) if known else None
    if document is None:
        raise SchemaError(f"{direction} {number!r}", [("msgType", "unknown type")], text)
    label = f"{direction} {number} {document.name}"
    _validate(label, document, message, text)
    if direction == "to-controller":
        _check_writing(label, text)
    return message


def name_of(direction: str, number: Any) -> str:
    """Return the name of a message type, "unknown" where the documents know none."""
    document = _load().messages.get((direction, number)) if type(number) is int else None
    return document.name if document else "unknown"


def answers_to(number: Any) -> tuple[int | None, int | None]:
    """Return the numbers that answer a message to the agent: for success and for failure."""
    document = _load().messages.get(("to-agent", number)) if type(number) is int else None
    return document.answers if document else (None, None)


def check_event(text: str | bytes) -> None:
    """Raise SchemaError if this is an event whose shape is written down and it has another one.

    What else local programs send is theirs.
    """
    try:
        message = json.loads(text)
        document = _load().events.get(message["eId"])
    except (ValueError, RecursionError, LookupError, TypeError):
        return
    if document is not None:
        label = f"event {message['eId']}"
        _validate(label, document, _parse(label, _decode(label, text)), repr(text))


def check_ping(payload: str | bytes) -> dict[str, Any]:
    """Return the members of the payload of one of the agent's PING frames, or raise SchemaError."""
    document = _load().ping
    text = _decode(document.name, payload)
    members = _parse(document.name, text)
    _validate(document.name, document, members, text)
    expected = document.schema["x-text"] % members
    if text != expected:
        raise SchemaError(document.name, [("", f"is not written as {expected}")], text)
    return members


@lru_cache(maxsize=1)
def _load() -> _Documents:
    """Read the catalogue and every schema it names, once."""
    catalogue = _read(PROTOCOL / "catalogue.json")
    store = {path.as_uri(): _read(path) for path in PROTOCOL.rglob("*.schema.json")}

    def document(row: dict[str, Any]) -> _Document:
        uri = (PROTOCOL / row["schema"]).as_uri()
        resolver = RefResolver(base_uri=uri, referrer=store[uri], store=store)
        return _Document(row["name"], store[uri], _Validator(store[uri], resolver=resolver),
                         (row.get("reply"), row.get("failure")))

    messages = {(row["direction"], row["msgType"]): document(row) for row in catalogue["messages"]}
    events = {path.name.partition(".")[0]: document({"name": "event", "schema": path})
              for path in (PROTOCOL / "events").iterdir()}
    return _Documents(messages, events, document(catalogue["ping"]))


def _read(path: Path) -> dict[str, Any]:
    return json.loads(path.read_text(encoding="utf-8"))


def _decode(label: str, text: str | bytes) -> str:
    if isinstance(text, str):
        return text
    try:
        return bytes(text).decode("utf-8")
    except UnicodeDecodeError as error:
        raise SchemaError(label, [("", f"is not UTF-8: {error}")], repr(text)) from None


def _parse(label: str, text: str) -> dict[str, Any]:
    """Parse one JSON object; unlike Python's own reader take neither NaN nor a member twice."""
    def refuse_constant(name: str) -> None:
        raise ValueError(f"{name} is not JSON")

    def unique(pairs: list[tuple[str, Any]]) -> dict[str, Any]:
        members = dict(pairs)
        if len(members) < len(pairs):
            names = [name for name, _ in pairs]
            twice = next(name for name in names if names.count(name) > 1)
            raise SchemaError(label, [(twice, "comes twice")], text)
        return members

    try:
        value = json.loads(text, object_pairs_hook=unique, parse_constant=refuse_constant)
    except (ValueError, RecursionError) as error:
        raise SchemaError(label, [("", f"is not JSON: {error}")], text) from None
    if not isinstance(value, dict):
        raise SchemaError(label, [("", "is not a JSON object")], text)
    return value


def _validate(label: str, document: _Document, message: dict[str, Any], text: str) -> None:
    with _one_at_a_time:
        errors = list(document.validator.iter_errors(message))
    problems = [problem for error in errors for problem in _explain(error)]
    if problems:
        raise SchemaError(label, list(dict.fromkeys(problems)), text)


def _explain(error: ValidationError) -> list[tuple[str, str]]:
    """Name the member and the reason, also where the library reports the object around it."""
    path = ""
    for step in error.absolute_path:
        path += f"[{step}]" if isinstance(step, int) else f".{step}" if path else str(step)
    inside = path + "." if path else ""
    if error.validator == "required":
        return [(inside + name, "is missing")
                for name in error.validator_value if name not in error.instance]
    if error.validator == "additionalProperties":
        known = error.schema.get("properties", {})
        return [(inside + name, "unknown member") for name in error.instance if name not in known]
    if error.validator == "x-member-order":
        return [(inside + error.cause_name, _short(error.message))]
    if error.validator == "anyOf":
        # the first branch is what the documents want, the others are what the agent tolerates
        wanted = [inner for inner in error.context if inner.schema_path[0] == 0]
        return [problem for inner in wanted for problem in _explain(inner)]
    return [(path, _short(error.message))]


def _member_order(_validator: Any, order: list[str], instance: Any,
                  _schema: Any) -> Iterator[ValidationError]:
    """Our own keyword "x-member-order": the members that are there stand in the listed order."""
    if not isinstance(instance, dict):
        return
    present = [name for name in instance if name in order]
    for found, expected in zip(present, sorted(present, key=order.index)):
        if found != expected:
            error = ValidationError(f'is out of order: "{expected}" belongs in its place')
            error.cause_name = found
            yield error
            return


def _check_writing(label: str, text: str) -> None:
    """Hold the agent's text to its JSON library's writing: separators and no needless escapes."""
    spaced = _SPACED.sub(lambda found: found[1] or (found[2] + " " if found[2] else ""), text)
    if text != spaced:
        at = len(commonprefix([text, spaced]))
        reason = f'separators are not ", " and ": " at character {at + 1}'
        raise SchemaError(label, [("", reason)], text)
    for escape in _ANY_ESCAPE.findall(text):
        if not _AGENT_ESCAPES.fullmatch(escape):
            raise SchemaError(label, [("", f"needless escape {escape}")], text)


def _short(text: str) -> str:
    """Leave out the middle of a long text: a reason has its point at the end."""
    return text if len(text) <= 400 else f"{text[:200]} ... {text[-200:]}"


def _is_integer(_checker: Any, value: Any) -> bool:
    """A whole number that was written as one: the library would let 5.0 pass."""
    return isinstance(value, int) and not isinstance(value, bool)


_Validator = validators.extend(
    Draft202012Validator,
    validators={"x-member-order": _member_order},
    type_checker=Draft202012Validator.TYPE_CHECKER.redefine("integer", _is_integer),
)
