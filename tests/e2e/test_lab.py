"""The lab itself: the device is a device, the host stays as it is, nothing is left behind."""

import os
import signal
import subprocess
import threading
import time
from pathlib import Path

import pytest
from expect import until
from leftovers import Leftovers

from lab import schemas
from lab.device import PYTHON, REPOSITORY, Device
from lab.lab import Lab

EXEC = [PYTHON, "-m", "lab.exec"]


def shell(lab, script):
    """The output of a shell script run inside the device."""
    return lab.device.run(["sh", "-c", script], check=True).stdout


def programs(lab):
    """The names of what runs in the device; one that ends while they are read is left out."""
    return shell(lab, "cat /proc/[0-9]*/comm 2>/dev/null || true")


def test_the_device_has_the_devices_files(lab):
    assert lab.device.read_text("/etc/version") == "NAME=quill\nVERSION=4.2.1\n"
    assert shell(lab, "hostname") == "quill-lab\n"
    assert shell(lab, "cat /sys/class/net/eth0/address") == "02:4f:56:10:20:30\n"
    assert set(os.listdir(f"/proc/{lab.device.pid}/root/sys/class/net")) == {"lo", "eth0", "eth1"}
    assert len(shell(lab, "ls /etc/ssl/certs").split()) == 2


def test_the_host_is_not_touched(lab):
    script = "echo x > /usr/bin/harm; echo x > /tmp/harm; echo x > /etc/harm; rm -f /etc/passwd"
    shell(lab, script)
    assert lab.device.exists("/usr/bin/harm") and not lab.device.exists("/etc/passwd")
    assert os.path.exists("/etc/passwd")
    assert not any(os.path.exists(path) for path in ("/usr/bin/harm", "/tmp/harm", "/etc/harm"))
    assert lab.device.run(["touch", str(REPOSITORY / "harm")]).returncode != 0
    assert lab.device.run(["sh", "-c", "echo 1 > /proc/sys/kernel/panic"]).returncode != 0


def test_the_clock_cannot_be_set(lab):
    before = time.time()
    assert lab.device.run(["date", "2001.01.01-00:00:00"]).returncode == 0
    assert lab.device.records("date") == [["2001.01.01-00:00:00"]]
    assert lab.device.run(["date.real", "-s", "2001-01-01"]).returncode != 0
    assert abs(time.time() - before) < 60


def test_tools_record_their_arguments(lab):
    lab.device.run(["/usr/bin/flash_leds", "-c", "two words\n", ""], check=True)
    lab.device.script_tool("flash_leds", status=5, output="hello\n")
    done = lab.device.run(["/usr/bin/flash_leds"])
    assert (done.returncode, done.stdout) == (5, "hello\n")
    assert lab.device.records("flash_leds") == [["-c", "two words\n", ""], []]


def test_links_in_the_device_do_not_lead_to_the_host(lab):
    shell(lab, "ln -s /tmp/inside /tmp/link; echo seen > /tmp/inside")
    assert lab.device.read_text("/tmp/link") == "seen\n"
    lab.device.write_text("/tmp/link", "changed")
    assert lab.device.read_text("/tmp/inside") == "changed"


def test_a_reboot_keeps_flash_alone(lab):
    shell(lab, "echo 1 > /tmp/a; echo 1 > /etc/a; echo 1 > /mnt/flash/a")
    shell(lab, "sleep 1000 >/dev/null 2>&1 & setsid sleep 1000 >/dev/null 2>&1 &")
    until(lab, lambda: programs(lab).count("sleep") == 2,
          "two processes")
    lab.device.run(["/usr/bin/scripts/shutdown.sh", "REASON"])  # it may not live to its end
    lab.journal.wait("rebooted")
    assert not lab.device.exists("/tmp/a") and not lab.device.exists("/etc/a")
    assert lab.device.read_text("/mnt/flash/a") == "1\n"
    assert "sleep" not in programs(lab)
    assert lab.device.read_text("/mnt/flash/.last_reboot_reason").endswith(":REASON")
    assert lab.device.records("shutdown.sh") == [["REASON"]]


def test_a_lab_can_end_while_its_device_reboots(binary):
    with Lab() as lab:
        lab.start_agent(binary)
        lab.device.run(["/usr/bin/scripts/shutdown.sh", "REASON"], check=True)
        lab.journal.wait("rebooting")
    assert "lab-supervisor" not in [thread.name for thread in threading.enumerate()]


def test_names_come_and_go(lab):
    def known(name):
        return lab.device.run(["getent", "ahostsv4", name]).returncode == 0
    assert known("cloud.orvanta.example") and not known("new.example")
    lab.names.add("new.example")
    assert known("new.example")
    lab.names.remove("new.example")
    assert not known("new.example")


@pytest.mark.parametrize("breaking", ["cut", "black_hole"])
def test_the_network_breaks_and_heals(lab, breaking):
    def reaches():
        script = "exec 3<>/dev/tcp/10.77.0.1/443"
        return lab.device.run(["timeout", "0.5", "bash", "-c", script]).returncode == 0
    assert reaches()
    getattr(lab.network, breaking)()
    carrier = lab.device.run(["cat", "/sys/class/net/eth0/carrier"]).stdout.strip()
    assert carrier == ("0" if breaking == "cut" else "1")
    assert not reaches()
    lab.network.restore()
    assert reaches() or reaches()


