"""What the console remembers, who it lets in, and how it looks, without a lab."""

import re

import pytest

from lab.console.documents import protocol, statistics
from lab.console.files import STATIC, find
from lab.console.history import LONGEST_TEXT, PREVIEW, History, preview
from lab.console.peer import user_of

TABLE = """  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode
   0: 0100007F:2120 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1 1
   1: 0100007F:9C40 0100007F:2120 01 00000000:00000000 00:00000000 00000000  1000        0 2 1
   2: 0100007F:2120 0100007F:9C40 01 00000000:00000000 00:00000000 00000000     0        0 3 1
"""


def add(history, at, text="{}"):
    return history.add_message(at, text, [["x", "y"]], direction="to-agent", number=115,
                               name="locate-cmd", connection=1)


def test_the_oldest_is_forgotten(tmp_path):
    history = History(tmp_path / "file", most=100)
    for number in range(1, 1025):
        add(history, number)
        history.add_happening(number, "note", "log", "x")
    rows = history.newest("messages", 10_000)
    assert [row["id"] for row in rows] == list(range(925, 1025))
    assert len(history.newest("happenings", 10_000)) == 100
    assert [row["at"] for row in history.newest("messages", 2, before=1000)] == [998, 999]
    assert history.message(1) is None
    assert history.message(1024)["verdict"] == [["x", "y"]]
    with pytest.raises(ValueError):
        history.newest("sqlite_master", 1)


def test_long_texts_are_cut(tmp_path):
    history = History(tmp_path / "file")
    row = add(history, 1.0, "y" * (LONGEST_TEXT + 5))
    assert row["size"] == LONGEST_TEXT + 5 and len(row["text"]) == LONGEST_TEXT
    assert history.message(row["id"])["text"] == row["text"]
    assert len(preview(row)["text"]) == PREVIEW


def test_the_user_behind_a_connection():
    here, there = ("127.0.0.1", 0x2120), ("127.0.0.1", 0x9C40)
    assert user_of(TABLE, there, here) == 1000
    assert user_of(TABLE, here, there) == 0
    assert user_of(TABLE, ("127.0.0.1", 1), here) is None
    assert user_of("", here, there) is None


@pytest.mark.parametrize("state, inode", [("05", "0"), ("06", "0"), ("08", "2"), ("01", "0")])
def test_a_closed_socket_is_nobodys(state, inode):
    line = (f"   1: 0100007F:9C40 0100007F:2120 {state} 00000000:00000000 00:00000000 00000000"
            f"     0        0 {inode} 1\n")
    assert user_of(f"head\n{line}", ("127.0.0.1", 0x9C40), ("127.0.0.1", 0x2120)) is None


def test_every_message_has_its_words():
    for one in protocol():
        assert one["title"] and one["description"] and one["examples"], one["name"]
        assert one["members"] and "`" not in str(one["members"]), one["name"]
    fields = {one["name"]: one for one in statistics()["fields"]}
    assert fields["cpuUse"]["unit"] == "%"


def test_only_files_of_the_page_are_found(tmp_path):
    page, outside = tmp_path / "page", tmp_path / "outside.js"
    page.mkdir()
    for path in (outside, page / "inside.js", page / "notes.txt"):
        path.write_text("x", encoding="utf-8")
    (page / "link.js").symlink_to(outside)
    (page / "folder.js").mkdir()
    assert find(page, "inside.js") == (page / "inside.js", "text/javascript")
    for name in ("link.js", "../outside.js", str(outside), "notes.txt", "folder.js", "none.js", ""):
        assert find(page, name) is None, name


def _colours(block):
    return dict(re.findall(r"--([a-z0-9-]+): (#[0-9a-f]{3,6})", block))


def _light(colour):
    digits = colour[1:] if len(colour) == 7 else "".join(2 * digit for digit in colour[1:])
    parts = [int(digits[at:at + 2], 16) / 255 for at in (0, 2, 4)]
    red, green, blue = (p / 12.92 if p <= 0.04045 else ((p + 0.055) / 1.055) ** 2.4 for p in parts)
    return 0.2126 * red + 0.7152 * green + 0.0722 * blue


def test_texts_stand_out_from_what_is_behind_them():
    style = (STATIC / "base.css").read_text(encoding="utf-8")
    light, dark = (_colours(block) for block in re.findall(r":root \{(.*?)\}", style, re.DOTALL))
    for name, colours in {"light": light, "dark": {**light, **dark}}.items():
        pairs = [(text, back) for text in ("text", "muted") for back in ("bg", "surface", "sunken")]
        pairs += [(tone, f"{tone}-soft") for tone in ("good", "warn", "bad", "info", "accent")]
        pairs += [(tone, "surface") for tone in ("good", "warn", "bad", "accent")]
        pairs += [("on-accent", "accent"), ("muted", "accent-soft")]
        for text, back in pairs:
            one, other = sorted((_light(colours[text]), _light(colours[back])))
            assert (other + 0.05) / (one + 0.05) >= 4.5, f"{name}: {text} on {back}"


def test_data_never_becomes_code():
    for path in STATIC.rglob("*.js"):
        text = path.read_text(encoding="utf-8")
        for word in ("innerHTML", "outerHTML", "insertAdjacentHTML", "document.write", "eval(",
                     "new Function", "srcdoc", "javascript:"):
            assert word not in text, f"{path.name} uses {word}"
        hosts = re.findall(r"https?://([\w-]+\.[\w.-]+)", text)
        assert set(hosts) <= {"www.w3.org"}, f"{path.name} names {hosts}"
