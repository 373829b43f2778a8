"""The console's server: who is let in, what it answers, what it does not."""

import asyncio
import http.client
import json
import signal
import socket
import subprocess
import urllib.request
from urllib.parse import urlsplit

import aiohttp
import pytest

from lab.console.server import Console
from lab.device import PYTHON, REPOSITORY

NOBODY = 65534


def ask(console, path="/", method="GET", **headers):
    """One request: its status, headers and text; a header of None is left out."""
    address = urlsplit(console.url).netloc
    given = {"Host": address, **{name.replace("_", "-"): text for name, text in headers.items()}}
    client = http.client.HTTPConnection(address, timeout=10)
    try:
        client.putrequest(method, path, skip_host=True)
        for name, text in given.items():
            client.putheader(name, text)
        client.endheaders()
        answer = client.getresponse()
        return answer.status, dict(answer.getheaders()), answer.read().decode()
    finally:
        client.close()


def upgrade(console, **headers):
    """The status of an attempt to open the websocket."""
    return ask(console, "/live", Upgrade="websocket", Connection="Upgrade",
               Sec_WebSocket_Version="13", Sec_WebSocket_Key="AAAAAAAAAAAAAAAAAAAAAA==",
               **headers)[0]


def origin(console):
    """What a browser says of the console's own page."""
    return console.url.rstrip("/")


def test_other_names_for_this_machine_are_refused(console):
    port = urlsplit(console.url).port
    for host in ("evil.example", f"evil.example:{port}", "127.0.0.1.evil.example", "", "[::1]",
                 f"127.0.0.1@evil.example:{port}"):
        status, _, text = ask(console, Host=host)
        assert status in (400, 403), host
        assert "doctype" not in text
    assert ask(console, Host=f"localhost:{port}")[0] == 200
    assert ask(console, Host="127.0.0.1:9000")[0] == 200, "a forwarded port"
    assert upgrade(console, Host="evil.example", Origin="http://evil.example") == 403


def test_other_sites_pages_are_refused(console):
    port = urlsplit(console.url).port
    for strange in ("http://evil.example", "null", f"http://127.0.0.1:{port + 1}",
                    f"https://127.0.0.1:{port}", f"http://localhost:{port}"):
        assert upgrade(console, Origin=strange) == 403, strange
        assert ask(console, "/api/state", Origin=strange)[0] == 403, strange
    assert upgrade(console) == 403, "a websocket of no page"
    assert ask(console, "/api/state", Sec_Fetch_Site="cross-site")[0] == 403
    assert ask(console, "/api/state", Sec_Fetch_Site="same-origin")[0] == 200
    assert upgrade(console, Origin=origin(console)) == 101
    for method in ("POST", "PUT", "DELETE", "OPTIONS"):
        assert ask(console, "/api/state", method)[0] == 403, method
        assert ask(console, "/api/state", method, Origin=origin(console))[0] == 405, method


def test_other_users_of_the_machine_are_refused(console):
    script = ("import urllib.request, urllib.error\n"
              f"try: print(urllib.request.urlopen('{console.url}').status)\n"
              "except urllib.error.HTTPError as error: print(error.code, error.read().decode())")
    done = subprocess.run([PYTHON, "-c", script], user=NOBODY, group=NOBODY, extra_groups=[],
                          capture_output=True, text=True, check=True, timeout=30, cwd="/")
    assert done.stdout.startswith("403 This console answers to root")
    done = subprocess.run([PYTHON, "-c", script], capture_output=True, text=True, check=True,
                          timeout=30, cwd="/")
    assert done.stdout == "200\n"


def test_the_page_may_load_nothing_from_elsewhere(console):
    for path in ("/", "/js/main.js", "/base.css", "/api/state", "/api/protocol",
                 "/charts/chart.mjs"):
        status, headers, _ = ask(console, path)
        policy = headers["Content-Security-Policy"]
        assert status == 200 and "default-src 'none'" in policy, path
        assert "unsafe" not in policy and "script-src 'self';" in policy
        assert headers["X-Content-Type-Options"] == "nosniff"
    for path in ("/nothing.js", "/../server.py", "/js/../../server.py", "/%2e%2e/server.py",
                 "/charts/../../../../etc/passwd", "/charts//etc/passwd", "/js", "/__init__.py",
                 "/api/messages/999999", "/api/messages/x"):
        status, headers, text = ask(console, path)
        assert status == 404, path
        assert "import" not in text and headers["X-Content-Type-Options"] == "nosniff"
    assert ask(console, "/api/messages?before=x")[0] == 400
    assert ask(console, f"/api/messages?before={10 ** 30}&limit=-1")[0] == 200
    assert ask(console, "/live")[0] == 400, "no websocket"


