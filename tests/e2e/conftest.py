"""What every end-to-end test gets: a fresh lab, the agent to run in it, and a look at the ruins.

The agent is the sanitizer build unless --agent or AGENT_BINARY names another. A test fails when
the agent breaks the wire protocol or a sanitizer reports something, whatever else it asserts.
"""

import os
import signal
import sys
from pathlib import Path
from typing import Callable, Iterator

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY))

from lab.lab import Lab  # noqa: E402 - needs the path above
from leftovers import Leftovers  # noqa: E402
from rude_server import RudeServer  # noqa: E402
from transfers import EventSocket, Helpers  # noqa: E402

# Who starts a run in the background of a script hands down an ignored SIGINT, which programs keep ignoring.
signal.signal(signal.SIGINT, signal.default_int_handler)

DEFAULT_AGENT = "build/asan/device-agent"
FAST = "+0 x20"
"""The agent's clock in most tests: its idle delay takes a quarter of a second."""


def pytest_addoption(parser: pytest.Parser) -> None:
    """--agent PATH."""
    parser.addoption("--agent", default=os.environ.get("AGENT_BINARY", DEFAULT_AGENT),
                     help="the agent's program (default: $AGENT_BINARY or %(default)s)")


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Without root nothing here can run: say so once, clearly."""
    if items and os.geteuid() != 0:
        pytest.exit("the end-to-end tests need root (mounts, namespaces): use sudo", 1)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    """Attaches the agent's log and output to the report of a failed test."""
    outcome = yield
    report = outcome.get_result()
    lab = getattr(item, "funcargs", {}).get("lab")
    told = "end of the agent's log" in report.longreprtext  # a wait that failed has told it
    if report.failed and report.when == "call" and lab is not None and not told:
        report.sections.append(("agent", lab.explain()))


@pytest.fixture(scope="session", autouse=True)
def leftovers() -> Iterator[None]:
    """After the last test nothing of ours may be left on the machine."""
    before = Leftovers.look()
    yield
    found = Leftovers.look().beyond(before)
    assert not found, "the tests left behind: " + "; ".join(found)


@pytest.fixture(scope="session")
def binary(request: pytest.FixtureRequest) -> Path:
    """The agent's program."""
    path = (REPOSITORY / request.config.getoption("--agent")).resolve()
    if not path.is_file():
        pytest.exit(f"there is no agent at {path}; build it first: ./dev build", 1)
    return path


@pytest.fixture
def lab() -> Iterator[Lab]:
    """A fresh lab without an agent. Ends with a check of what must never happen."""
    with Lab() as fresh:
        yield fresh
        fresh.supervisor.stop()
        problems = fresh.problems()
        assert not problems, "\n".join(problems)


@pytest.fixture
def start(lab: Lab, binary: Path) -> Callable[..., Lab]:
    """Starts the agent in the lab: start(*options, faketime=..., restart=..., env=...)."""
    def begin(*options: str, faketime: str = FAST, **more: object) -> Lab:
        lab.start_agent(binary, options or ("-d", "3"), faketime=faketime, **more)
        return lab
    return begin


@pytest.fixture
def online(start: Callable[..., Lab]) -> Lab:
    """A lab whose agent has been accepted by the controller."""
    lab = start()
    lab.wait_registered()
    return lab


# -- the helper programs, which need a device and a server but no agent ----------------------


@pytest.fixture(scope="session")
def transfer_lab(leftovers: None) -> Iterator[Lab]:
    """A lab without an agent, for many tests: `helpers` cleans up its device's /tmp.

    It goes before `leftovers` looks.
    """
    with Lab() as fresh:
        fresh.files.start()
        yield fresh
        problems = fresh.problems()
        assert not problems, "\n".join(problems)


@pytest.fixture(scope="session")
def rude(transfer_lab: Lab) -> RudeServer:
    """A server that does what a test says."""
    server = RudeServer(transfer_lab)
    server.start()
    return server


@pytest.fixture
def helpers(transfer_lab: Lab, binary: Path) -> Iterator[Helpers]:
    """fw_dl and s3upload in a device whose /tmp holds nothing but the event socket."""
    made = Helpers(transfer_lab, binary, EventSocket(transfer_lab))
    made.clean()
    yield made
    made.clean()
