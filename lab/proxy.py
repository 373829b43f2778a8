"""A reverse proxy in front of the controller: the real nginx or HAProxy, which ends TLS.

It listens at port 8445 of the world and hands everything to the controller's plain port. Send the
agent here with an onboarding reply that names `URL`.
"""

import os
import signal
from pathlib import Path

from lab import controller, names, network
from lab.authority import Leaf
from lab.realserver import RealServer
from lab.world import World

PORT = 8445
URL = f"https://{names.CONTROLLER_HOST}:{PORT}/ws"
KINDS = ("nginx", "haproxy")

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
        self._leaf = leaf
        self._server = RealServer(world, folder, kind, PORT)

    def start(self, idle: float = 600.0) -> None:
        """Listens when this returns. A connection without a byte for `idle` seconds is closed."""
        template = _NGINX if self.kind == "nginx" else _HAPROXY
        folder = self._server.folder
        config = str(self._server.prepare(self._leaf, template.format(
            folder=folder, address=network.WORLD_ADDRESS, port=PORT,
            backend=controller.PLAIN_PORT, idle=round(idle * 1000))))
        if self.kind == "nginx":
            self._server.start("-e", str(folder / "log"), "-c", config)
        else:
            self._server.start("-W", "-f", config)

    def stop(self) -> None:
        """Kills the proxy with all its workers and removes its files; harmless when stopped."""
        self._server.stop()

    def kill(self) -> None:
        """Ends it at once, as a crash would: connections are cut, nothing is told to anybody."""
        self._server.kill()

    def reload(self) -> None:
        """The graceful way to a new configuration: new workers take new connections.

        Returns when they do. The old ones keep the connections they have (see `retire`).
        """
        before = self.workers()
        self._server.signal(signal.SIGHUP if self.kind == "nginx" else signal.SIGUSR2)
        self._server.wait_until(
            lambda: bool(set(self.workers()) - set(before)) and self._server.answers(), "reload")

    def retire(self, workers: list[int]) -> None:
        """Ends those workers that an earlier reload has replaced, with their connections."""
        for worker in workers:
            os.kill(worker, signal.SIGTERM)
        self._server.wait_until(lambda: not set(workers) & set(self.workers()),
                                "let old workers go")

    def workers(self) -> list[int]:
        """The processes that serve connections, as the host numbers them."""
        return self._server.workers()

    def output(self) -> str:
        """What the proxy has logged so far."""
        return self._server.output()
