"""Which servers the agent trusts, on both of its TLS connections: onboarding and websocket."""

from dataclasses import dataclass
from typing import Optional

import pytest
from expect import CLOUD, CONTROLLER, FASTER, STATIC_URL

from lab.authority import Authority, Leaf
from lab.lab import Lab
from lab.onboarding import redirect

ALLOW_ALL = "/mnt/flash/config/ALLOW_ALL"
UNSET_CLOCK = {"valid_from": 100, "valid_to": 200}
EXPIRED = {"valid_from": -20, "valid_to": -10}
FAILED = "Server certificated validation failed errno = "


@dataclass
class Server:
    """One of the two servers whose certificate the agent sees; the other one's is good."""

    lab: Lab
    kind: str

    @property
    def host(self) -> str:
        """The name under which the agent knows it."""
        return CLOUD if self.kind == "onboarding" else CONTROLLER

    def leaf(self, *names: str, authority: Optional[Authority] = None, **how: object) -> Leaf:
        """A certificate; in a name HOST, FIRST and REST stand for the host and its parts."""
        first, rest = self.host.split(".", 1)
        filled = [name.replace("HOST", self.host).replace("FIRST", first).replace("REST", rest)
                  .replace("START", first[:3]).replace("END", first[-1:]) for name in names]
        if how.get("common_name"):
            how["common_name"] = str(how["common_name"]).replace("HOST", self.host)
        return (authority or self.lab.authority).leaf(filled, **how)

    def show(self, *names: str, **how: object) -> None:
        """Shows this certificate from the next connection on."""
        part = self.lab.onboarding if self.kind == "onboarding" else self.lab.controller
        part.certificates.use(self.leaf(*names, **how))

    def wait_refused(self) -> None:
        """Waits until the agent has turned away; nothing has been said to the server."""
        if self.kind == "onboarding":
            self.lab.log.wait("SSL_connect Not successful")
            assert not self.lab.onboarding.requests()
        else:
            self.lab.log.wait("LWS_CALLBACK_CLIENT_CONNECTION_ERROR")
            assert not self.lab.controller.connections


@pytest.fixture(params=["onboarding", "controller"])
def server(lab, request):
    """Each of the two servers."""
    return Server(lab, request.param)


@pytest.mark.parametrize("names, how", [
    (["HOST"], {}),
    (["*.REST"], {}),
    (["*.REST", "other.example"], {}),
    (["START*.REST"], {}),
    (["*END.REST"], {}),
    (["START*END.REST"], {}),
    (["other.example", "HOST"], {"common_name": "other.example"}),
    ([CLOUD.upper(), CONTROLLER.upper()], {}),
    (["HOST"], {"san": False}),
    (["*.REST"], {"san": False}),
    (["HOST"], UNSET_CLOCK),
    (["*.REST"], UNSET_CLOCK)])
def test_good_certificates(lab, start, server, names, how):
    server.show(*names, **how)
    start()
    lab.wait_registered()
    lab.log.wait("Server cert validation is enabled")
    lab.log.wait(f"https server '{server.host}' has this certificate, which looks good to me:")
    if how is UNSET_CLOCK:
        lab.log.wait(FAILED + "9")
        lab.log.wait("Certificate is not yet valid, check the certificate host name ")


MISMATCH = "Got 'MatchNotFound' for hostname "


@pytest.mark.parametrize("names, how, complaint", [
    (["other.example"], {}, MISMATCH),
    (["other.example"], {"common_name": "HOST"}, MISMATCH),
    (["x.HOST", "*.HOST"], {}, MISMATCH),
    (["*.example", "*.orvanta.example.", "*"], {}, MISMATCH),
    (["*.*.REST", "FIRST.*.example"], {}, MISMATCH),
    (["FIRST*.REST", "x*.REST", "*x.REST"], {}, MISMATCH),
    (["other.example"], {"san": False}, MISMATCH),
    (["*.other.example"], {"san": False}, MISMATCH),
    (["other.example"], UNSET_CLOCK, MISMATCH),
    (["HOST"], {"self_signed": True}, FAILED + "18"),
    (["HOST"], {"self_signed": True, **UNSET_CLOCK}, FAILED),
    (["HOST"], EXPIRED, FAILED + "10")])
def test_bad_certificates(lab, start, server, names, how, complaint):
    server.show(*names, **how)
    start(faketime=FASTER)
    lab.log.wait(f"{complaint}'{server.host}'" if complaint == MISMATCH else complaint)
    server.wait_refused()


