"""Which servers the agent trusts."""

import pytest
from expect import CLOUD, CONTROLLER, FASTER, STATIC_URL

from lab.onboarding import redirect

ALLOW_ALL = "/mnt/flash/config/ALLOW_ALL"
REFUSED = "SSL_connect Not successful"


def leaf(lab, *names, **how):
    """A certificate of the lab's authority."""
    return lab.authority.leaf(list(names) or [CLOUD, CONTROLLER], **how)


@pytest.mark.parametrize("names, how", [
    (["*.orvanta.example", CONTROLLER], {}),
    ([CLOUD.upper()], {}),
    ([CLOUD], {"san": False}),
    ([CLOUD], {"valid_from": 100, "valid_to": 200})])
def test_good_certificates_of_the_onboarding_service(lab, start, names, how):
    lab.onboarding.certificates.use(leaf(lab, *names, **how))
    start()
    lab.wait_registered()
    lab.log.wait("Server cert validation is enabled")
    lab.log.wait(f"https server '{CLOUD}' has this certificate, which looks good to me:")


@pytest.mark.parametrize("names, how, complaint", [
    (["other.example"], {}, f"Got 'MatchNotFound' for hostname '{CLOUD}'"),
    (["other.example"], {"common_name": CLOUD}, f"Got 'MatchNotFound' for hostname '{CLOUD}'"),
    (["*.example"], {}, f"Got 'MatchNotFound' for hostname '{CLOUD}'"),
    (["other.example"], {"san": False}, f"Got 'MatchNotFound' for hostname '{CLOUD}'"),
    (["other.example"], {"valid_from": 100, "valid_to": 200},
     f"Got 'MatchNotFound' for hostname '{CLOUD}'"),
    ([CLOUD], {"self_signed": True}, "Server certificated validation failed errno = 18"),
    ([CLOUD], {"self_signed": True, "valid_from": 100, "valid_to": 200},
     "Server certificated validation failed errno = "),
    ([CLOUD], {"valid_from": -20, "valid_to": -10},
     "Server certificated validation failed errno = 10")])
def test_bad_certificates_of_the_onboarding_service(lab, start, names, how, complaint):
    lab.onboarding.certificates.use(leaf(lab, *names, **how))
    start(faketime=FASTER)
    lab.log.wait(complaint)
    lab.log.wait(REFUSED)
    assert not lab.onboarding.requests()
    lab.onboarding.certificates.use(leaf(lab))
    lab.wait_registered()


def test_a_forged_chain_is_refused_while_the_clock_is_unset(lab, start):
    forger = type(lab.authority)()  # the same names, another key
    lab.onboarding.certificates.use(forger.leaf([CLOUD], valid_from=100, valid_to=200))
    start(faketime=FASTER)
    lab.log.wait("Server certificated validation failed errno = ")
    lab.log.wait(REFUSED)
    assert not lab.onboarding.requests()


def test_the_marker_turns_the_check_off(lab, start):
    lab.device.write_text(ALLOW_ALL, "")
    bad = leaf(lab, "other.example", self_signed=True)
    lab.onboarding.certificates.use(bad)
    lab.controller.certificates.use(bad)
    start()
    lab.wait_registered()
    lab.log.wait("Server cert validation is turned off")


def test_a_bad_certificate_of_the_controller(lab, start):
    lab.controller.certificates.use(leaf(lab, "other.example"))
    start(faketime=FASTER)
    lab.log.wait(f"Got 'MatchNotFound' for hostname '{CONTROLLER}'")
    lab.log.wait("LWS_CALLBACK_CLIENT_CONNECTION_ERROR")
    assert not lab.controller.connections
    lab.controller.certificates.use(leaf(lab))
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1


def test_a_controller_on_the_premises_is_not_checked(lab, start):
    lab.names.add("onprem.example")
    lab.device.write_text(STATIC_URL, "onprem.example")
    bad = leaf(lab, "whatever", self_signed=True, valid_from=-20, valid_to=-10)
    lab.onboarding.certificates.use(bad)
    lab.controller.certificates.use(bad)
    lab.onboarding.reply = redirect("https://onprem.example:8443/ws")
    start()
    lab.wait_registered()
    lab.log.wait("Non-velmora/cloud Orvanta URL [https://onprem.example:8443/ws], "
                 "disabling Server Cert check")
