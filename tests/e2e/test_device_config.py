"""The simulated device's configuration: its shell, its daemon, what comes true on the device."""

import json
import socket
import struct

import pytest

from lab.scmd import model


def clish(lab, *arguments, **options):
    """Runs the shell in the device."""
    return lab.device.run(["/usr/bin/clish", *arguments], **options)


def uplink(lab):
    """The addresses of "eth0" and the default gateway."""
    shown = lab.device.run(["ip", "-j", "address", "show", "dev", "eth0"], check=True).stdout
    addresses = [f"{a['local']}/{a['prefixlen']}" for a in json.loads(shown)[0]["addr_info"]]
    routes = lab.device.run(["ip", "-j", "route", "show", "default"], check=True).stdout
    return addresses, [route["gateway"] for route in json.loads(routes)]


def ask(lab, message, raw=b""):
    """The daemon's answer to one message, over its socket, parsed; None when it hangs up."""
    with socket.socket(socket.AF_UNIX) as peer:
        peer.settimeout(5)
        peer.connect(f"/proc/{lab.device.pid}/root/var/tmp/scmd_server")
        text = raw or json.dumps(message).encode()
        peer.sendall(struct.pack("!I", len(text)) + text)
        received = b""
        while piece := peer.recv(65536):
            received += piece
            if len(received) >= 4 and len(received) == 4 + struct.unpack("!I", received[:4])[0]:
                return json.loads(received[4:])
        return None


def test_a_fresh_device_has_the_default_configuration(lab):
    assert lab.scmd.running() == model.defaults()
    assert lab.scmd.stored().splitlines() == model.to_lines(model.defaults())
    assert uplink(lab) == (["10.77.0.2/24"], ["10.77.0.1"])
    assert json.loads(lab.device.read_text("/mnt/flash/config/db.json")) == {
        "hostname": "quill-lab", "ntp_server": "", "logging_syslog_sev": ""}


def test_the_shell_changes_what_runs_and_stores_it_on_save(lab):
    old = lab.scmd.stored()
    assert clish(lab, "-e", "set system hostname hall-3").returncode == 0
    assert lab.device.run(["hostname"]).stdout == "hall-3\n"
    assert lab.scmd.stored() == old
    assert clish(lab, "-e", "save").returncode == 0
    assert "set system hostname hall-3\n" in lab.scmd.stored()
    assert clish(lab, "-e", "show stored").stdout == lab.scmd.stored()
    assert json.loads(lab.device.read_text("/mnt/flash/config/db.json"))["hostname"] == "hall-3"
    lab.reboot()
    assert lab.device.run(["hostname"]).stdout == "hall-3\n"
    assert clish(lab, "-e", "show running").stdout == lab.scmd.stored()
    assert lab.device.records("clish")[0] == ["-e", "set system hostname hall-3"]


def test_the_shell_reports_wrong_lines_and_goes_on(lab):
    lab.device.write_text("/tmp/lines", "set radio0 channel 15\n# fine\n\nset radio0 power 3\nx 'y\n")
    done = clish(lab, "-f", "/tmp/lines")
    assert done.returncode == 1
    assert done.stderr == ("clish: line 1: radio0 channel: 15 is not a channel of this radio "
                           "(5 GHz)\nclish: line 5: x 'y: no closing quotation\n")
    assert lab.scmd.running()["radios"]["radio0"]["power"] == 3
    assert clish(lab, "-f", "/tmp/none").stderr == "clish: /tmp/none: No such file or directory\n"
    assert clish(lab, "-x").returncode == 2
    assert clish(lab, input="set radio0 power 4\nquit\nset radio0 power 5\n").returncode == 0
    assert lab.scmd.running()["radios"]["radio0"]["power"] == 4


def test_the_text_form_gives_the_same_configuration_again():
    config = model.merged(model.defaults(), {
        "system": {"hostname": "x"}, "radios": {"radio1": {"enabled": False}},
        "ssids": {"a'b": {"security": "wpa2-psk", "passphrase": "it's # \"quoted\" $x"}, "c": {}}})
    again = {"changed": True}
    for line in model.to_lines(config):
        again = model.carry_out(again, line)
    assert again == config
    assert model.merged(config, {"ssids": {"c": None}})["ssids"].keys() == {"a'b"}


