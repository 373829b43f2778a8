#!/usr/bin/python3
"""Makes README.md from the catalogue, the schemas and template.md.

    make_readme.py            write README.md
    make_readme.py --check    write nothing; exit 1 if README.md is not what would be written
"""

from __future__ import annotations

import json
import re
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import Any

HERE = Path(__file__).resolve().parent
NOTICE = "<!-- Made by make_readme.py from catalogue, schemas and template.md: edit those. -->\n\n"
Schema = dict[str, Any]


def render() -> str:
    """Return the text that README.md should have."""
    catalogue = _read("catalogue.json")
    parts = {
        "catalogue": _catalogue(catalogue["messages"]),
        "to-controller": _messages(catalogue["messages"], "to-controller"),
        "to-agent": _messages(catalogue["messages"], "to-agent"),
        "events": _events(),
        "error-codes": _error_codes(),
        "ping": _ping(_read(catalogue["ping"]["schema"])),
        "close-status": str(catalogue["close"]["status"]),
        "close-reasons": _table(["reason", "when"], [
            [f'"{row["reason"]}"', row["when"]] for row in catalogue["close"]["reasons"]]),
    }
    template = (HERE / "template.md").read_text(encoding="utf-8")
    return NOTICE + re.sub(r"\{\{([a-z-]+)\}\}", lambda found: parts[found[1]], template)


def _read(name: str) -> Schema:
    return json.loads((HERE / name).read_text(encoding="utf-8"))


def _table(head: list[str], rows: list[list[str]]) -> str:
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    for row in rows:
        lines.append("| " + " | ".join(cell.replace("|", "\\|") for cell in row) + " |")
    return "\n".join(lines)


def _heading(row: Schema) -> str:
    return f'{row["msgType"]} {_read(row["schema"])["title"]}'


def _anchor(heading: str) -> str:
    """The fragment under which the usual Markdown viewers find a heading."""
    return "#" + re.sub(r"[^a-z0-9 -]", "", heading.lower()).replace(" ", "-")


def _catalogue(rows: list[Schema]) -> str:
    table = []
    for row in rows:
        heading = _heading(row)
        title = heading.partition(" ")[2]
        table.append([str(row["msgType"]), row["direction"], f"[{title}]({_anchor(heading)})",
                      f'`{row["constant"]}`' if row["constant"] else "",
                      str(row["reply"] or "-"), str(row["failure"] or "-")])
    return _table(["type", "direction", "message", "name", "reply", "failure"], table)


def _messages(rows: list[Schema], direction: str) -> str:
    return "\n\n".join(_message(row) for row in rows if row["direction"] == direction)


def _message(row: Schema) -> str:
    schema = _read(row["schema"])
    if row["direction"] == "to-controller":
        table = _in_order(schema)
    else:
        table = _table(["member", "value", "needed", "meaning"], [list(row) for row in members(schema)])
    examples = "\n".join(json.dumps(example, ensure_ascii=False) for example in schema["examples"])
    return (f'### {_heading(row)}\n\n{schema["description"]} ([schema]({row["schema"]}))\n\n'
            f"{table}\n\n```json\n{examples}\n```")


def _in_order(schema: Schema) -> str:
    """The members of what a program of the device sends, which keep their order."""
    return _table(["#", "member", "value", "meaning"], [
        [str(number), member[0], member[1] + (", or left out" if member[2] == "no" else ""), member[3]]
        for number, member in enumerate(members(schema), 1)])


def members(schema: Schema, prefix: str = "") -> Iterator[tuple[str, str, str, str]]:
    """Walk an object's members, inner ones behind their own: name, value, needed, meaning."""
    for name, member in schema.get("properties", {}).items():
        needed = "yes" if name in schema.get("required", []) else "no"
        yield from _member(f"{prefix}{name}", member, needed)


def _member(name: str, member: Schema, needed: str) -> Iterator[tuple[str, str, str, str]]:
    yield f"`{name}`", _value(member), needed, member["description"]
    wanted = _resolve(member)
    wanted = _resolve(wanted["anyOf"][0]) if "anyOf" in wanted else wanted
    if wanted.get("type") == "array" and "items" in wanted:
        yield from _member(name + "[]", wanted["items"], "")
    yield from members(wanted, name + ".")
    if isinstance(wanted.get("additionalProperties"), dict):
        yield from _member(name + ".*", wanted["additionalProperties"], "")


def _resolve(schema: Schema) -> Schema:
    """Put what a reference to the shared definitions stands for under what is written beside it."""
    if "$ref" not in schema:
        return schema
    shared = _read("definitions.schema.json")["$defs"][schema["$ref"].rpartition("/")[2]]
    return {**shared, **schema}


def _value(member: Schema) -> str:
    """Say in a few words which values a member may have."""
    schema = _resolve(member)
    if "const" in schema:
        return json.dumps(schema["const"])
    if "enum" in schema:
        return ", ".join(json.dumps(value) for value in schema["enum"])
    if "anyOf" in schema:
        return _value(schema["anyOf"][0]) + "; anything else"
    if "allOf" in schema:
        return "an [error code](#error-codes)"
    if "type" not in schema:
        return "any JSON value"
    if isinstance(schema["type"], list):
        return " or ".join(schema["type"])
    if schema["type"] == "string" and "maxLength" in schema and "pattern" not in schema:
        return f'string, up to {schema["maxLength"]} characters'
    if schema["type"] == "integer" and "minimum" in schema and "maximum" not in schema:
        return f'integer, at least {schema["minimum"]}'
    return schema["type"]


def _error_codes() -> str:
    names = _read("definitions.schema.json")["$defs"]["errorCode"]["enum"]
    rows = [[str(status), f'"{name}"'] for status, name in enumerate(names)]
    return _table(["status", "code"], rows)


def _events() -> str:
    """The events whose shape is written down, each in a file named after it."""
    found = []
    for path in sorted((HERE / "events").iterdir()):
        schema = json.loads(path.read_text(encoding="utf-8"))
        name = path.name.partition(".")[0]
        table = _in_order(schema)
        examples = "\n".join(json.dumps(example) for example in schema["examples"])
        found.append(f'### Event {name}\n\n{schema["description"]} ([schema](events/{path.name}))\n\n'
                     f"{table}\n\n```json\n{examples}\n```")
    return "\n\n".join(found)


def _ping(schema: Schema) -> str:
    table = _table(["#", "member", "value", "meaning"], [
        [str(number), *member[:2], member[3]] for number, member in enumerate(members(schema), 1)])
    example = schema["x-text"] % schema["examples"][0]
    return f'{schema["description"]}\n\n{table}\n\n```json\n{example}\n```'


def main(arguments: list[str]) -> int:
    """Write README.md, or with "--check" only look at it; return the exit status."""
    readme = HERE / "README.md"
    if arguments == ["--check"]:
        if not readme.exists() or readme.read_text(encoding="utf-8") != render():
            print("docs/protocol/README.md is not up to date: run docs/protocol/make_readme.py")
            return 1
        return 0
    if arguments:
        print(__doc__, file=sys.stderr)
        return 2
    readme.write_text(render(), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
