"""What the console tells about the protocol and the statistics, taken from where they are written."""

import importlib.util
import json
from functools import lru_cache
from types import ModuleType
from typing import Any

from lab import schemas
from lab.firmware import FAULTS
from lab.scmd.stats.vocabulary import FIELDS, TABLES


def _page_maker() -> ModuleType:
    """The program that makes the protocol's page: it knows how a schema reads in words."""
    spec = importlib.util.spec_from_file_location("make_readme", schemas.PROTOCOL / "make_readme.py")
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def _plain(text: str) -> str:
    """Without the marks of Markdown."""
    return text.replace("`", "").replace("[error code](#error-codes)", "error code")


@lru_cache(maxsize=1)
def protocol() -> list[dict[str, Any]]:
    """Every message type: its numbers, title, description, members and examples."""
    maker = _page_maker()
    catalogue = json.loads((schemas.PROTOCOL / "catalogue.json").read_text(encoding="utf-8"))
    found = []
    for row in catalogue["messages"]:
        schema = json.loads((schemas.PROTOCOL / row["schema"]).read_text(encoding="utf-8"))
        members = [dict(zip(("name", "value", "needed", "meaning"), map(_plain, member)))
                   for member in maker.members(schema)]
        found.append({
            "number": row["msgType"], "name": row["name"], "direction": row["direction"],
            "title": schema["title"], "description": schema["description"], "members": members,
            "examples": schema["examples"], "reply": row["reply"], "failure": row["failure"]})
    return found


@lru_cache(maxsize=1)
def statistics() -> dict[str, Any]:
    """Every statistic that the lab's device knows, with unit and meaning."""
    return {
        "fields": [{"name": name, "unit": field.unit, "meaning": field.meaning}
                   for name, field in FIELDS.items()],
        "tables": [{"name": name, "meaning": table.meaning,
                    "columns": [{"name": column, "unit": unit, "meaning": meaning}
                                for column, (unit, meaning) in table.columns.items()]}
                   for name, table in TABLES.items()],
    }


def firmware() -> dict[str, Any]:
    """What can go wrong with an upgrade, on demand."""
    device = {"full-disk": "no room for the image on the device",
              "status=9": "the device's script ends with a status of its own"}
    return {"faults": [{"name": name, "meaning": meaning}
                       for name, meaning in {**FAULTS, **device}.items()]}
