"""The console on several screens, by keyboard, and when the lab goes and comes."""

from urllib.parse import urlsplit

import pytest
from selenium.webdriver.common.keys import Keys

from lab.console.files import STATIC
from lab.console.server import Console

SCREENS = {"phone": (390, 844, False), "laptop-dark": (1280, 800, True)}
TOO_WIDE = """
const wide = document.documentElement.clientWidth;
return [...document.querySelectorAll('body *')].filter((one) => one.checkVisibility()
    && one.getBoundingClientRect().right > wide + 1 && !one.closest('.scroll, .tabs, .sr, pre, textarea, .diff, svg'))
    .map((one) => `${one.tagName}.${one.className}: ${one.textContent.slice(0, 30)}`);
"""
NAMELESS = """
const named = (one) => one.labels?.length || one.getAttribute('aria-label') || one.textContent.trim();
return [...document.querySelectorAll('button, input, select, textarea, a[href], canvas, summary')]
    .filter((one) => one.checkVisibility() && !named(one)).map((one) => one.outerHTML);
"""
FOCUSED = """
const one = document.activeElement;
return [(one.innerText || one.tagName).trim(), getComputedStyle(one).outlineStyle];
"""


def panels(page):
    """The names of all panels."""
    return [one.get_attribute("data-panel") for one in page.all(".tabs a")]


@pytest.mark.parametrize("screen", SCREENS)
def test_nothing_is_cut_off(open_panel, screen):
    page = open_panel("summary")
    width, height, dark = SCREENS[screen]
    page.size(width, height, dark)
    try:
        for name in panels(page):
            page.go(name)
            if name == "stats":
                page.press("Ask once")
                page.find("[data-table] canvas")
            page.wait(lambda: page.run(TOO_WIDE) == [], f"{name} to fit: {page.run(TOO_WIDE)}", 3)
            assert page.run("return document.documentElement.scrollWidth") <= width, name
            page.picture(f"{name}")
        colour = page.run("return getComputedStyle(document.body).backgroundColor")
        assert (int(colour.split("(")[1].split(",")[0]) < 64) == dark
    finally:
        page.normal_size()


def test_everything_has_a_name_and_is_reached_by_keyboard(open_panel):
    page = open_panel("summary")
    for name in panels(page):
        page.go(name)
        if name == "messages":
            page.click_on("#messages .message")
        assert page.run(NAMELESS) == [], name
    page.open("summary")
    page.state("Online")
    reached = []
    for _ in range(60):
        page.driver.switch_to.active_element.send_keys(Keys.TAB)
        text, ring = page.run(FOCUSED)
        reached.append(text)
        assert ring != "none", f"{reached[-1]} does not show that it has the focus"
        if reached[-1] == "Ask":
            break
    wanted = ["Skip to the content", "Orvanta console", "Devices", "Overview", "Faults", "Locate",
              "Reboot", "Show", "Set", "Offer", "Ask"]
    assert [one for one in reached if one in wanted] == wanted, reached


def test_a_panels_name_is_in_sight_on_a_phone(open_panel):
    page = open_panel("faults")
    page.size(390, 844)
    try:
        page.open("faults")
        page.find("[data-fault]")
        edges = page.run("const one = document.querySelector('.tabs [aria-current]')"
                         ".getBoundingClientRect(); return [one.left, one.right]")
        assert 0 <= edges[0] and edges[1] <= 390, edges
    finally:
        page.normal_size()


def test_messages_are_walked_by_arrow_keys(open_panel):
    page = open_panel("messages")
    page.click_on("#messages .message")
    first = page.run("return document.activeElement.dataset.id")
    page.driver.switch_to.active_element.send_keys(Keys.ARROW_DOWN)
    second = page.run("return document.activeElement.dataset.id")
    assert int(second) < int(first)
    page.wait(lambda: page.run("return document.querySelector('#messages [aria-current]').dataset.id")
              == second, "it to be chosen")


def test_every_module_is_used_and_can_be_read(page):
    page.open()
    names = sorted(str(path.relative_to(STATIC)) for path in STATIC.rglob("*.js"))
    load = ("const done = arguments[arguments.length - 1];"
            "import('/' + arguments[0]).then(() => done(''), (error) => done(String(error)));")
    page.open("summary")
    used = page.run("return performance.getEntriesByType('resource').map((one) => one.name)")
    for name in names:
        assert page.driver.execute_async_script(load, name) == "", name
        assert any(one.endswith("/" + name) for one in used), f"nothing uses {name}"
        assert len((STATIC / name).read_text(encoding="utf-8").splitlines()) < 300, name
    foreign = [one for one in used if not one.startswith(page.url)]
    assert not foreign, "the page has asked somebody else"


def test_the_lab_goes_and_another_comes(page, lab, console):
    page.open("summary")
    page.state("Not started")
    console.stop()
    page.says("the lab does not answer", "#link")
    page.press("Locate", page.card("Find it"))
    page.says("There is no connection to the lab.", ".notice")
    page.write("Text to show on the device", "kept")
    lab.journal.note("agent-ended", status=-9, said="")
    with Console(lab, urlsplit(console.url).port):
        page.says("live", "#link", 30)
        page.state("Agent down")
        page.says("agent ended with status -9", ".happenings")
        assert page.field("Text to show on the device").get_attribute("value") == "kept"
    page.driver.get("about:blank")
    assert any("/live" in line for line in page.log()), "only the connection may have failed"


def test_the_way_back(page, lab, console):
    page.open("log")
    page.state("Not started")
    listeners = len(lab.journal._listeners)
    page.driver.get("about:blank")
    page.wait(lambda: not console._pages, "the page to let its connection go")
    page.driver.back()
    page.says("live", "#link")
    page.state("Not started")
    page.wait(lambda: len(console._pages) == 1, "one connection")
    assert len(lab.journal._listeners) == listeners


def test_a_device_that_is_not_there(page):
    page.open()
    page.driver.get(page.url + "#/device/%3Cb%3Ex/summary")
    page.says("This lab has no device <b>x")
    page.driver.get(page.url + "#/device/%zz")
    page.says("Devices", "h1")