def test_a_wildcard_stands_for_one_label(lab, start):
    server = Server(lab, "controller")
    server.show("*.orvanta.example", "*.example")
    start(faketime=FASTER)
    lab.log.wait(f"{MISMATCH}'{CONTROLLER}'")
    server.wait_refused()


@pytest.mark.parametrize("how", [UNSET_CLOCK, {}])
def test_a_forged_signature_is_refused_whatever_the_clock(lab, start, server, how):
    forger = Authority()  # the same names, another key
    server.show("HOST", authority=forger, **how)
    start(faketime=FASTER)
    lab.log.wait(FAILED)
    server.wait_refused()
    server.show("HOST")
    lab.wait_registered()  # it recovers


def test_the_marker_turns_the_check_off_as_long_as_it_is_there(lab, start):
    lab.device.write_text(ALLOW_ALL, "")
    for kind in ("onboarding", "controller"):
        Server(lab, kind).show("other.example", self_signed=True, **EXPIRED)
    start(faketime=FASTER)
    lab.wait_registered()
    lab.log.wait("Server cert validation is turned off")
    lab.device.unlink(ALLOW_ALL)
    lab.controller.kill()
    lab.log.wait(FAILED)
    lab.log.wait("SSL_connect Not successful")
    assert len(lab.onboarding.requests()) == 1


def test_a_bad_certificate_of_the_controller_costs_no_new_discovery(lab, start):
    server = Server(lab, "controller")
    server.show("other.example")
    start(faketime=FASTER)
    server.wait_refused()
    server.show("HOST")
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1


# -- on the premises ------------------------------------------------------------------------

ANYTHING = {"self_signed": True, **EXPIRED}
ONPREM = "onprem.example"
UNCHECKED = "Non-velmora/cloud Orvanta URL [{}], disabling Server Cert check"


@pytest.fixture
def premises(lab):
    """A lab with a name on the premises and certificates that nobody should trust."""
    lab.names.add(ONPREM)
    bad = lab.authority.leaf(["whatever"], **ANYTHING)
    lab.onboarding.certificates.use(bad)
    lab.controller.certificates.use(bad)
    return lab


def test_a_controller_on_the_premises_is_not_checked(premises, start):
    lab = premises
    lab.device.write_text(STATIC_URL, ONPREM)
    url = f"https://{ONPREM}:8443/ws"
    lab.onboarding.reply = redirect(url)
    start()
    lab.wait_registered()
    lab.log.wait(UNCHECKED.format(ONPREM))
    lab.log.wait(UNCHECKED.format(url))


def test_the_cloud_may_send_a_device_to_the_premises(premises, start):
    lab = premises
    Server(lab, "onboarding").show("HOST")
    url = f"https://{ONPREM}:8443/ws"
    lab.onboarding.reply = redirect(url)
    start()
    lab.wait_registered()
    lab.log.wait(f"https server '{CLOUD}' has this certificate, which looks good to me:")
    lab.log.wait(UNCHECKED.format(url))


def test_the_premises_may_send_a_device_to_the_cloud_which_is_checked(premises, start):
    lab = premises
    lab.device.write_text(STATIC_URL, ONPREM)
    start(faketime=FASTER)
    lab.log.wait(UNCHECKED.format(ONPREM))
    Server(lab, "controller").wait_refused()
    assert len(lab.onboarding.requests()) == 1
    Server(lab, "controller").show("HOST")
    lab.wait_registered()


# -- a controller that moves ----------------------------------------------------------------

def test_the_current_name_is_checked_although_the_context_is_older(lab, start):
    second = "controller-2.cloud.orvanta.example"
    lab.names.add(second)
    Server(lab, "controller").show("HOST")
    start(faketime=FASTER)
    lab.wait_registered()
    lab.log.wait(f"https server '{CONTROLLER}' has this certificate")
    lab.onboarding.reply = redirect(f"https://{second}:8443/ws")
    lab.controller.kill()
    lab.log.wait(f"{MISMATCH}'{second}'")  # it still shows the certificate of the first name
    lab.log.wait("LWS_CALLBACK_CLIENT_CONNECTION_ERROR")
    lab.controller.certificates.use(lab.authority.leaf([second]))
    lab.wait_registered()
    lab.log.wait(f"https server '{second}' has this certificate")
    lines = [event["message"] for event in lab.journal.events("log")]
    assert sum("LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS" in line
               for line in lines) == 1, "one context all the while"
