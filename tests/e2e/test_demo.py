"""The stories that the lab tells: each step has really to be seen."""

import os
import re
import signal
import subprocess
import time

from expect import in_order
from leftovers import Leftovers

from lab.device import PYTHON, REPOSITORY

DEMO = [PYTHON, "-m", "lab.demo", "rollback"]


def test_the_way_back_from_a_configuration_that_cuts_the_device_off(binary):
    done = subprocess.run([*DEMO, "--agent", str(binary)], cwd=REPOSITORY, capture_output=True,
                          text=True, stdin=subprocess.DEVNULL, timeout=120, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    in_order(done.stdout.splitlines(), [
        "The device is registered at its controller (https://10.77.0.1).",
        "- set management address 10.77.0.2/24", "+ set management address 10.78.0.2/24",
        "controller ---> 106 config-update-request",
        "controller <--- 406 config-status InProgress: Config update in progress",
        "controller <--- 406 config-status CompleteWithReboot: Rebooting device to apply",
        'The device says good-bye ("DEV_REBOOT")', "reboots, giving SRV_CFG_UPD as the reason.",
        "its address is 10.78.0.2/24.", "in vain: the network is not its own any more.",
        'reads "Connecting in 1 minute".', "It tries again, in vain.", "Ten minutes are over (6",
        '"Reverting to last known good configuration".', "The old configuration is in its place",
        "its address is 10.77.0.2/24.", "The device is registered again.",
        "it is the old one, to the letter.", "controller <--- 407 config", "Every step was seen."])
    times = [int(minutes) * 60 + int(seconds) for minutes, seconds
             in re.findall(r"^ *(\d+):(\d\d)  ", done.stdout, re.MULTILINE)]
    assert times == sorted(times) and times[-1] - times[0] >= 600


def test_a_step_that_is_not_seen_fails_the_story(binary):
    done = subprocess.run([*DEMO, "--agent", str(binary), "--limit", "4"], cwd=REPOSITORY,
                          capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=60,
                          check=False)
    assert done.returncode == 1, done.stdout
    assert "The story went wrong: not seen within 4 s: " in done.stdout
    assert "Every step was seen." not in done.stdout


def test_a_story_that_is_broken_off_leaves_nothing(tmp_path, binary):
    before = Leftovers.look()
    teller = subprocess.Popen([*DEMO, "--agent", str(binary)], cwd=REPOSITORY, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              env={**os.environ, "TMPDIR": str(tmp_path)})
    assert any("The device is registered" in line for line in teller.stdout)
    teller.send_signal(signal.SIGINT)
    output = teller.communicate(timeout=15)[0]
    assert teller.returncode == 1
    assert output.endswith("stopped; everything is taken down\n")
    deadline = time.monotonic() + 5
    while list(tmp_path.iterdir()) and time.monotonic() < deadline:
        time.sleep(0.02)
    assert not list(tmp_path.iterdir())
    assert Leftovers.look().beyond(before) == []
