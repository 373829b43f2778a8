"""What can go wrong on demand: each fault does what it says, and is over when it is mended."""

import os
import subprocess

import pytest
from expect import FASTER

from lab.ctlserver import CtlServer
from lab.device import PYTHON, REPOSITORY
from lab.faults import FAULTS


@pytest.fixture
def fault(lab):
    """Gives a command about faults, as from another terminal."""
    def give(*words):
        return subprocess.run([PYTHON, "-m", "lab.ctl", "--lab", str(os.getpid()), "fault", *words],
                              cwd=REPOSITORY, capture_output=True, text=True, timeout=60,
                              check=False)
    with CtlServer(lab):
        yield give


def refused(done, text):
    """Asserts that it could not be done."""
    assert (done.returncode, done.stdout, done.stderr) == (1, "", f"failed: {text}\n")


def test_faults_are_listed_and_looked_at(lab, fault):
    done = fault("list")
    assert done.returncode == 0
    assert [line[2:].split()[0] for line in done.stdout.splitlines()] == list(FAULTS)
    assert "*" not in done.stdout
    assert fault("begin", "black-hole").returncode == 0
    assert "* black-hole" in fault("list").stdout
    refused(fault("begin", "black-hole"), "'Swallow every frame' has begun already")
    refused(fault("begin", "link-cut"), "end 'Swallow every frame' first")
    assert fault("end", "black-hole").stdout == "done: over: swallow every frame\n"
    refused(fault("end", "black-hole"), "'Swallow every frame' has not begun")
    refused(fault("end", "kill-agent"), "'Kill the agent' has not begun")
    refused(fault("begin", "kill-agent"), "the agent is not running")
    refused(fault("begin", "drop-connection"), "there is no connection to drop")
    done = fault("begin", "no")
    assert done.stderr.startswith("failed: no fault is called 'no'; there are: link-cut, ")
    kinds = [(e["name"], e["active"]) for e in lab.journal.events("fault")]
    assert kinds == [("black-hole", True), ("black-hole", False)], "what failed has not begun"


def test_the_ways_to_the_controller(online, fault):
    for name in ("refuse", "certificate", "controller-off"):
        assert fault("begin", name).returncode == 0
        said = {"refuse": "Registration failed", "certificate": "certificate",
                "controller-off": "LWS_CALLBACK_CLIENT_CONNECTION_ERROR"}[name]
        online.log.wait(said)
        assert online.controller.newest is None or not online.controller.newest.accepted
        assert fault("end", name).returncode == 0
        online.wait_registered()


def test_silence(start, fault):
    online = start(faketime=FASTER)
    online.wait_registered()
    for name in ("stall", "black-hole", "link-cut"):
        assert fault("begin", name).returncode == 0
        online.log.wait("Missed 5 consecutive PONGS", timeout=30)
        assert fault("end", name).returncode == 0
        online.wait_registered()
    assert fault("begin", "drop-connection").returncode == 0
    online.wait_registered()
    assert fault("begin", "power-cycle").returncode == 0
    online.wait_registered()
    assert fault("begin", "kill-agent").returncode == 0
    online.wait_registered()
    assert online.supervisor.exit_statuses[-1] == -9


def test_a_full_flash(online, fault):
    old = online.scmd.stored()
    assert fault("begin", "flash-full").returncode == 0
    for _ in ("before", "after a reboot"):
        online.controller.send({"msgType": 106, "config": "set radio0 power 3\n"})
        assert online.controller.wait_message(706)["message"] == (
            "Not able to open config file for writing")
        assert online.device.run(["touch", "/mnt/flash/x"]).returncode != 0
        assert online.device.run(["tee", "/mnt/flash/config/config.txt"], input="x").returncode
        assert online.scmd.stored() == old
        online.reboot()
        online.wait_registered()
    assert fault("end", "flash-full").returncode == 0
    online.controller.send({"msgType": 106, "config": "set radio0 power 3\n"})
    online.journal.wait("from-agent", lambda e: e["message"].get("status") == "Complete")
    assert "set radio0 power 3\n" in online.scmd.stored()
    assert "overlay" not in online.device.run(["sh", "-c", "grep flash /proc/mounts"]).stdout