def test_a_message_that_the_documents_do_not_know_is_not_sent(lab):
    with pytest.raises(schemas.SchemaError):
        schemas.check("to-agent", '{"msgType": 108, "surprise": 1}')


def test_a_sanitizer_report_is_a_problem(lab):
    lab.supervisor.start(["/bin/sh", "-c", "echo 'a.cpp:1:2: runtime error: harm'; sleep 100"])
    deadline = time.monotonic() + 5
    while not lab.problems() and time.monotonic() < deadline:
        time.sleep(0.02)
    assert "runtime error: harm" in lab.problems()[0]
    lab.supervisor.stop()
    lab.supervisor.output_path.write_text("", encoding="utf-8")  # it was on purpose


def test_exec_passes_everything_through(tmp_path):
    done = subprocess.run(
        [*EXEC, "--writable", str(tmp_path), "--", "sh", "-c",
         f"cat; pwd; echo $WORD; echo report > {tmp_path}/report; echo complaint >&2; exit 7"],
        cwd=REPOSITORY, input="given\n", capture_output=True, text=True, check=False,
        env={**os.environ, "WORD": "kept"})
    assert (done.returncode, done.stderr) == (7, "complaint\n")
    assert done.stdout == f"given\n{REPOSITORY}\nkept\n"
    assert (tmp_path / "report").read_text(encoding="utf-8") == "report\n"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGKILL])
def test_exec_leaves_nothing_however_it_ends(tmp_path, number):
    before = Leftovers.look()
    environment = {**os.environ, "TMPDIR": str(tmp_path)}
    runner = subprocess.Popen([*EXEC, "--", "sh", "-c", "echo up; sleep 1000 & sleep 1000"],
                              cwd=REPOSITORY, stdout=subprocess.PIPE, text=True, env=environment)
    assert runner.stdout.readline() == "up\n"
    runner.send_signal(number)
    runner.wait(10)
    runner.stdout.read()  # ends when the last process inside has ended
    runner.stdout.close()
    deadline = time.monotonic() + 5
    while list(tmp_path.iterdir()) and time.monotonic() < deadline:
        time.sleep(0.02)
    assert not list(tmp_path.iterdir())
    assert Leftovers.look().beyond(before) == []


def lab_processes(folder):
    """The command lines of all processes that work in this folder for temporary files."""
    found = []
    for path in Path("/proc").glob("[0-9]*"):
        try:
            if str(folder).encode() in (path / "environ").read_bytes() + (
                    path / "cmdline").read_bytes():
                found.append((path / "cmdline").read_text())
        except OSError:  # it has just ended
            continue
    return found


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGKILL])
def test_run_leaves_nothing_however_it_ends(tmp_path, binary, number):
    before = Leftovers.look()
    runner = subprocess.Popen(
        [PYTHON, "-m", "lab.run", "--agent", str(binary)], cwd=REPOSITORY, text=True,
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, env={**os.environ,
                                                               "TMPDIR": str(tmp_path)})
    assert any("status: \"Connecting\"" in line for line in runner.stdout)
    assert len(lab_processes(tmp_path)) > 2
    runner.send_signal(number)
    output = runner.communicate(timeout=15)[0]
    if number != signal.SIGKILL:
        assert runner.returncode == 0
        assert output.endswith("stopped; everything is taken down\n")
    deadline = time.monotonic() + 5
    while (lab_processes(tmp_path) or list(tmp_path.iterdir())) and time.monotonic() < deadline:
        time.sleep(0.02)
    assert lab_processes(tmp_path) == []
    assert not list(tmp_path.iterdir())
    assert Leftovers.look().beyond(before) == []


def test_run_until_registered(binary):
    done = subprocess.run([PYTHON, "-m", "lab.run", "--agent", str(binary), "--until", "registered",
                           "--faketime", "+0 x20"], cwd=REPOSITORY, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, timeout=60, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    assert 'agent ---> 100 register: {"msgType": 100, ' in done.stdout
    assert "agent <--- 400 register-success: " in done.stdout
    assert "\033" not in done.stdout, "no colours unless it is a terminal"
    assert "the device is registered\n" in done.stdout


def test_run_with_a_controller_named_by_dhcp(binary):
    done = subprocess.run([PYTHON, "-m", "lab.run", "--agent", str(binary), "--until", "registered",
                           "--faketime", "+0 x20", "--dhcp-url", "https://onprem.example"],
                          cwd=REPOSITORY, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, timeout=60, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "DHCP: hook: bound 0\n" in done.stdout
    assert "Discovered method is 2 orv_url " in done.stdout


def test_run_tells_when_there_is_no_agent():
    done = subprocess.run([PYTHON, "-m", "lab.run", "--agent", "build/none"], cwd=REPOSITORY,
                          capture_output=True, text=True, check=False)
    assert done.returncode == 1
    assert "there is no agent at " in done.stdout


def test_a_device_that_cannot_be_made_leaves_nothing(tmp_path, monkeypatch):
    monkeypatch.setenv("TMPDIR", str(tmp_path))
    monkeypatch.setattr("tempfile.tempdir", None)
    device = Device(-1)
    with pytest.raises(Exception):  # noqa: B017 - there is no such network namespace
        device.start()
    assert not list(tmp_path.iterdir())
