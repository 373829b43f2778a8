"""What the agent makes of the controller's answers to REGISTER, and of none."""

from expect import FASTER, fence, register_text, seconds_between

from lab.controller import Refusal, Silence


def test_a_refused_device_asks_again_after_ten_seconds(start):
    lab = start()
    lab.controller.next_answers = [Refusal("DeviceNotFound", "not one of ours")]
    first = lab.controller.wait_message_event(100, timeout=30)
    second = lab.controller.wait_message_event(100, timeout=30)
    assert second["text"] == first["text"]
    assert second["connection"] is first["connection"]
    lab.log.wait("Registration failed with Orvanta code DeviceNotFound msg not one of ours")
    lab.wait_registered()
    refused = lab.log.wait("MSG_REGISTER_FAILED received")
    lab.log.wait("Sending REGISTER request")
    again = lab.log.wait("Sending REGISTER request")
    assert 10 <= seconds_between(refused, again) <= 13


def test_a_refusal_without_texts_is_survived(start):
    lab = start()
    lab.controller.next_answers = [Silence()]
    lab.controller.wait_message(100, timeout=30)
    lab.controller.send({"msgType": 700})
    lab.log.wait("Registration failed with Orvanta code")
    lab.controller.wait_message(100, timeout=30)
    lab.wait_registered()
    assert not lab.controller.messages(700)


def test_no_answer_closes_the_connection_after_a_minute(start):
    lab = start(faketime=FASTER)
    lab.controller.next_answers = [Silence()]
    lab.controller.wait_message(100, timeout=30)
    closed = lab.controller.wait_closed()
    assert (closed.close_code, closed.close_reason) == (1000, "DEV_REG_TIMEOUT")
    assert len(lab.controller.messages(100)) == 1
    sent = lab.log.wait("Sending REGISTER request")
    given_up = lab.log.wait("No REGISTER response received, closing websocket")
    assert 61 <= seconds_between(sent, given_up) <= 66
    lab.wait_registered()
    assert fence(lab)["lastCloseReason"] == "DEV_REG_TIMEOUT"


def test_a_late_acceptance_counts(start):
    lab = start()
    lab.controller.next_answers = [Silence()]
    message = lab.controller.wait_message_event(100, timeout=30)
    assert message["text"] == register_text(message["message"]["sessId"])
    lab.controller.send({"msgType": 400})
    lab.wait_registered()
    assert lab.status() == "Device Approval Pending"


def test_a_lost_registration_is_renewed_with_the_same_session(online):
    lab = online
    first = lab.controller.wait_message(100)
    lab.controller.kill()
    second = lab.controller.wait_message(100, timeout=30)
    assert second["sessId"] == first["sessId"]


def test_a_deleted_session_gets_a_new_number(online):
    lab = online
    first = lab.controller.wait_message(100)
    lab.device.unlink("/tmp/session_id")
    lab.controller.kill()
    second = lab.controller.wait_message(100, timeout=30)
    assert second["sessId"] != first["sessId"]
    assert lab.device.read_text("/tmp/session_id") == str(second["sessId"])
