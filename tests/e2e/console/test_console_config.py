"""Configurations pushed and statistics watched in the browser."""

import pytest

from lab import reports

HOSTILE = "<b>x</b>"


@pytest.fixture
def config(open_panel):
    """The configuration's panel with what the device has."""
    page = open_panel("config")
    assert not page.find("#config-push").is_enabled(), "there is nothing to push yet"
    page.press("Pull from the device")
    page.wait(lambda: "set management address" in editor(page), "the configuration")
    return page


def editor(page):
    """What stands in the editor."""
    return page.find("#config-text").get_attribute("value")


def edit(page, old, new):
    """Changes the text."""
    assert old in editor(page)
    page.write("Configuration, one setting a line", editor(page).replace(old, new))


def changes(page):
    """The lines of the difference that are not in both."""
    return [one.get_attribute("textContent").split(": ", 1)[1] for one in
            page.all('.diff [data-change="+"], .diff [data-change="-"]')]


def form(page, title):
    """Chooses how to push."""
    page.wait(lambda: next((one for one in page.all("label.check") if one.text == title), None),
              title).click()


def steps(page):
    """The steps that are done."""
    return [one.text for one in page.all('.steps [data-step="done"]')]


def test_changed_lines(config, online):
    edit(config, "set radio0 channel 36", "set radio0 channel 44")
    assert changes(config) == ["- set radio0 channel 36", "+ set radio0 channel 44"]
    config.press("Push")
    config.says("Configuration applied successfully", ".notice")
    config.wait(lambda: steps(config) == ["Sent", "In progress", "Complete"], "all steps")
    assert online.scmd.running()["radios"]["radio0"]["channel"] == 44
    sent = [e["text"] for e in online.journal.events("to-agent") if '"msgType": 106' in e["text"]]
    assert sent == ['{"msgType": 106, "config": "set radio0 channel 44\\n"}']
    config.says("Nothing differs from what was pulled.")
    assert not config.find("#config-push").is_enabled(), "there is nothing to push any more"
    edit(config, "set radio0 channel 44\n", "")
    config.says("Lines that you have removed stay on the device", ".notice")
    config.write("Configuration, one setting a line", HOSTILE)
    config.says(HOSTILE, ".diff")


def test_a_whole_configuration(config, online):
    edit(config, "quill-lab", "hall-9")
    form(config, "Whole configuration")
    config.press("Push")
    config.state("Rebooting")
    config.state("Online")
    config.wait(lambda: len(steps(config)) == 5, "the last step")
    config.says("hall-9", ".device-head h1")
    config.wait(lambda: "set system hostname hall-9" in editor(config), "it to be pulled again")


def test_an_object_that_cuts_the_device_off(start, page):
    lab = start(faketime="+0 x100")
    lab.wait_registered()
    page.open("config")
    form(page, "JSON object")
    page.write("Object", '{"management": ')
    page.says("Not JSON:", ".notice")
    assert not page.find("#config-push").is_enabled()
    page.write("Object", "[]")
    page.says("This is JSON, but not an object.", ".notice")
    page.write("Object", '{"system": {"colour": "red"}}')
    page.press("Push")
    page.says("BadRequest", '.notice[data-tone="bad"]')
    page.find('.steps [data-step="failed"]')
    page.write("Object", '{"management": {"address": "none"}}')
    page.press("Push")
    page.says("The new configuration has cut the device off.", ".notice", 40)
    page.says("the device puts the old configuration back and reboots", ".notice", 40)
    page.says("The device is back with the configuration that it had before.", ".notice", 40)
    page.state("Online")
    assert lab.scmd.running()["management"]["address"] == "10.77.0.2/24"


PAINTED = """
const canvas = arguments[0], size = canvas.width * canvas.height * 4;
const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
let painted = 0;
for (let at = 3; at < size; at += 4) painted += data[at] > 0;
return painted;
"""


def true_rates(lab):
    """What the counter "txBytes" grew by in a second, as the page writes it, in each report."""
    found = [rate for _, rate in reports.rates(lab.reports.series("txBytes", 100))]
    return [f"{round(rate)} bytes/s" if rate < 1024 else f"{rate / 1024:.1f} KiB/s"
            for rate in found]


def test_statistics_move(open_panel, online):
    page = open_panel("stats")
    page.says("The device reports nothing by itself yet.")
    page.write("Every, s", "20")  # by the agent's clock
    page.press("Start")
    page.says("slot 2 reports every 20 s", ".notice")
    page.says("Slot 2", "li")
    rate = '[data-field="txBytes"] .value'
    page.wait(lambda: page.text(rate).endswith("/s"), "a rate")
    first = page.text(rate)
    page.wait(lambda: page.text(rate) != first, "it to change")
    page.wait(lambda: page.text(rate) in true_rates(online), "the rate that the reports give")
    canvas = page.find('[data-field="memAvailable"] canvas')
    page.wait(lambda: page.run(PAINTED, canvas) > 500, "a chart with something in it")
    table = '[data-table="interfaces"] '
    page.wait(lambda: "eth0" in page.text(table + "table"), "the table")
    page.click_on(table + "th button")
    assert page.find(table + "th").get_attribute("aria-sort") == "descending"
    names = page.run("return [...document.querySelectorAll(arguments[0])].map((one) => one.textContent)",
                     table + "tbody tr td:first-child")
    assert names == sorted(names, reverse=True) and "lo" in names
    page.press("Stop", page.card("Reports under way"))
    page.says("slot 2 reports no more", ".notice")
    page.says("The device reports nothing by itself yet.")
    page.click_on("summary")
    page.press("Ask once")
    page.says("The report is below.", ".notice")


def test_without_the_charting_library_there_are_numbers(open_panel, online, monkeypatch):
    monkeypatch.setattr("lab.console.files.CHARTS", online.device.folder)
    page = open_panel("stats")
    page.press("Ask once")
    page.says("apt-get install libjs-chart.js", ".notice")
    page.wait(lambda: page.text('[data-field="load1"] .value') not in ("", "-"), "a number")
    assert "404" in page.log()[0]
