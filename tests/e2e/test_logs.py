"""Both logs change files at 102401 bytes, and no line is lost on the way."""

import re

from expect import fence, until

LOG = "/var/log/device-agent.log"
LIBRARY_LOG = "/var/log/lws.log"
LIMIT = 102401
LIBRARY_LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:LWS: .")


def numbered(text):
    """The numbers of the controller's odd messages in a log, in order."""
    return [int(number) for number in re.findall(r"UNKNOWN message (\d+) received", text)]


def filled(size):
    """Numbered lines that make so many bytes."""
    lines = "".join(f"line {number:05}\n" for number in range(size // 11))
    return lines + "x" * (size - len(lines) - 1) + "\n"


def test_no_line_is_lost_where_the_log_changes_files(start):
    lab = start("-d", "0")
    lab.controller.on_register.follow_ups = []
    lab.controller.wait_message(100, timeout=30)
    fence(lab)
    sent = 0
    while not lab.device.exists(f"{LOG}.old"):
        for _ in range(100):
            sent += 1
            lab.controller.send_raw(f'{{"msgType": {100000 + sent}}}', unchecked=True)
        fence(lab)
        assert sent <= 3000, "the log does not change files"
    old, new = lab.device.read_text(f"{LOG}.old"), lab.device.read_text(LOG)
    assert numbered(old) + numbered(new) == [100000 + number for number in range(1, sent + 1)]
    last = old.splitlines(keepends=True)[-1]
    assert len(old) - len(last) < LIMIT <= len(old), "it changes with the line after byte 102401"
    assert last.endswith("received from Orvanta\n")
    output = lab.supervisor.output()
    assert numbered(output) == numbered(old) + numbered(new)


def test_the_log_of_the_library_changes_files_too(lab, start):
    before = filled(LIMIT)
    lab.device.write_text(LIBRARY_LOG, before)
    start()
    lab.wait_registered()
    assert lab.device.read_text(f"{LIBRARY_LOG}.old") == before
    fresh = lab.device.read_text(LIBRARY_LOG)
    assert LIBRARY_LINE.match(fresh) and len(fresh) < LIMIT


def test_one_byte_less_and_the_line_still_fits(lab, start):
    before = filled(LIMIT - 1)
    for path in (LOG, LIBRARY_LOG):
        lab.device.write_text(path, before)
        lab.device.write_text(f"{path}.old", "an older one\n")
    start()
    lab.wait_registered()
    for path in (LOG, LIBRARY_LOG):
        old = lab.device.read_text(f"{path}.old")
        assert old.startswith(before) and old.count("\n") == before.count("\n") + 1, path
    until(lab, lambda: lab.log.lines(), "a line in the fresh log")
