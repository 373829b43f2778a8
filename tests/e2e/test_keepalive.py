"""Pings, pongs, and a controller that stops answering them."""

from expect import FASTER, agent_pid_inside, fence, seconds_between


def payload(pid, losses=0):
    """The agent's ping, byte for byte."""
    return (f'{{"Message":"ping from device agent", "Pid": "{pid}", '
            f'"PongLoss": "{losses}"}}').encode()


def test_the_ping_is_exact_and_comes_in_time(online):
    lab = online
    ping = lab.controller.wait_ping()
    assert ping["payload"] == payload(agent_pid_inside(lab))
    lab.log.wait("Received Pong message from Orvanta")
    lab.controller.wait_ping()
    established = lab.log.wait("LWS_CALLBACK_CLIENT_ESTABLISHED")
    first, second = lab.log.wait("ping call back"), lab.log.wait("ping call back")
    assert 15 <= seconds_between(established, first) <= 32
    assert 15 <= seconds_between(first, second) <= 32


def test_five_lost_pongs_end_the_connection(start):
    lab = start(faketime=FASTER)
    lab.controller.answer_pings = False
    lab.wait_registered()
    pid = agent_pid_inside(lab)
    losses = [lab.controller.wait_ping()["payload"] for _ in range(5)]
    assert losses == [payload(pid, count) for count in (0, 0, 1, 2, 3)]
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_PING_TIMEOUT")
    lab.log.wait("Missed 5 consecutive PONGS, disconnecting with server")
    assert len([e for e in lab.journal.events("ping") if e["connection"] is closed]) == 5, \
        "nothing follows the close frame, the ping of the last cycle neither"
    lab.controller.answer_pings = True
    lab.wait_registered()
    assert fence(lab)["lastCloseReason"] == "DEV_PING_TIMEOUT"


def test_a_late_pong_starts_the_count_afresh(start):
    lab = start(faketime=FASTER)
    lab.controller.answer_pings = False
    lab.wait_registered()
    pid = agent_pid_inside(lab)
    losses = [lab.controller.wait_ping()["payload"] for _ in range(4)]
    lab.controller.answer_pings = True
    losses += [lab.controller.wait_ping()["payload"] for _ in range(3)]
    assert losses == [payload(pid, count) for count in (0, 0, 1, 2, 3, 4, 0)]
    assert lab.controller.current.number == 1
