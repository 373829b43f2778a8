"""What the network says by DHCP: dnsmasq hands it out, udhcpc and the device's hook take it in."""

import signal

import pytest
from expect import CLOUD, DEVICE_ID, FASTER, onboarding_request

from lab import network
from lab.dhcp import DOMAIN_FILE, HOOK, URL_FILE

ADDRESS = "10.77.0.40"
OPTION_43, OPTION_15 = "onprem.example", "orvanta.branch.example"


def handed_over(lab):
    """The texts of option 43 and option 15 as the agent finds them; None where there is no file."""
    return tuple(lab.device.read_text(path) if lab.device.exists(path) else None
                 for path in (URL_FILE, DOMAIN_FILE))


def run_hook(lab, event, **variables):
    """Runs the hook as udhcpc would, with option texts that no server could be made to send."""
    texts = {"interface": "eth0", "ip": network.DEVICE_ADDRESS, "mask": "24",
             "router": network.WORLD_ADDRESS, **variables}
    pairs = [f"{name}={text}" for name, text in texts.items()]
    return lab.device.run(["env", *pairs, str(HOOK), event], check=True)


def on_eth0(lab, what):
    """What `ip` says about the addresses or routes of the device."""
    return lab.device.run(["ip", "-4", "-o", what, "show", "dev", "eth0"], check=True).stdout


def test_an_address_and_both_options_arrive(lab):
    lab.dhcp.offer("https://onprem.example", "branch.example", address=ADDRESS)
    lab.device.write_text("/etc/resolv.conf", "nameserver 192.0.2.1\n")
    lab.dhcp.connect()
    assert f"inet {ADDRESS}/24 brd 10.77.0.255 " in on_eth0(lab, "address")
    assert "default via 10.77.0.1" in on_eth0(lab, "route")
    assert lab.device.read_text("/etc/resolv.conf") == "nameserver 10.77.0.1\n"
    assert handed_over(lab) == ("https://onprem.example", "branch.example")
    assert lab.device.stat(URL_FILE).st_mode & 0o777 == 0o644
    left = lab.device.run(["sh", "-c", "cd /tmp && ls -d orv_*"]).stdout.split()
    assert left == ["orv_dhcp_15_domain", "orv_dhcp_43_url"], "nothing half done beside them"


@pytest.mark.parametrize("offered, asked", [
    ({"url": f"https://{OPTION_43}"}, OPTION_43),
    ({"url": f"{OPTION_43}\0"}, OPTION_43),
    ({"domain": "branch.example"}, OPTION_15),
    ({"url": f"https://{OPTION_43}:443", "domain": "branch.example"}, OPTION_43),
    ({}, CLOUD)])
def test_the_controller_that_the_network_names_is_asked(lab, start, offered, asked):
    lab.names.add(OPTION_43)
    lab.names.add(OPTION_15)
    lab.dhcp.offer(address=ADDRESS, **offered)
    lab.dhcp.connect()
    start()
    assert lab.onboarding.wait_request()["text"] == onboarding_request(asked)
    assert lab.controller.wait_message(100, timeout=30)["ipAddress"] == ADDRESS
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1


def test_an_address_that_comes_late(lab, start):
    """The agent is up before the network has said anything."""
    lab.names.add(OPTION_43)
    lab.dhcp.connect(wait=False)
    start(faketime=FASTER)
    lab.log.wait(f"Not able to resolve  {CLOUD} ")
    assert lab.status() == "Resolving URL"
    lab.dhcp.offer(f"https://{OPTION_43}")
    lab.dhcp.wait_lease()
    lab.wait_registered()
    assert lab.onboarding.wait_request()["text"] == onboarding_request(OPTION_43)


def test_a_renewal_changes_what_is_handed_over(lab):
    lab.dhcp.offer("https://first.example", "first.example")
    lab.dhcp.connect()
    assert handed_over(lab) == ("https://first.example", "first.example")
    lab.dhcp.offer("https://second.example", "first.example")
    lab.dhcp.renew()
    assert handed_over(lab) == ("https://second.example", "first.example")
    lab.dhcp.offer(domain="second.example")
    lab.dhcp.renew()
    assert handed_over(lab) == (None, "second.example")
    lab.dhcp.offer()
    lab.dhcp.renew()
    assert handed_over(lab) == (None, None)


