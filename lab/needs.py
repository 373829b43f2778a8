"""Says exactly what the lab is missing on this machine and how to get it."""

import importlib.util
import shutil

_PROGRAMS = {"ip": "iproute2", "tc": "iproute2", "openssl": "openssl", "dnsmasq": "dnsmasq-base",
             "busybox": "busybox"}
_MODULES = {
    "aiohttp": "python3-aiohttp",
    "cryptography": "python3-cryptography",
    "jsonschema": "python3-jsonschema",
}
_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"


def missing() -> list[str]:
    """The Debian packages that have to be installed first, in the order of their names."""
    packages = {package for name, package in _PROGRAMS.items()
                if shutil.which(name, path=_PATH) is None}
    packages |= {package for name, package in _MODULES.items()
                 if importlib.util.find_spec(name) is None}
    return sorted(packages)


def complaint() -> str:
    """One line for the user, or an empty text when everything is there."""
    packages = missing()
    if not packages:
        return ""
    return ("lab: not everything it needs is installed; get it with: apt-get install "
            + " ".join(packages) + " (and run it with /usr/bin/python3)")
