"""What goes with agentctl: manual page, completion, installation, and that they tell the same."""

import re
import shutil
import subprocess

import pytest
from conftest import REPOSITORY
from toolbox import Agentctl

PAGE = REPOSITORY / "agentctl/agentctl.8"
COMPLETION = REPOSITORY / "agentctl/agentctl.bash-completion"


@pytest.fixture
def verbs(lab, binary):
    """The verbs that --help names."""
    shown = Agentctl(lab, binary).run("--help").stdout
    found = re.findall(r"^  (\w+)", shown, re.MULTILINE)
    assert len(found) == 7
    return found


def test_the_manual_page_has_no_flaw_and_every_verb(verbs):
    groff = shutil.which("groff")
    assert groff, "groff is missing; get it with: apt-get install groff-base"
    done = subprocess.run([groff, "-man", "-ww", "-Tutf8", str(PAGE)], capture_output=True,
                          text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")
    for verb in verbs:
        assert f".TP\n.B {verb}\n" in PAGE.read_text(encoding="utf-8")


def complete(line):
    """What bash offers at the end of the line."""
    script = (f'. "{COMPLETION}"; read -ra COMP_WORDS <<<"$1"; case $1 in *" ") COMP_WORDS+=("");; '
              'esac; COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _agentctl; echo "${COMPREPLY[*]}"')
    done = subprocess.run(["bash", "-euc", script, "bash", line], capture_output=True, text=True,
                          check=True)
    return done.stdout.split()


def test_the_completion(verbs):
    assert complete("agentctl ") == verbs + ["--help", "--version"]
    assert complete("agentctl sta") == ["status"]
    assert complete("agentctl scan ") == ["2.4GHz", "5GHz", "--json", "--help"]
    assert complete("agentctl run ") == ["ping", "traceroute", "nslookup", "tcpdump", "-d", "--help"]
    assert complete("agentctl run tr") == ["traceroute"]
    assert complete("agentctl run -d 5 ping -") == ["-c", "-s", "-t", "-v"]
    assert complete("agentctl check --j") == ["--json"]


def test_it_is_installed_with_its_papers(binary, tmp_path):
    subprocess.run(["cmake", "--install", str(binary.parent), "--prefix", str(tmp_path)], check=True,
                   capture_output=True)
    for path in ("sbin/agentctl", "share/man/man8/agentctl.8",
                 "share/bash-completion/completions/agentctl"):
        assert (tmp_path / path).is_file(), path