def test_a_renewal_leaves_the_connection_alone(lab, start):
    lab.dhcp.offer()
    lab.dhcp.connect()
    start()
    lab.wait_registered()
    addresses = on_eth0(lab, "address")
    monitor = lab.device.popen(["timeout", "3", "ip", "-4", "monitor", "address", "route"],
                               stdout=-1, text=True)
    lab.dhcp.renew()
    assert on_eth0(lab, "address") == addresses
    monitor.terminate()
    changes = monitor.communicate()[0]
    assert "Deleted" not in changes, changes
    assert len(lab.controller.connections) == 1


def test_a_lease_that_ends_takes_everything_with_it(lab):
    lab.dhcp.offer("https://onprem.example", "branch.example")
    lab.dhcp.connect()
    lab.dhcp.release()
    assert handed_over(lab) == (None, None)
    assert "inet" not in on_eth0(lab, "address")


def test_another_address_replaces_the_first(lab):
    lab.dhcp.offer(address=ADDRESS)
    lab.dhcp.connect()
    lab.dhcp.offer(address="10.77.0.41")
    lab.dhcp.renew()
    assert "10.77.0.41/24" in on_eth0(lab, "address")
    assert ADDRESS not in on_eth0(lab, "address")


def test_a_router_that_is_gone_is_no_route(lab):
    lab.dhcp.offer()
    lab.dhcp.connect()
    assert "default via 10.77.0.1" in on_eth0(lab, "route")
    lab.dhcp.offer(router=False)
    lab.dhcp.renew()
    assert "default" not in on_eth0(lab, "route")


def test_a_reboot_asks_again(lab, start):
    lab.names.add(OPTION_43)
    lab.dhcp.offer(f"https://{OPTION_43}")
    lab.dhcp.connect()
    start()
    lab.wait_registered()
    lab.reboot()
    lab.dhcp.wait_lease()
    lab.wait_registered()
    assert handed_over(lab) == (f"https://{OPTION_43}", None)


@pytest.mark.parametrize("option", [
    b"  \t ", b"\x00\x00", b"\xf1\x04\x0a\x4d\x00\x01", b"https://a.example\x1b[2J",
    b"https://a.example/\xff", b"https://a b.example", b"\n\n"])
def test_an_option_43_that_is_no_text_is_not_for_us(lab, start, option):
    """Other makers' devices get binary records in it. The next source is asked."""
    lab.names.add(OPTION_15)
    lab.dhcp.offer(option, "branch.example")
    lab.dhcp.connect()
    assert handed_over(lab) == (None, "branch.example")
    start()
    lab.wait_registered()
    assert lab.onboarding.wait_request()["text"] == onboarding_request(OPTION_15)


@pytest.mark.parametrize("domain", ["two words", "a\x1b[2J.example", "semi;reboot", "$(reboot)",
                                    " "])
def test_an_option_15_that_is_no_domain_is_left_out(lab, start, domain):
    lab.dhcp.offer(domain=domain)
    lab.dhcp.connect()
    assert handed_over(lab) == (None, None)
    start()
    lab.wait_registered()
    assert lab.onboarding.wait_request()["text"] == onboarding_request()
    assert not lab.device.records("shutdown.sh")


@pytest.mark.parametrize("text", ["%s%n%d", "$(touch /tmp/harm)", "`touch /tmp/harm`", "\\0101\\n",
                                  "a';touch /tmp/harm'", "-n", "**", "https://a.example/?x=1&y=2"])
def test_texts_are_handed_over_as_they_are(lab, text):
    lab.dhcp.offer(text)
    lab.dhcp.connect()
    if " " in text:  # no URL has a blank
        assert handed_over(lab) == (None, None)
    else:
        assert handed_over(lab) == (text, None)
    assert not lab.device.exists("/tmp/harm")


