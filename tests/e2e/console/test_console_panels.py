"""The panels of the console, driven by a real browser against the real agent."""

import json

from selenium.webdriver.common.keys import Keys

HOSTILE = '<img src=x onerror="document.title=1"><script>document.title=2</script>'


def test_devices_are_followed_live(page, online):
    page.open()
    page.says("quill-lab", ".devices")
    page.says("Online", ".devices .pill")
    for text in ("Strata SA", "10.77.0.2", "4.2.1", "2.78", "none yet"):
        assert text in page.text(".devices"), text
    online.controller.kill()
    page.says("Not connected", ".devices .pill")
    page.says("no close frame", ".devices")
    page.says("Online", ".devices .pill")
    page.click_on(".devices a")
    page.state("Online")
    assert "Registered over connection 2." in page.text(".device-head .reason")
    assert page.driver.title == "quill-lab · Orvanta console"


def test_a_lab_without_an_agent_says_so(page):
    page.open("summary")
    page.state("Not started")
    page.says("The agent has not been started yet.", ".device-head")
    page.press("Locate", page.card("Find it"))
    page.says("the device is not connected", ".notice")
    page.go("messages")
    page.says("No message yet", "#messages")


def test_directives(open_panel, online):
    page = open_panel()
    page.press("Locate", page.card("Find it"))
    page.says("the device has blinked its lights", ".notice")
    assert online.device.records("flash_leds") == [[]]
    card = page.card("Status text")
    page.write("Text to show on the device", HOSTILE, card)
    page.press("Show", card)
    page.says(f'status: "{HOSTILE}"'[:60], ".happenings")
    card = page.card("Retry intervals")
    page.press("Set", card)
    page.wait(lambda: "without a complaint" in card.text, "the intervals to be set")
    assert online.controller.messages(717) == []
    card = page.card("Clock")
    page.write("Offer this time (UTC); it registers anew for it", "tomorrow", card)
    page.press("Offer", card)
    page.wait(lambda: "This is no time" in card.text, "a complaint")
    card = page.card("Ask why it closed and rebooted")
    page.press("Ask", card)
    page.wait(lambda: "Kernel up for" in card.text, "the answer")
    card = page.card("Reboot")
    page.write("Reason", "MAINTENANCE", card)
    page.write("Delay, s", "1", card)
    page.press("Reboot", card)
    page.state("Rebooting")
    page.state("Online")
    assert online.device.records("shutdown.sh") == [["MAINTENANCE"]]
    assert page.driver.title == "quill-lab · Orvanta console", "a text has become code"


def messages(page):
    """The messages in the list, the newest first: their numbers."""
    return page.run("return [...document.querySelectorAll('#messages .message')]"
                    ".map((one) => one.dataset.number)")


def test_messages_both_ways(open_panel, online):
    page = open_panel("messages")
    page.wait(lambda: {"100", "400", "104", "404"} <= set(messages(page)), "the first messages")
    page.click_on('#messages [data-number="100"]')
    page.says("as documented", ".detail .pill")
    page.says("The first message of every connection", ".detail")
    page.says('"productName": "Strata SA"', ".detail pre")
    page.press("As sent")
    text = page.text(".detail pre")
    assert text == next(e["text"] for e in online.journal.events("from-agent"))
    page.driver.switch_to.active_element.send_keys(Keys.TAB)
    page.choose("Direction", "to the device")
    assert set(messages(page)) == {"400", "104"}
    page.choose("Direction", "both ways")
    page.choose("Type", "404 stats-on-demand")
    assert set(messages(page)) == {"404"}
    page.choose("Type", "all types")
    page.write("Text", "orvtime")
    assert messages(page) == ["400"]
    page.write("Text", "no such text")
    page.says("No message fits this filter.", "#messages")
    page.write("Text", "")
    page.press("Pause")
    shown = messages(page)
    online.controller.send({"msgType": 115})
    page.says("Go on (2 new)", "button")
    assert messages(page) == shown
    page.press("Go on (2 new)")
    page.wait(lambda: messages(page)[:2] == ["415", "115"], "what was held back")
    page.field("keep-alives").click()
    page.click_on('#messages .message:not([data-number])')
    page.says("keep-alive", ".detail .pill")


def test_a_message_that_breaks_the_protocol_is_marked(open_panel, online):
    page = open_panel("messages")
    text = json.dumps({"msgType": 415, "colour": HOSTILE})
    online.journal.note("from-agent", text=text, message=json.loads(text), binary=True,
                        connection=online.controller.current)
    page.click_on("#messages .wrong")
    page.says("breaks the protocol", ".detail .pill")
    page.says("colour: unknown member", ".detail .notice")
    page.says("<img src=x onerror=", ".detail pre")
    page.field("only what breaks the protocol").click()
    assert messages(page) == ["415"]
    assert page.driver.title == "quill-lab · Orvanta console", "a text has become code"


def test_a_message_of_ones_own(open_panel, online):
    page = open_panel("messages")
    card = page.card("Send a message of your own")
    page.choose("Type", "115 Locate", card)
    page.wait(lambda: page.field("Message", card).get_attribute("value") == '{\n  "msgType": 115\n}',
              "the example")
    page.press("Send", card)
    page.wait(lambda: "answered" in card.text, "the answer")
    page.wait(lambda: messages(page)[:2] == ["415", "115"], "both messages")
    page.write("Message", '{"msgType": 116}', card)
    page.press("Send", card)
    page.wait(lambda: "unknown type" in card.text, "a refusal")


def test_long_messages_are_shown_whole_when_asked_for(open_panel, online):
    page = open_panel("messages")
    online.controller.send({"msgType": 697, "Orvanta": {"status": "ok"}, "x" * 100: "y" * 5000},
                           unchecked=True)
    page.click_on('#messages [data-number="697"]')
    page.wait(lambda: "y" * 5000 in page.text(".detail pre"), "all of it")


def test_the_log_is_followed(open_panel, online):
    page = open_panel("log")
    page.wait(lambda: "MSG_REGISTER_SUCCESS received" in page.panel().text, "the log")
    assert online.programs.log(f"hostapd: {HOSTILE}") == ""
    online.controller.kill()
    page.wait(lambda: "DA_STATE_DISCONNECTED" in page.find(".log").text, "a new line")
    page.write("Text", "msg_register_success")
    online.wait_registered()
    page.wait(lambda: len(page.all(".log div")) == 2, "two lines")
    assert all("MSG_REGISTER_SUCCESS" in line.text for line in page.all(".log div"))
    page.write("Text", "")
    page.choose("Module", "discover-orv.c")
    lines = page.find(".log").text.splitlines()
    assert lines and all(" discover-orv.c:" in line for line in lines), lines


def test_faults_begin_and_end(open_panel, online):
    page = open_panel("faults")
    fault = page.find('[data-fault="link-cut"]')
    page.press("Begin", fault)
    page.wait(lambda: "on" in page.text('[data-fault="link-cut"] .pill'), "the mark")
    page.says("1 fault on", ".device-head")
    page.state("Not connected", 40)
    assert page.text('.tabs [data-panel="faults"] .count') == "1"
    hole = page.find('[data-fault="black-hole"]')
    page.press("Begin", hole)
    page.says("end 'Cut the cable' first", ".notice")
    page.press("Mend it", fault)
    page.state("Online", 40)
    page.press("Do it", page.find('[data-fault="kill-agent"]'))
    page.state("Agent down")
    page.state("Online")
    assert online.supervisor.starts == 2
