"""What goes with fw_dl and s3upload: manual pages, help, installation, and that they tell the same."""

import re
import shutil
import subprocess

import pytest
from conftest import REPOSITORY

PROGRAMS = ("fw_dl", "s3upload")


def page(name):
    """The text of a manual page."""
    return (REPOSITORY / f"transfer/{name}.8").read_text(encoding="utf-8")


def documented(name):
    """The exit statuses of a manual page, "128+N" as 128."""
    statuses = page(name).split(".SH EXIT STATUS")[1].split(".SH")[0]
    return {int(number) for number in re.findall(r"^\.BI? (\d+)", statuses, re.MULTILINE)}


@pytest.mark.parametrize("name", PROGRAMS)
def test_the_manual_page_has_no_flaw(name):
    groff = shutil.which("groff")
    assert groff, "groff is missing; get it with: apt-get install groff-base"
    done = subprocess.run([groff, "-man", "-ww", "-Tutf8", str(REPOSITORY / f"transfer/{name}.8")],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")


@pytest.mark.parametrize("name", PROGRAMS)
def test_page_help_and_code_have_the_same_exit_statuses(name, binary):
    source = (REPOSITORY / "transfer/exit-statuses.h").read_text(encoding="utf-8")
    known = {int(number) for number in re.findall(r"TRANSFER_\w+ = (\d+),", source)}
    assert documented(name) == known
    shown = subprocess.run([str(binary.parent / name), "--help"], capture_output=True, text=True,
                           check=True).stdout
    listed = shown.split("Exit status: ")[1].split("See ")[0]
    assert {int(number) for number in re.findall(r"\b(\d+)(?=[ +])", listed)} == known
    assert shown.startswith(f"Usage: {name} URL ") and max(map(len, shown.splitlines())) <= 88


def test_they_are_installed_with_their_papers(binary, tmp_path):
    subprocess.run(["cmake", "--install", str(binary.parent), "--prefix", str(tmp_path)], check=True,
                   capture_output=True)
    for name in PROGRAMS:
        assert (tmp_path / "sbin" / name).is_file()
        assert (tmp_path / f"share/man/man8/{name}.8").is_file()
