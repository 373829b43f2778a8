"""What tests of the web console get: the console of their lab, and a real browser on it.

The browser is Debian's Chromium, one for each worker. A test fails on anything that the page has
written to the browser's console, whatever else it asserts. Pictures of the page are left in
build/screenshots.
"""

import os
import tempfile
from typing import Callable, Iterator

import pytest
from page import Page
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

from lab.console.server import Console
from lab.device import REPOSITORY
from lab.lab import Lab

SCREENSHOTS = REPOSITORY / "build/screenshots"
_OPTIONS = ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
            "--hide-scrollbars", "--disable-extensions", "--disable-component-update",
            "--disable-background-networking", "--disable-sync", "--no-first-run",
            "--disable-crash-reporter", "--force-prefers-reduced-motion",
            "--disable-software-rasterizer", "--window-size=1360,900")


@pytest.fixture(scope="session")
def browser(leftovers: None) -> Iterator[webdriver.Chrome]:
    """The browser of this worker; all that it writes is thrown away. It ends before `leftovers`."""
    with tempfile.TemporaryDirectory(prefix="console-browser-") as home:
        options = Options()
        options.binary_location = "/usr/bin/chromium"
        for option in (*_OPTIONS, f"--user-data-dir={home}/data"):
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = Service("/usr/bin/chromedriver", env={**os.environ, "HOME": home})
        driver = webdriver.Chrome(service=service, options=options)
        try:
            yield driver
        finally:
            driver.quit()


@pytest.fixture
def console(lab: Lab) -> Iterator[Console]:
    """The console of a lab, at any free port."""
    with Console(lab, 0) as served:
        yield served


@pytest.fixture
def page(browser: webdriver.Chrome, console: Console, request: pytest.FixtureRequest,
         ) -> Iterator[Page]:
    """The console in the browser, nothing opened yet."""
    SCREENSHOTS.mkdir(parents=True, exist_ok=True)
    shown = Page(browser, console.url, SCREENSHOTS / request.node.name)
    shown.forget_log()
    yield shown
    shown.picture("end")
    said = shown.log()
    browser.get("about:blank")  # no page reconnects to a lab that has ended
    assert not said, f"the page complained: {said}"


@pytest.fixture
def open_panel(page: Page, online: Lab) -> Callable[[str], Page]:
    """Opens a panel of the registered device."""
    def show(name: str = "summary") -> Page:
        page.open(name)
        page.state("Online")
        return page
    return show
