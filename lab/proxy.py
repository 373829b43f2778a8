"""A reverse proxy in front of the controller: the real nginx or HAProxy, which ends TLS.

It listens at port 8445 of the world and hands everything to the controller's plain port. Send the
agent here with an onboarding reply that names `URL`. Configuration and logs are files in a folder
of the lab, and the proxy lives in a process namespace that dies with the lab however it ends.
"""

import os
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path
from typing import Optional

from lab import controller, linux, names, network
from lab.authority import Leaf
from lab.world import World

PORT = 8445
URL = f"https://{names.CONTROLLER_HOST}:{PORT}/ws"
KINDS = ("nginx", "haproxy")
_PATH = "/usr/sbin:/usr/local/sbin:/usr/bin"
_START_SECONDS = 10.0

_NGINX = """\
user root;
daemon off;
worker_processes 1;
pid {folder}/pid;
error_log {folder}/log info;
events {{}}
http {{
    access_log {folder}/access;
    client_body_temp_path {folder}/temp;
    proxy_temp_path {folder}/temp;
    fastcgi_temp_path {folder}/temp;
    uwsgi_temp_path {folder}/temp;
    scgi_temp_path {folder}/temp;
    server {{
        listen {address}:{port} ssl;
        ssl_certificate {folder}/leaf.pem;
        ssl_certificate_key {folder}/leaf.pem;
        location / {{
            proxy_pass http://127.0.0.1:{backend};
            proxy_http_version 1.1;
            proxy_set_header Upgrade $http_upgrade;
            proxy_set_header Connection "upgrade";
            proxy_set_header Host $host;
            proxy_set_header X-Forwarded-For $remote_addr;
            proxy_connect_timeout 2s;
            proxy_read_timeout {idle}ms;
            proxy_send_timeout {idle}ms;
        }}
    }}
}}
"""

_HAPROXY = """\
global
    log stdout format raw local0
defaults
    mode http
    log global
    option httplog
    option forwardfor
    timeout connect 2s
    timeout client 10s
    timeout server 10s
    timeout tunnel {idle}ms
    retries 0
frontend world
    bind {address}:{port} ssl crt {folder}/leaf.pem
    default_backend controller
backend controller
    server controller 127.0.0.1:{backend}
"""


class Proxy:
    """One proxy. Start it, reload it, kill it; `stop` takes all of it away again."""

    def __init__(self, world: World, folder: Path, leaf: Leaf, kind: str) -> None:
        """`kind` is one of `KINDS`; its files go into `folder`, which is made."""
        self.kind = kind
        self._world = world
        self._folder = folder
        self._leaf = leaf
        self._process: Optional[subprocess.Popen] = None
        program = shutil.which(kind, path=_PATH)
        if program is None:
            raise FileNotFoundError(f"{kind} is missing; get it with: apt-get install {kind}")
        self._program = program

    # -- life -------------------------------------------------------------------------------

    def start(self, idle: float = 600.0) -> None:
        """Listens when this returns. A connection without a byte for `idle` seconds is closed."""
        self._folder.mkdir(exist_ok=True)
        leaf = self._folder / "leaf.pem"
        leaf.touch(0o600)
        leaf.write_text(self._leaf.certificate + self._leaf.key, encoding="ascii")
        template = _NGINX if self.kind == "nginx" else _HAPROXY
        config = self._folder / "config"
        config.write_text(template.format(
            folder=self._folder, address=network.WORLD_ADDRESS, port=PORT,
            backend=controller.PLAIN_PORT, idle=round(idle * 1000)), encoding="utf-8")
        if self.kind == "nginx":
            argv = [self._program, "-e", str(self._folder / "log"), "-c", str(config)]
        else:
            argv = [self._program, "-W", "-f", str(config)]
        self._world.call(self._launch, argv)
        self._await(self._answers, "listen")

    def _launch(self, argv: list[str]) -> None:
        """Runs in the world's thread, so that the proxy lives in the world's network.

        The proxy is process 1 of a namespace of its own: its workers end with it, and it ends
        with `unshare`, which ends with the lab.
        """
        with open(self._folder / "out", "ab") as output:
            self._process = subprocess.Popen(
                ["unshare", "--pid", "--fork", "--kill-child", "--", *argv],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, cwd=self._folder,
                start_new_session=True, preexec_fn=lambda: linux.die_with_parent(signal.SIGKILL))

    def stop(self) -> None:
        """Kills the proxy with all its workers and removes its files; harmless when stopped."""
        self.kill()
        shutil.rmtree(self._folder, ignore_errors=True)

    def kill(self) -> None:
        """Ends it at once, as a crash would: connections are cut, nothing is told to anybody."""
        if self._process is not None:
            self._process.kill()
            self._process.wait()
            self._process = None
            self._await(lambda: not self._answers(), "be gone")

    def reload(self) -> None:
        """The graceful way to a new configuration: new workers take new connections.

        Returns when they do. The old ones keep the connections they have (see `retire`).
        """
        before = self.workers()
        master = self._master()
        os.kill(master, signal.SIGHUP if self.kind == "nginx" else signal.SIGUSR2)
        self._await(lambda: bool(set(self.workers()) - set(before)) and self._answers(), "reload")

    def retire(self, workers: list[int]) -> None:
        """Ends those workers that an earlier reload has replaced, with their connections."""
        for worker in workers:
            os.kill(worker, signal.SIGTERM)
        self._await(lambda: not set(workers) & set(self.workers()), "let old workers go")

    # -- what is running --------------------------------------------------------------------

    @staticmethod
    def _children(pid: int) -> list[int]:
        try:
            text = Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii")
        except FileNotFoundError:
            return []
        return [int(word) for word in text.split()]

    def _master(self) -> int:
        assert self._process is not None, f"{self.kind} is not running"
        return self._children(self._process.pid)[0]

    def workers(self) -> list[int]:
        """The processes that serve connections, as the host numbers them."""
        return self._children(self._master())

    @staticmethod
    def _connects() -> bool:
        with socket.socket() as probe:
            probe.settimeout(1.0)
            return probe.connect_ex((network.WORLD_ADDRESS, PORT)) == 0

    def _answers(self) -> bool:
        return self._world.call(self._connects)

    def _await(self, condition, what: str) -> None:
        deadline = time.monotonic() + _START_SECONDS
        while not condition():
            ended = self._process is not None and self._process.poll() is not None
            if ended or time.monotonic() > deadline:
                raise AssertionError(f"{self.kind} did not {what}; it said:\n{self.output()}")
            time.sleep(0.02)

    def output(self) -> str:
        """What the proxy has logged so far."""
        found = [self._folder / name for name in ("out", "log", "access")]
        return "".join(path.read_text(encoding="utf-8", errors="replace")
                       for path in found if path.exists())