def test_a_url_of_300_characters_ends_the_pass(lab, start):
    """No host has such a name. A controller was named, so the cloud is not asked in its place."""
    url = "https://" + "a" * 292
    run_hook(lab, "bound", opt43=url.encode().hex(), domain="branch.example")
    assert handed_over(lab) == (url, "branch.example")
    start(faketime=FASTER)
    lab.log.wait("Not able to resolve  aaa")
    lab.log.wait("Unable to discover Orvanta URL (re-discover in")
    assert not lab.onboarding.requests()
    run_hook(lab, "renew")
    lab.wait_registered()
    assert lab.onboarding.wait_request()["text"] == onboarding_request()


def test_a_domain_of_300_characters_falls_through_to_the_cloud(lab, start):
    domain = ".".join(["x" * 59] * 5)
    run_hook(lab, "bound", domain=domain)
    assert handed_over(lab) == (None, domain)
    start(faketime=FASTER)
    lab.log.wait("Try DHCP Option 15 DomainName")
    lab.wait_registered()
    assert lab.onboarding.wait_request()["text"] == onboarding_request()


@pytest.mark.parametrize("obstacle", ["mkdir {0}", "mkdir /tmp/d; ln -s /tmp/d {0}",
                                      "ln -s /etc/passwd {0}", "mkfifo {0}"])
def test_whatever_is_in_the_way_is_replaced(lab, obstacle):
    """Anybody can put things into "/tmp": they neither stop the hook nor lead it elsewhere."""
    lab.device.run(["sh", "-c", obstacle.format(URL_FILE)], check=True)
    passwd = lab.device.read_text("/etc/passwd")
    run_hook(lab, "bound", opt43=b"https://a.example".hex())
    assert handed_over(lab) == ("https://a.example", None)
    assert lab.device.run(["sh", "-c", f"test -f {URL_FILE} -a ! -L {URL_FILE}"]).returncode == 0
    assert lab.device.read_text("/etc/passwd") == passwd
    run_hook(lab, "deconfig")
    assert handed_over(lab) == (None, None)


def test_a_reader_never_sees_half_a_text(lab):
    """The file is replaced, never written over."""
    run_hook(lab, "bound", opt43=b"https://first.example".hex())
    inode = lab.device.stat(URL_FILE).st_ino
    run_hook(lab, "renew", opt43=b"https://second.example".hex())
    assert lab.device.stat(URL_FILE).st_ino != inode


def passes(lab):
    """The log of each discovery pass so far, split where they begin."""
    text = "\n".join(event["message"] for event in lab.journal.events("log"))
    return text.split("DA_STATE_DISCOVERY")[1:]


def test_a_failed_option_43_comes_first_in_the_next_pass(lab, start):
    lab.dhcp.offer(f"https://{OPTION_43}")
    lab.dhcp.connect()
    start(faketime=FASTER)
    lab.log.wait("Unable to discover Orvanta URL (re-discover in")
    lab.names.add(OPTION_43)
    lab.wait_registered()
    assert lab.onboarding.requests() == [onboarding_request(OPTION_43)]
    first, *_, last = passes(lab)
    assert "No Static URL configured " in first and "No Static URL configured " not in last


def test_a_forced_rediscovery_begins_with_the_first_source(lab, start):
    """Where the pass before it would have been followed by one that begins with option 43."""
    lab.dhcp.offer(f"https://{OPTION_43}")
    lab.dhcp.connect()
    start(faketime=FASTER)
    lab.log.wait("Unable to discover Orvanta URL (re-discover in")
    lab.names.add(OPTION_43)
    lab.supervisor.send_signal(signal.SIGUSR1)
    lab.wait_registered()
    assert lab.onboarding.requests() == [onboarding_request(OPTION_43)]
    assert "No Static URL configured " in passes(lab)[-1]


def test_the_way_that_worked_is_taken_again(lab, start):
    lab.names.add(OPTION_15)
    lab.dhcp.offer(domain="branch.example")
    lab.dhcp.connect()
    start()
    lab.wait_registered()
    lab.controller.kill()
    lab.wait_registered()
    assert lab.onboarding.requests() == [
        onboarding_request(OPTION_15), onboarding_request(OPTION_15, cookie=DEVICE_ID)]
    first, last = passes(lab)
    assert "No dhcp 43 option  configured " in first
    assert "No dhcp 43 option  configured " not in last
    assert "Try DHCP Option 15 DomainName" in last
