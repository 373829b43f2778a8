"""Statistics from another terminal, and what the controller keeps of them."""

import os
import subprocess

import pytest

from lab.ctlserver import CtlServer
from lab.device import PYTHON, REPOSITORY


@pytest.fixture
def ctl(online):
    """Gives commands about statistics to the controller of a registered device."""
    def run(*words):
        return subprocess.run([PYTHON, "-m", "lab.ctl", "--lab", str(os.getpid()), "stats", *words],
                              cwd=REPOSITORY, capture_output=True, text=True, timeout=60,
                              check=False)
    online.controller.wait_message(404)  # a request made before its answer would share it
    with CtlServer(online):
        yield run


def test_one_report_is_shown_as_tables(ctl):
    done = ctl("once", "--fields", "hostname,colour", "--tables", "routes,wireless,taste")
    assert done.returncode == 0, done.stderr
    lines = done.stdout.splitlines()
    assert "hostname  quill-lab" in lines
    assert "destination   gateway    interface  metric" in lines
    assert "0.0.0.0/0     10.77.0.1  eth0       0" in lines
    assert "wireless: no rows" in lines
    assert lines[-2:] == ["unknown fields: colour", "unknown tables: taste"]


def test_information_and_custom_reports(ctl):
    done = ctl("once", "--info")
    assert done.returncode == 0
    assert "fields: uptime, clock, hostname" in done.stdout
    assert "<--- 422 stats-info: " in done.stdout
    for subtype, number in ((241, 424), (7, 404), (1, 403), (255, 422)):
        done = ctl("once", "--custom", str(subtype), "--fields", "uptime")
        assert done.returncode == 0, subtype
        assert f"<--- {number} " in done.stdout


def test_a_subscription_is_kept_and_shown(ctl, online):
    done = ctl("subscribe", "3", "--interval", "2", "--fields", "cpuCount,rxBytes",
               "--tables", "interfaces")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.endswith("done: slot 3 reports every 2 s, also after a reconnect\n")
    for _ in range(4):
        online.controller.wait_message(403)
    done = ctl("show", "cpuCount", "interfaces.eth0.rxBytes", "--slot", "3")
    assert done.returncode == 0, done.stderr
    blocks = done.stdout.split("\n\n")
    assert blocks[0].startswith("cpuCount (number)\n  ▁▁▁")
    assert blocks[1].startswith("interfaces.eth0.rxBytes (per s)\n  ")
    assert "rxBytes (per s)" in ctl("show").stdout, "without names: the last report's fields"
    done = ctl("watch", "--count", "2")
    assert done.returncode == 0
    assert done.stdout.count("<--- 403 stats: ") == 2
    done = ctl("stop", "3")
    assert done.returncode == 0
    assert online.log.wait("Received periodic stats stop request t_index=3")
    assert not online.controller.standing


def test_a_subscription_outlives_the_controller(ctl, online):
    ctl("subscribe", "5", "--interval", "2", "--fields", "uptime")
    online.controller.wait_message(403)
    online.controller.stop()
    online.log.wait("Cancelling pstats timer t_index=5")
    online.controller.start()
    online.wait_registered()
    position = online.journal.position
    online.journal.wait("from-agent", lambda e: e["message"]["msgType"] == 403, since=position)


def test_a_subscription_outlives_the_agent_and_the_device(ctl, online):
    ctl("subscribe", "5", "--interval", "2", "--fields", "uptime")
    online.controller.wait_message(403)
    online.reboot()
    position = online.journal.position
    online.journal.wait("from-agent", lambda e: e["message"]["msgType"] == 403, timeout=30,
                        since=position)


def test_what_the_device_refuses_fails(ctl, online):
    done = ctl("subscribe", "1")
    assert (done.returncode, done.stderr) == (1, "failed: BadRequest: Index out of range\n")
    done = ctl("stop", "9")
    assert done.returncode == 1
    assert "Received stop stats request with invalid index" in done.stderr
    assert ctl("show", "colour").returncode == 1
    assert ctl("show", "--last", "0").returncode == 2
    assert ctl("subscribe", "x").returncode == 2
    assert not online.controller.standing