async def talk(console, *wishes, answers):
    """What comes back for texts sent to the websocket, but for what happens meanwhile."""
    found = []
    async with aiohttp.ClientSession() as session:
        async with session.ws_connect(f"{console.url}live", headers={"Origin": origin(console)},
                                      max_msg_size=0) as page:
            for wish in wishes:
                await page.send_str(wish if isinstance(wish, str) else json.dumps(wish))
            while len(found) < answers:
                message = await asyncio.wait_for(page.receive_json(), 10)
                if message["kind"] not in ("hello", "live", "told"):
                    found.append(message)
    return found


def test_what_is_not_understood_is_said(console):
    for wish in ("x", "[]", "5", "{}", '{"do": "run"}', '{"do": "run", "id": "x"}', '{"do": "fly"}',
                 "[" * 100_000, '{"do": ["run"]}'):
        (answer,) = asyncio.run(talk(console, wish, answers=1))
        assert answer["kind"] == "error" and "not understood" in answer["text"], wish[:20]
    for wish in ({"command": "no"}, {}, {"command": ["locate"]}, {"command": "locate",
                 "arguments": {"x": 1}}, {"command": "status"}, {"command": "locate",
                 "arguments": []}, {"command": "locate", "arguments": {"desk": 1}}):
        (answer,) = asyncio.run(talk(console, {"do": "run", "id": 7, **wish}, answers=1))
        assert (answer["kind"], answer["id"], answer["outcome"]) == ("end", 7, "refused"), wish
    for wish in ({"command": "log", "arguments": {"text": 5}},
                 {"command": "faults", "timeout": "x"}, {"command": "send", "arguments": {"text": []}},
                 {"command": "fault-begin", "arguments": {"name": "no"}}):
        (answer,) = asyncio.run(talk(console, {"do": "run", "id": 1, **wish}, answers=1))
        assert answer["outcome"] in ("failed", "done"), wish


def test_a_command_can_be_cancelled_and_ends_with_its_page(console, lab):
    run = {"do": "run", "id": 1, "command": "watch"}
    assert asyncio.run(talk(console, run, {**run}, answers=1))[0]["text"] == "too many commands at once"
    (end,) = asyncio.run(talk(console, {"do": "cancel", "id": 1}, run, {"do": "cancel", "id": 1},
                              answers=1))
    assert (end["id"], end["outcome"]) == (1, "cancelled")
    listeners = len(lab.journal._listeners)
    (end,) = asyncio.run(talk(console, run, {"do": "run", "id": 2, "command": "faults"}, answers=1))
    assert end["id"] == 2
    lab.world.wait(asyncio.sleep(0))
    assert len(lab.journal._listeners) == listeners, "the first one goes on without its page"


def test_the_next_free_port_is_taken(lab):
    with Console(lab, 0) as first:
        port = urlsplit(first.url).port
        with Console(lab, port) as second:
            assert urlsplit(second.url).port > port
            assert ask(second)[0] == 200
    with pytest.raises(ConnectionRefusedError):
        ask(first)


def test_the_running_lab_shows_the_address(binary):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        port = taken.getsockname()[1]
        lab = subprocess.Popen([PYTHON, "-m", "lab.run", "--agent", str(binary), "--console",
                                str(port)], cwd=REPOSITORY, stdout=subprocess.PIPE, text=True)
        try:
            line = next(line for line in lab.stdout if line.startswith("console: "))
            url = line.removeprefix("console: ").strip()
            assert url.startswith("http://127.0.0.1:") and int(urlsplit(url).port) > port
            with urllib.request.urlopen(url) as answer:
                assert b"<title>Orvanta console</title>" in answer.read()
        finally:
            lab.send_signal(signal.SIGINT)
            assert lab.wait(30) == 0
            lab.stdout.close()


def test_a_page_that_does_not_read_costs_a_bounded_amount(console, lab):
    async def sleepy():
        async with aiohttp.ClientSession() as session:
            async with session.ws_connect(f"{console.url}live", headers={"Origin": origin(console)},
                                          max_msg_size=0) as page:
                await page.receive_json()
                await page.send_json({"do": "follow", "topics": ["log"]})
                await page.receive_json()
                for number in range(20_000):
                    lab.journal.note("log", line=f"{number} " + "x" * 2000, message="x")
                lab.world.call(lambda: None)
                missed = 0
                while not missed:
                    missed = (await asyncio.wait_for(page.receive_json(), 10))["missed"]
                return missed
    assert asyncio.run(sleepy()) > 0, "what it is told, when it reads again"
