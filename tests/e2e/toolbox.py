"""agentctl inside the device, as someone logged in there runs it."""

import json
import subprocess
from pathlib import Path
from typing import Any, Optional

from lab.device import BASE_ENVIRONMENT
from lab.lab import Lab
from lab.supervisor import find_faketime

SANITIZERS = {"ASAN_OPTIONS": "verify_asan_link_order=0:exitcode=99",
              "UBSAN_OPTIONS": "print_stacktrace=1"}


class Agentctl:
    """The program beside the agent's."""

    def __init__(self, lab: Lab, agent: Path) -> None:
        self.lab = lab
        self.path = str(agent.resolve().parent / "agentctl")

    def environment(self, clock: str = "") -> dict[str, str]:
        """What it runs with; `clock` is a faketime setting such as "@1970-01-02 00:00:00"."""
        env = {**BASE_ENVIRONMENT, **SANITIZERS}
        return {**env, "LD_PRELOAD": find_faketime(), "FAKETIME": clock} if clock else env

    def run(self, *words: str, clock: str = "", input: Optional[str] = None,
            ) -> subprocess.CompletedProcess:
        """Runs it to its end."""
        done = self.lab.device.run([self.path, *words], env=self.environment(clock), input=input,
                                   timeout=60.0)
        assert "Sanitizer" not in done.stderr and "runtime error" not in done.stderr, done.stderr
        return done

    def popen(self, *words: str) -> subprocess.Popen:
        """Starts it with pipes for its outputs."""
        return self.lab.device.popen([self.path, *words], env=self.environment(), text=True,
                                     stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE)

    def status(self) -> tuple[int, dict[str, Any]]:
        """`status --json`: its exit status and its report."""
        done = self.run("status", "--json")
        return done.returncode, json.loads(done.stdout)

    def check(self, clock: str = "") -> "Report":
        """`check --json`."""
        done = self.run("check", "--json", clock=clock)
        return Report(done.returncode, json.loads(done.stdout))


class Report:
    """What a check found."""

    def __init__(self, exit_status: int, report: dict[str, Any]) -> None:
        self.exit_status = exit_status
        self.verdict = report["verdict"]
        self.seconds = report["seconds"]
        self.steps = report["steps"]

    def step(self, name: str, source: Optional[str] = None) -> dict[str, Any]:
        """The one step of this name."""
        found = [step for step in self.steps if step["step"] == name and step["source"] == source]
        assert len(found) == 1, f"{len(found)} steps {name!r} of {source!r} in {self.steps}"
        return found[0]

    def has(self, name: str, source: Optional[str] = None) -> bool:
        """Whether it came to this step."""
        return any(step["step"] == name and step["source"] == source for step in self.steps)

    def assert_open(self) -> None:
        """The whole way was found to be open."""
        assert (self.verdict, self.exit_status) == ("open", 0), self.steps

    def assert_blocked(self, name: str, source: Optional[str], detail: str) -> None:
        """It was found to be blocked at this step, with such a detail."""
        assert (self.verdict, self.exit_status) == ("blocked", 1), self.steps
        step = self.step(name, source)
        assert step["outcome"] == "failed" and detail in step["detail"], step
