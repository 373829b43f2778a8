"""Keeps strangers out of the console: other sites' pages, other names for this machine, other users.

A page of any site can make a browser send requests to 127.0.0.1. What gives it away is the Host it
had to ask for (its own name, resolved to this machine) or the Origin that the browser adds.
"""

from collections.abc import Awaitable, Callable
from urllib.parse import urlsplit

from aiohttp import web

from lab.console.peer import Peers

_NAMES = ("127.0.0.1", "localhost")
_POLICY = {
    "default-src": "'none'", "script-src": "'self'", "style-src": "'self'",
    "img-src": "'self' data:", "connect-src": "'self' ws://{host}", "base-uri": "'none'",
    "form-action": "'none'", "frame-ancestors": "'none'", "require-trusted-types-for": "'script'",
    "trusted-types": "'none'",
}
_HEADERS = {
    "X-Content-Type-Options": "nosniff", "Referrer-Policy": "no-referrer",
    "Cross-Origin-Opener-Policy": "same-origin", "Cross-Origin-Resource-Policy": "same-origin",
    "Cache-Control": "no-cache",
}
_STRANGER = ("This console answers to root and to the user who started the lab. Open it as that "
             "user, or start the lab from your own login with sudo.")
Handler = Callable[[web.Request], Awaitable[web.StreamResponse]]


def _origin_fits(request: web.Request, needed: bool) -> bool:
    """Whether the page that asks is one of ours; a browser's own navigation names none."""
    origin = request.headers.get("Origin")
    if origin is None:
        return not needed and request.headers.get("Sec-Fetch-Site") in (None, "same-origin", "none")
    return origin == f"http://{request.headers['Host']}"


def complaint(request: web.Request, peers: Peers) -> str:
    """Why this request is refused; "" if it is not."""
    host = request.headers.get("Host", "")
    try:
        name = urlsplit(f"//{host}").hostname
    except ValueError:
        name = None
    if name not in _NAMES or host != host.strip("/ "):
        return f"this is not {host!r}: open the console by the address that the lab has shown"
    upgrade = request.headers.get("Upgrade", "").lower() == "websocket"
    if not _origin_fits(request, needed=upgrade or request.method not in ("GET", "HEAD")):
        return "another site's page may not use the console"
    if not peers.trusts(request.transport):
        return _STRANGER
    return ""


def make(peers: Peers) -> Callable[[web.Request, Handler], Awaitable[web.StreamResponse]]:
    """The middleware."""
    @web.middleware
    async def guard(request: web.Request, handler: Handler) -> web.StreamResponse:
        refused = complaint(request, peers)
        if refused:
            return web.Response(status=403, text=refused + "\n", headers=_HEADERS)
        try:
            response = await handler(request)
        except web.HTTPException as error:
            error.headers.update(_HEADERS)
            raise
        if not response.prepared:
            policy = "; ".join(f"{name} {value}" for name, value in _POLICY.items())
            response.headers.update(_HEADERS)
            response.headers["Content-Security-Policy"] = policy.format(
                host=request.headers["Host"])
        return response
    return guard
