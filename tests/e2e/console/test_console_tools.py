"""Scans, latency, firmware, archives and programs in the browser."""

import io
import tarfile
import urllib.request

import pytest
from selenium.webdriver.common.keys import Keys

HOSTILE = '"><svg onload=alert(1)>'
"""The name of a network, as bad neighbours choose them."""


@pytest.fixture
def device(page, lab, start):
    """A registered device with a radio that can scan, and its page."""
    lab.device.set_board(sku=5)
    start()
    lab.wait_registered()
    return page


def rows(page, css):
    """The texts of the cells of a table's rows."""
    return page.run("return [...document.querySelectorAll(arguments[0] + ' tbody tr')]"
                    ".map((row) => [...row.cells].map((cell) => cell.textContent))", css)


def test_the_radio_neighbourhood(device, lab):
    points = [one for one in lab.radio.neighbourhood.points if one.band == "2.4GHz"]
    for point in points:
        point.there = True
    points[0].ssid, points[0].signal = HOSTILE, -40.0
    device.open("scan")
    device.press("Scan")
    device.says("13 channels, 9 access points", ".notice")
    first, second = device.all(".table")
    assert first.accessible_name == "Access points" and second.accessible_name == "Channels"
    neighbours = rows(device, ".card:nth-of-type(2) .table")
    assert len(neighbours) == 9 and neighbours[0][0] == HOSTILE
    strength = [int(row[1]) for row in neighbours]
    assert strength == sorted(strength, reverse=True)
    device.click_on(".table th:nth-child(3) button")
    channels = [int(row[2]) for row in rows(device, ".card:nth-of-type(2) .table")]
    assert channels == sorted(channels)
    assert len(device.all(".channels .lobe")) == 9
    assert HOSTILE[:14] in device.texts(".channels text") or HOSTILE[:14] in device.run(
        "return document.querySelector('.channels').textContent")
    device.choose("Band", "5 GHz")
    device.press("Scan")
    device.says("(./dev run --sku 0 has", ".notice")
    device.go("trouble")
    device.write("Host", "far.example", device.card("Latency"))
    device.press("Measure")
    device.says("ms to far.example", ".notice")
    device.write("Host", "nowhere.example", device.card("Latency"))
    device.press("Measure")
    device.says("nowhere.example did not answer", ".notice")


def test_commands_run_on_the_device(device, lab):
    device.open("trouble")
    screen = ".terminal"
    device.write("Count", "2")
    device.press("Run")
    device.says("$ ping 10.77.0.1 2\nPING 10.77.0.1", screen)
    device.says("2 received", screen)
    device.says("it has ended", screen)
    device.write("Count", "")
    device.press("Run")
    device.says("icmp_seq=3", screen)
    device.press("Stop")
    device.says("\nstopped", screen)
    assert lab.controller.wait_message(410)
    assert not device.button("Run").get_attribute("disabled")
    device.choose("Command", "Resolve a name")
    device.write("Name", f"{HOSTILE}.example")
    device.field("Name").send_keys(Keys.ENTER)
    device.says(f"$ nslookup {HOSTILE}.example\n", screen)
    device.says("failed: Name or service not known", screen)
    device.choose("Command", "Follow the log")
    device.press("Run")
    device.says("Command from Orvanta: log", screen)
    device.open("summary")  # the page goes, and its command with it
    lab.controller.wait_message(410)


def test_programs_of_the_device(device, lab):
    device.open("programs")
    card = device.card("A program raises an event")
    device.write("Any text", HOSTILE, card)
    device.press("Raise", card)
    device.says(f"bytes: {HOSTILE}", ".notice")
    assert lab.controller.wait_trap() == HOSTILE.encode()
    card = device.card("The Wi-Fi daemon raises an event")
    device.write("Payload", "{", card)
    device.press("Raise", card)
    device.says("Not JSON", ".notice")
    device.write("Payload", '{"event": 5}', card)
    device.press("Raise", card)
    device.says("the controller has it", ".notice")
    assert lab.controller.wait_message(116)["ctrlrPayload"] == {"event": 5}
    device.press("Answer", device.card("The controller answers the Wi-Fi daemon"))
    device.says('the Wi-Fi daemon heard {"vlan": 20}', ".notice")
    device.go("messages")
    device.click(lambda: device.find('#messages .message[data-direction="to-controller"] .text'))
    device.choose("Type", "116 wifid-payload")
    device.click_on('#messages [data-number="116"]')
    device.says("as documented", ".detail .pill")


def done_steps(page):
    """How many steps are done."""
    return len(page.all('.steps [data-step="done"]'))


def test_firmware_and_the_support_archive(device, lab):
    device.open("firmware")
    device.wait(lambda: any("FwDSCheckFailed" in one.text for one in
                            device.field("What goes wrong").find_elements("tag name", "option")),
                "the faults")
    device.run("arguments[0].value = 'signature'", device.field("What goes wrong"))
    device.press("Upgrade")
    device.says("FwDSCheckFailed", '.notice[data-tone="bad"]', 40)
    device.find('.steps [data-step="failed"]')
    device.run("arguments[0].value = ''", device.field("What goes wrong"))
    device.press("Upgrade")
    device.says("the device runs 4.3.0, and 4.2.1 stands by", ".notice", 60)
    assert done_steps(device) == 6
    assert device.texts(".facts dd")[:2] == ["4.3.0", "4.2.1"]
    device.press("Fetch")
    device.says("files in", ".notice", 40)
    link = device.find("a[download]").get_attribute("href")
    with urllib.request.urlopen(link) as answer:
        assert answer.headers["Content-Disposition"].startswith("attachment; filename=")
        with tarfile.open(fileobj=io.BytesIO(answer.read())) as archive:
            names = sorted(one.name for one in archive if one.isfile())
    assert names and names == [row[0] for row in rows(device, ".card:nth-of-type(2) .table")]
    device.driver.get("about:blank")
