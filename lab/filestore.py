"""The world's file store: a real nginx that serves files over HTTPS and takes uploads by PUT.

    lab.files.start()                                    # nothing listens before
    url = lab.files.serve("fw-4.3.0.img", data)          # bytes, or the path of a file
    lab.files.url("absent.img")                          # any other URL below "/images/"
    lab.files.url("fw-4.3.0.img", rate="200k")           # so many bytes a second
    lab.files.upload_url("support.tar.gz")               # a PUT to it is kept ...
    lab.files.uploaded("support.tar.gz")                 # ... and read here; None while there is none
    lab.files.requests("fw-4.3.0.img")                   # who asked, and what they got
    lab.files.stop()                                     # done by the lab, too

It is "files.cloud.orvanta.example", port 8446, with a certificate of the lab's authority. Images
have ranges, strong ETags and modification times, as nginx gives them; an upload to "/uploads/"
needs no permission: the URL stands for a pre-signed one.
"""

import json
import shutil
import urllib.parse
from pathlib import Path
from typing import Any, Optional, Union

from lab import network
from lab.authority import Authority
from lab.names import Names
from lab.realserver import RealServer
from lab.world import World

HOST = "files.cloud.orvanta.example"
PORT = 8446

_CONFIG = """\
user root;
daemon off;
worker_processes 1;
pid {folder}/pid;
error_log {folder}/log info;
events {{}}
http {{
    log_format facts escape=json '{{"method": "$request_method", "path": "$uri", "status": $status, '
        '"sent": $body_bytes_sent, "received": $request_length, "range": "$http_range", '
        '"ifRange": "$http_if_range", "type": "$content_type", "length": "$content_length", '
        '"query": "$args", "userAgent": "$http_user_agent"}}';
    access_log {folder}/access facts;
    client_body_temp_path {folder}/temp;
    proxy_temp_path {folder}/temp;
    fastcgi_temp_path {folder}/temp;
    uwsgi_temp_path {folder}/temp;
    scgi_temp_path {folder}/temp;
    default_type application/octet-stream;
    server {{
        listen {address}:{port} ssl;
        ssl_certificate {folder}/leaf.pem;
        ssl_certificate_key {folder}/leaf.pem;
        client_max_body_size 0;
        location /images/ {{
            alias {folder}/images/;
            limit_rate $arg_rate;
            limit_except GET {{ deny all; }}
        }}
        location /uploads/ {{
            alias {folder}/uploads/;
            dav_methods PUT;
            limit_except PUT {{ deny all; }}
        }}
    }}
}}
"""


class FileStore:
    """One file store. It is started by whoever needs it."""

    def __init__(self, world: World, names: Names, authority: Authority, folder: Path) -> None:
        """Its files go into `folder`, which is made when it starts."""
        self._world = world
        self._names = names
        self._authority = authority
        self._folder = folder
        self._server: Optional[RealServer] = None

    def start(self) -> None:
        """Listens when this returns; harmless when it does already."""
        if self._server is not None and self._server.running:
            return
        self._server = RealServer(self._world, self._folder, "nginx", PORT)
        config = self._server.prepare(self._authority.leaf([HOST]), _CONFIG.format(
            folder=self._folder, address=network.WORLD_ADDRESS, port=PORT))
        for name in ("images", "uploads"):
            (self._folder / name).mkdir(exist_ok=True)
        self._names.add(HOST)
        self._server.start("-e", str(self._folder / "log"), "-c", str(config))

    def kill(self) -> None:
        """Ends it at once; connections are cut. `start` brings it back with all its files."""
        if self._server is not None:
            self._server.kill()

    def stop(self) -> None:
        """Ends it and removes its files; harmless when stopped."""
        if self._server is not None:
            self._server.stop()
            self._server = None

    # -- files ------------------------------------------------------------------------------

    def serve(self, name: str, content: Union[bytes, Path]) -> str:
        """Offers these bytes, or this file, under a plain name, in place of what had the name;
        returns the URL. The file is there whole from one moment to the next."""
        assert "/" not in name, name
        path = self._folder / "images" / name
        fresh = path.with_name(f".{name}.new")
        if isinstance(content, Path):
            shutil.copyfile(content, fresh)
        else:
            fresh.write_bytes(content)
        fresh.rename(path)
        return self.url(name)

    def withdraw(self, name: str) -> None:
        """Offers the file no more: the answer is 404 from now on."""
        (self._folder / "images" / name).unlink()

    def url(self, name: str, rate: str = "") -> str:
        """Where a file is, or would be; `rate` ("200k") limits the bytes a second."""
        query = f"?rate={rate}" if rate else ""
        return f"https://{HOST}:{PORT}/images/{urllib.parse.quote(name)}{query}"

    def upload_url(self, name: str) -> str:
        """A URL that a file can be PUT to."""
        signature = "X-Signature=5f2c91&X-Expires=900"
        return f"https://{HOST}:{PORT}/uploads/{urllib.parse.quote(name)}?{signature}"

    def uploaded(self, name: str) -> Optional[bytes]:
        """What was PUT under this name, whole; None while there is nothing."""
        path = self.uploaded_path(name)
        return path.read_bytes() if path.exists() else None

    def uploaded_path(self, name: str) -> Path:
        """The host's file that holds it, or will."""
        return self._folder / "uploads" / name

    # -- what happened ----------------------------------------------------------------------

    def requests(self, name: str = "") -> list[dict[str, Any]]:
        """The requests that have been answered, oldest first: "method", "path", "status", "sent",
        "received", "range", "ifRange", "type", "length", "query", "userAgent". With a name, those
        for it alone. nginx notes a request when it is over."""
        try:
            lines = (self._folder / "access").read_text(encoding="utf-8").splitlines()
        except FileNotFoundError:
            return []
        found = [json.loads(line) for line in lines]
        return [one for one in found if not name or one["path"].endswith("/" + name)]

    def output(self) -> str:
        """What the server has logged so far."""
        return self._server.output() if self._server is not None else ""
