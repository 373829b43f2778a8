"""The files that make up the page, and the charting library of the distribution."""

from pathlib import Path
from typing import Optional

from aiohttp import web

STATIC = Path(__file__).resolve().parent / "static"
CHARTS = Path("/usr/share/javascript/chart.js")
"""Debian's package libjs-chart.js; without it the page shows numbers only."""
_TYPES = {".html": "text/html", ".css": "text/css", ".js": "text/javascript",
          ".mjs": "text/javascript", ".svg": "image/svg+xml"}


def find(folder: Path, name: str) -> Optional[tuple[Path, str]]:
    """A file below the folder and its kind, if that is known; a link may not lead out of it."""
    path = (folder / name).resolve()
    kind = _TYPES.get(path.suffix)
    if kind is None or not path.is_relative_to(folder.resolve()) or not path.is_file():
        return None
    return path, kind


def _serve(folder: Path, name: str) -> web.StreamResponse:
    found = find(folder, name)
    if found is None:
        raise web.HTTPNotFound(text="there is no such page here\n")
    path, kind = found
    return web.FileResponse(path, headers={"Content-Type": f"{kind}; charset=utf-8"})


async def page(request: web.Request) -> web.StreamResponse:
    """A file of the page; the address alone is its first one."""
    return _serve(STATIC, request.match_info["name"] or "index.html")


async def charts(request: web.Request) -> web.StreamResponse:
    """A file of the charting library."""
    return _serve(CHARTS, request.match_info["name"])
