"""The console as a person uses it: by what buttons and labels say."""

import re
from pathlib import Path
from typing import Any, Callable, Optional
from urllib.parse import quote

from selenium import webdriver
from selenium.common.exceptions import (ElementClickInterceptedException,
                                        StaleElementReferenceException, TimeoutException)
from selenium.webdriver.common.by import By
from selenium.webdriver.remote.webelement import WebElement
from selenium.webdriver.support.ui import Select, WebDriverWait

from lab import network

DEVICE = network.MACS["eth0"]
WAIT = 20.0
Condition = Callable[[], Any]
_TEXTS = """
return [...document.querySelectorAll(arguments[0])]
    .filter((one) => one.checkVisibility()).map((one) => (one.innerText ?? one.textContent).trim());
"""


class Page:
    """One tab of the browser."""

    def __init__(self, driver: webdriver.Chrome, url: str, pictures: Path) -> None:
        """`pictures` is the beginning of the names of screenshots."""
        self.driver = driver
        self.url = url
        self._pictures = pictures

    # -- where ------------------------------------------------------------------------------

    def open(self, panel: Optional[str] = None) -> None:
        """Loads the console afresh: the list of devices, or a panel of the device."""
        self.driver.get("about:blank")
        self.driver.get(self.url + (f"#/device/{quote(DEVICE, safe='')}/{panel}" if panel else ""))
        self.wait(lambda: self.text("#link") == "live", "the page to be live")

    def go(self, panel: str) -> None:
        """Opens a panel from the list at the side."""
        self.click(lambda: self.find(f'.tabs [data-panel="{panel}"]'))
        self.wait(lambda: self.panel().get_attribute("data-content") == panel, f"panel {panel}")

    def panel(self) -> WebElement:
        """The panel that is shown."""
        return self.find("[data-content]:not([hidden])")

    # -- waiting and finding ----------------------------------------------------------------

    def wait(self, condition: Condition, what: str, timeout: float = WAIT) -> Any:
        """Waits until the condition holds; parts of the page may be replaced meanwhile."""
        def holds(_driver: object) -> Any:
            try:
                return condition()
            except (StaleElementReferenceException, AssertionError):
                return False
        try:
            return WebDriverWait(self.driver, timeout, poll_frequency=0.1).until(holds)
        except TimeoutException:
            self.picture("failed")
            shown = self.driver.find_element(By.TAG_NAME, "main").text
            raise AssertionError(f"waited {timeout:g} s for {what}; the page shows:\n{shown}\n"
                                 f"and says: {self.log()}") from None

    def all(self, css: str, within: Optional[WebElement] = None) -> list[WebElement]:
        """The elements that are shown now."""
        found = (within or self.driver).find_elements(By.CSS_SELECTOR, css)
        return [element for element in found if element.is_displayed()]

    def find(self, css: str, within: Optional[WebElement] = None) -> WebElement:
        """The first element that is shown; waits for one."""
        return self.wait(lambda: next(iter(self.all(css, within)), None), f"{css} to be shown")

    def texts(self, css: str) -> list[str]:
        """The texts of all such elements that are shown, at one moment."""
        return self.driver.execute_script(_TEXTS, css)

    def text(self, css: str) -> str:
        """The text of the first such element, "" where there is none."""
        return next(iter(self.texts(css)), "")

    def says(self, text: str, css: str = "main", timeout: float = WAIT) -> None:
        """Waits until a text is shown."""
        self.wait(lambda: any(text in one for one in self.texts(css)),
                  f"{text!r} to be shown in {css}", timeout)

    def state(self, text: str, timeout: float = WAIT) -> None:
        """Waits until the device is shown to be in this state."""
        self.wait(lambda: self.text(".device-head .pill") == text, f"state {text!r}", timeout)

    def card(self, title: str) -> WebElement:
        """The part of the panel with this title."""
        def look() -> Optional[WebElement]:
            for card in self.all(".card", self.panel()):
                heads = card.find_elements(By.CSS_SELECTOR, "h2, h3, summary")
                if heads and heads[0].text == title:
                    return card
            return None
        return self.wait(look, f"a part titled {title!r}")

    def button(self, text: str, within: Optional[WebElement] = None) -> WebElement:
        """The button that says this and can be pressed."""
        place = within or self.driver.find_element(By.TAG_NAME, "main")
        return self.wait(lambda: next((one for one in self.all("button", place)
                                       if one.text == text and one.is_enabled()), None),
                         f"a button {text!r}")

    def press(self, text: str, within: Optional[WebElement] = None) -> None:
        """Presses a button."""
        self.click(lambda: self.button(text, within))

    def click(self, look: Callable[[], WebElement]) -> None:
        """Brings an element into view and clicks it, again if what grows above it has moved it."""
        def done() -> bool:
            element = look()
            self.driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", element)
            try:
                element.click()
            except ElementClickInterceptedException:
                return False
            return True
        self.wait(done, "a click to arrive")

    def click_on(self, css: str) -> None:
        """Clicks the first such element that is shown, again if the page has drawn it anew."""
        self.click(lambda: self.find(css))

    def field(self, label: str, within: Optional[WebElement] = None) -> WebElement:
        """The input with this label."""
        def look() -> Optional[WebElement]:
            for one in self.all("label", within or self.panel()):
                if one.text.strip() == label:
                    tied = one.get_attribute("for")
                    return (self.driver.find_element(By.ID, tied) if tied
                            else one.find_element(By.CSS_SELECTOR, "input"))
            return None
        return self.wait(look, f"an input labelled {label!r}")

    def write(self, label: str, text: str, within: Optional[WebElement] = None) -> None:
        """Replaces what stands in an input, as a paste would."""
        element = self.field(label, within)
        self.driver.execute_script(
            "arguments[0].focus(); arguments[0].value = arguments[1];"
            "arguments[0].dispatchEvent(new Event('input', {bubbles: true}));", element, text)

    def choose(self, label: str, text: str, within: Optional[WebElement] = None) -> None:
        """Chooses from a list."""
        element = self.field(label, within)
        self.wait(lambda: any(one.text == text for one in Select(element).options),
                  f"{text!r} to choose from")
        Select(element).select_by_visible_text(text)

    def run(self, script: str, *arguments: Any) -> Any:
        """Runs JavaScript in the page."""
        return self.driver.execute_script(script, *arguments)

    # -- looking ----------------------------------------------------------------------------

    def size(self, width: int, height: int, dark: bool = False) -> None:
        """Makes the window this large, in light or dark."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 500})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})

    def normal_size(self) -> None:
        """Undoes `size`."""
        self.driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})

    def picture(self, name: str) -> None:
        """Leaves a screenshot."""
        test = re.sub(r"[^A-Za-z0-9_-]+", "-", self._pictures.name)
        self.driver.save_screenshot(str(self._pictures.parent / f"{test}-{name}.png"))

    def log(self) -> list[str]:
        """What the page has written to the browser's console since the last call."""
        return [entry["message"] for entry in self.driver.get_log("browser")]

    def forget_log(self) -> None:
        """Starts `log` anew."""
        self.log()
