"""The controller reads the stored configuration back."""

import json

import pytest
from configs import CONFIG, pull

from lab import rawpeer
from lab.onboarding import redirect

LONG = 1_000_000
"""Lines of a very long configuration."""


def test_three_lines(online):
    online.device.write_text(CONFIG, "one\ntwo\nthree\n")
    online.controller.send({"msgType": 107})
    event = online.controller.wait_message_event(407)
    assert event["text"] == '{"msgType": 407, "config": "one\\\\ntwo\\\\nthree\\\\n"}'
    assert event["message"]["config"] == r"one\ntwo\nthree\n"
    online.log.wait("handle_orv_msg: MSG_CONFIG_PULL_REQUEST Complete")


@pytest.mark.parametrize("text, pulled", [
    ("", ""), ("\n", r"\n"), ("no end", "no end"), ("\n\n\n", r"\n\n\n"),
    ('say "yes" \\ \\n\n', 'say "yes" \\ \\n\\n'), ("a\r\n\tb\x01\n", "a\r\\n\tb\x01\\n"),
    ("100% %s%n %%\n", r"100% %s%n %%\n"), ("\u00e9\u4e2d\U0001f600\n", "\u00e9\u4e2d\U0001f600\\n"),
    ("x" * 511 + "\n" + "y" * 512 + "\n" + "z" * 5000, "x" * 511 + r"\n" + "y" * 512 + r"\n"
     + "z" * 5000), (("\u4e2d" * 300 + "\n") * 3, ("\u4e2d" * 300 + r"\n") * 3)])
def test_nothing_but_line_breaks_changes(online, text, pulled):
    path = online.device.folder / "flash/config/config.txt"
    path.write_bytes(text.encode())
    assert pull(online) == pulled


def test_what_is_not_utf8_is_replaced(online):
    (online.device.folder / "flash/config/config.txt").write_bytes(b"a\xffb\x00c\xe4\n")
    assert pull(online) == "a\ufffdb\ufffdc\ufffd\\n"


@pytest.mark.parametrize("instead", ["nothing", "a folder"])
def test_there_is_no_configuration(online, instead):
    online.device.unlink(CONFIG)
    if instead == "a folder":
        online.device.run(["mkdir", CONFIG], check=True)
    online.controller.send({"msgType": 107})
    assert online.controller.wait_message_event(707)["text"] == (
        '{"msgType": 707, "code": "BadRequest", "message": "ERR_BAD_REQUEST"}')
    online.log.wait("Failed to open file for reading")


@pytest.mark.parametrize("line", ["", "x"])
def test_a_million_short_lines(online, line):
    online.device.write_text(CONFIG, f"{line}\n" * LONG)
    assert pull(online, timeout=30) == rf"{line}\n" * LONG
    online.log.wait(f"Malloc successful (fsize={LONG * (len(line) + 1)} + escapes={LONG})")


def test_a_configuration_beyond_all_measure_is_refused(online):
    online.device.run(["truncate", "-s", "17M", CONFIG], check=True)
    online.controller.send({"msgType": 107})
    assert online.controller.wait_message_event(707)["text"] == (
        '{"msgType": 707, "code": "InternalError", "message": "ERR_BAD_REQUEST"}')
    online.log.wait("platform_pull_and_send_config: Malloc failed")


def messages_of(frames):
    """Puts the messages of the agent together again; asserts how it cuts them."""
    found, pieces = [], []
    for frame in frames:
        assert frame.masked and frame.reserved == 0 and len(frame.payload) <= 4096
        if frame.opcode in (rawpeer.PING, rawpeer.PONG):
            assert frame.fin
            continue
        assert frame.opcode == (rawpeer.CONTINUATION if pieces else rawpeer.BINARY)
        assert frame.fin or len(frame.payload) == 4096, "only the last piece is short"
        pieces.append(frame.payload)
        if frame.fin:
            found.append((json.loads(b"".join(pieces)), len(pieces)))
            pieces = []
    assert not pieces, "a message without an end"
    return found


def test_the_frames_of_a_long_answer(start):
    lab = start(faketime="+0 x60")
    lab.onboarding.reply = redirect(rawpeer.URL)
    lab.wait_registered()
    lab.device.write_text(CONFIG, "set radio0 power 3\n" * 40_000)
    for request in (115, 107, 115, 123):  # below 1 MiB, so the last two queue up behind it
        lab.rawpeer.send_frame(rawpeer.TEXT, json.dumps({"msgType": request}).encode())
    lab.rawpeer.send_frame(rawpeer.PING, b"meanwhile")
    assert lab.rawpeer.wait_frame(rawpeer.PONG).payload == b"meanwhile"
    lab.journal.wait("raw-frame", lambda e: b'"uptime"' in e["frame"].payload[-40:], timeout=30,
                     what="the last answer")
    messages = messages_of(lab.rawpeer.frames())
    assert [message["msgType"] for message, _ in messages] == [100, 415, 407, 415, 423]
    config, pieces = next(entry for entry in messages if entry[0]["msgType"] == 407)
    assert config["config"] == r"set radio0 power 3\n" * 40_000
    assert pieces == -(-len(json.dumps(config)) // 4096)
