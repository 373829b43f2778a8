"""What the network says by DHCP changes under a running agent, which follows it."""

from expect import CLOUD, DEVICE_ID, FASTER, fence, onboarding_request

OPTION_43, OPTION_15 = "onprem.example", "orvanta.branch.example"


def moved(lab, asked):
    """The agent said goodbye, asked this host as a device that is known, and is registered."""
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_CFG_UPDATE")
    assert lab.onboarding.wait_request()["text"] == onboarding_request(asked, cookie=DEVICE_ID)
    lab.wait_registered()
    assert lab.controller.current.number == closed.number + 1
    fence(lab)
    assert lab.supervisor.starts == 1


def test_renewals_move_a_running_agent(lab, start):
    """Through every source that the network can name, and back to the cloud."""
    for name in (OPTION_43, OPTION_15, "orvanta.other.example"):
        lab.names.add(name)
    lab.dhcp.offer(domain="branch.example")
    lab.dhcp.connect()
    start()
    lab.wait_registered()
    assert lab.onboarding.wait_request()["text"] == onboarding_request(OPTION_15)
    for offered, asked in (({"domain": "other.example"}, "orvanta.other.example"),
                           ({"url": f"https://{OPTION_43}", "domain": "other.example"}, OPTION_43),
                           ({"domain": "branch.example"}, OPTION_15), ({}, CLOUD)):
        lab.dhcp.offer(**offered)
        lab.dhcp.renew()
        moved(lab, asked)
    assert len(lab.onboarding.requests()) == len(lab.controller.connections) == 5


def test_a_lease_that_is_lost_and_comes_back(lab, start):
    """Without a lease the device knows neither controller nor network; with it, both again."""
    lab.names.add(OPTION_15)
    lab.dhcp.offer(domain="branch.example")
    lab.dhcp.connect()
    start(faketime=FASTER)
    lab.wait_registered()
    lab.dhcp.release()
    lab.log.wait(f"Not able to resolve  {CLOUD} ", timeout=30)
    assert not any("Missed 5 consecutive PONGS" in line for line in lab.log.lines()), "too late"
    lab.dhcp.renew()
    lab.wait_registered()
    assert lab.onboarding.requests() == [
        onboarding_request(OPTION_15), onboarding_request(OPTION_15, cookie=DEVICE_ID)]
    fence(lab)
    assert lab.supervisor.starts == 1