@pytest.mark.parametrize("line, addresses, gateways", [
    ("set management address 10.99.0.2/24", ["10.99.0.2/24"], []),
    ("set management address none", [], []),
    ("set management gateway 10.77.0.9", ["10.77.0.2/24"], ["10.77.0.9"]),
    ("set management gateway ''", ["10.77.0.2/24"], []),
    ("set management vlan 7", [], [])])
def test_the_management_address_comes_true_and_back(lab, line, addresses, gateways):
    assert clish(lab, "-e", line).returncode == 0
    assert uplink(lab) == (addresses, gateways)
    clish(lab, "-e", "save")
    lab.reboot()
    assert uplink(lab) == (addresses, gateways)
    assert clish(lab, "-e", "defaults").returncode == 0
    assert uplink(lab) == (["10.77.0.2/24"], ["10.77.0.1"])


def test_an_address_from_elsewhere_stays_until_the_configuration_has_another(lab):
    lab.device.run(["ip", "address", "add", "10.77.0.3/24", "dev", "eth0"], check=True)
    clish(lab, "-e", "set radio0 power 3")
    assert uplink(lab)[0] == ["10.77.0.2/24", "10.77.0.3/24"]
    clish(lab, "-e", "set management address 10.77.0.4/24")
    assert uplink(lab) == (["10.77.0.4/24"], ["10.77.0.1"])


def test_the_daemon_keeps_items_that_are_applied_together(lab):
    def item():
        return json.loads(lab.device.read_text("/mnt/flash/config/db.json")).get("zapd_start_stop")
    assert ask(lab, {"mType": "CONFIG-SET", "name": "zapd_start_stop", "value": "true"}) == {
        "status": "ok"}
    assert item() is None
    assert ask(lab, {"mType": "CONFIG-APPLY"}) == {"status": "ok"}
    assert item() == "true"
    clish(lab, "-e", "set system ntp-server 10.77.0.1")
    assert item() == "true", "what the model does not know stays"


@pytest.mark.parametrize("raw", [b"", b"x", b"[]", b"{}", b'{"mType": "NO-SUCH"}', b'{"mType": 5}',
                                 b'{"mType": []}', b"\xff"])
def test_the_daemon_answers_what_it_does_not_know(lab, raw):
    assert ask(lab, None, raw or b" ") == {"status": "error", "error": "unknown message"}
    assert ask(lab, {"mType": "DEVICE-JSON-CONFIG", "config": 5}) == {
        "status": "error", "error": "config is not an object"}


@pytest.mark.parametrize("part, text", [
    ({"system": 5}, "system: unknown setting"),
    ({"system": {"hostname": {}}}, "system.hostname: {} is not a host name"),
    ({"radios": {"radio2": {"power": 1}}}, "radios.radio2.power: unknown setting"),
    ({"radios": {"radio0": {"enabled": 1}}}, "radios.radio0.enabled: 1 is neither on nor off"),
    ({"ssids": []}, "ssids: [] is not an object"),
    ({"ssids": {"a b": {}}}, "ssids: a b is not the name of an SSID (1 to 32 characters)"),
    ({"ssids": {"a": {"colour": 1}}}, "ssids.a.colour: unknown setting"),
    ({"ssids": {"a": {"passphrase": "12345678"}}},
     "ssids.a: security open must not have a passphrase"),
    ({"ssids": {str(n): {} for n in range(17)}}, "ssids: 17 are too many (16 at most)"),
    ({"management": {"address": "10.77.0.256/24"}},
     "management.address: 10.77.0.256/24 is not an address with its prefix length")])
def test_what_is_wrong_is_told(part, text):
    with pytest.raises(model.Wrong) as caught:
        model.merged(model.defaults(), part)
    assert str(caught.value) == text
