"""How commands to the controller are typed, and how the lab that is meant is found."""

import os
import socket
import subprocess

import pytest

from lab.ctlverbs import GROUPS
from lab.device import PYTHON, REPOSITORY
from test_ctl import run

WORDS = [verb.words.split() for group in GROUPS for verb in group]


def in_folder(folder, *words):
    """Runs the client where labs have their folders here."""
    return run(*words, env={**os.environ, "TMPDIR": str(folder)})


def a_lab(folder, name, listens=True):
    """What a running lab looks like from outside; the socket has to be kept."""
    place = folder / f"quill-lab-{name}-abcdefgh"
    place.mkdir(mode=0o700)
    listener = socket.socket(socket.AF_UNIX)
    at = os.open(place, os.O_PATH)
    listener.bind(f"/proc/self/fd/{at}/ctl.sock")
    os.close(at)
    if listens:
        listener.listen()
    return listener


@pytest.mark.parametrize("words", [[], ["config"], *WORDS], ids=" ".join)
def test_every_verb_explains_itself(words):
    done = run(*words, "--help")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith(f"usage: ./dev ctl {' '.join(words)}".rstrip())


@pytest.mark.parametrize("words, complaint", [
    ([], "required: VERB"),
    (["sing"], "invalid choice: 'sing'"),
    (["config"], "required: VERB"),
    (["config", "push"], "required: FILE"),
    (["config", "push", "/none"], "ctl: /none: No such file or directory"),
    (["config", "push", "/dev/null", "--object"], "ctl: /dev/null: not a JSON object: "),
    (["config", "push", "/dev/null", "--native", "x"], "ctl: --native goes with an object only"),
    (["config", "push", "x", "--cli", "--object"], "not allowed with argument"),
    (["intervals", "1"], "required: DELTA"),
    (["intervals", "soon", "1"], "invalid 32-bit integer value: 'soon'"),
    (["intervals", "1", "2147483648"], "invalid 32-bit integer value"),
    (["reboot", "--delay", "x"], "invalid 32-bit integer value: 'x'"),
    (["clock", "noon"], "ctl: 'noon' is no time; try "),
    (["managed", "--managed", "maybe"], "invalid choice: 'maybe'"),
    (["upgrade"], "required: VERSION|URL"),
    (["upgrade", "4 3"], "ctl: '4 3' is neither a version nor a URL"),
    (["upgrade", "4.3.0", "--fault", "rain"], "ctl: fault 'rain' is none of full-disk, status=N, "),
    (["upgrade", "https://x", "--fault", "sku"], "ctl: fault 'sku' goes with a version, not with"),
    (["watch", "--count", "0"], "invalid positive number value: '0'"),
    (["--timeout", "0", "info"], "invalid number of seconds value: '0'"),
])
def test_what_is_typed_wrongly_is_told(words, complaint, tmp_path):
    done = in_folder(tmp_path, *words)
    assert (done.returncode, done.stdout) == (2, "")
    assert complaint in done.stderr


def test_no_lab_is_running(tmp_path):
    done = in_folder(tmp_path, "state")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("ctl: no lab is running; start one in another terminal: ./dev run\n")


def test_a_dead_socket_is_removed_and_a_strangers_left_alone(tmp_path):
    a_lab(tmp_path, "7", listens=False).close()
    stranger = a_lab(tmp_path, "8")
    os.chown(tmp_path / "quill-lab-8-abcdefgh", 1234, 1234)
    done = in_folder(tmp_path, "state")
    assert "ctl: no lab is running" in done.stderr
    assert not (tmp_path / "quill-lab-7-abcdefgh" / "ctl.sock").exists()
    assert (tmp_path / "quill-lab-8-abcdefgh" / "ctl.sock").exists()
    stranger.close()


def test_of_several_labs_one_has_to_be_named(tmp_path):
    labs = a_lab(tmp_path, "7"), a_lab(tmp_path, "9")
    done = in_folder(tmp_path, "state")
    assert (done.returncode, done.stderr) == (
        2, "ctl: several labs are running, say which with --lab: 7, 9\n")
    done = in_folder(tmp_path, "state", "--lab", "8")
    assert (done.returncode, done.stderr) == (1, "ctl: lab 8 is not running; running: 7, 9\n")
    for lab in labs:
        lab.close()


def test_the_lab_of_the_other_terminal_is_found(tmp_path, binary):
    folder, person = tmp_path / "labs", tmp_path / "person"
    folder.mkdir()
    person.mkdir()
    environment = {**os.environ, "TMPDIR": str(folder)}
    runner = subprocess.Popen(
        [PYTHON, "-m", "lab.run", "--agent", str(binary), "--faketime", "+0 x20"], cwd=REPOSITORY,
        text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, env=environment)
    assert any("MSG_REGISTER_SUCCESS received" in line for line in runner.stdout)
    done = subprocess.run([str(REPOSITORY / "dev"), "ctl", "config", "pull", "here.txt"],
                          cwd=person, capture_output=True, text=True, check=False, env=environment)
    assert done.returncode == 0, done.stderr
    assert "set management address " in (person / "here.txt").read_text(encoding="utf-8")
    runner.terminate()
    runner.communicate(timeout=15)
    assert not list(folder.iterdir())
