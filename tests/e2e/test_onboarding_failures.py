"""Every way in which the onboarding can fail: what is told of it, and that the device recovers."""

import asyncio
import contextlib
import json

import pytest
from expect import CLOUD, FASTER, board, seconds_between

from lab import network
from lab.onboarding import Reply, not_found

TOKEN = "/mnt/flash/config/velmora_id"
FAILED = "Unable to discover Orvanta URL (re-discover in"
NO_END = "Not able to find end of headers, even after 10 reads, so exiting"
NOWHERE = "10.77.0.77"
HEAD = len(Reply().render()) - len(Reply().body)
MESSAGE = json.dumps({"error": {"message": "Licence expired"}}).encode()


def test_without_credentials_until_a_token_comes(lab, start):
    board(lab, serialNumber=None)
    start(faketime=FASTER)
    lab.log.wait("Required on-boarding credentials not configured, cannot attempt on-boarding.")
    lab.log.wait(FAILED)
    assert lab.status() == "Velmora-ID Not Configured"
    assert not lab.onboarding.requests()
    lab.device.write_text(TOKEN, "abc:def\n")
    lab.wait_registered()


@pytest.mark.parametrize("unknown", [True, False], ids=["unknown name", "silent name service"])
def test_a_name_that_cannot_be_resolved(lab, start, unknown):
    if unknown:
        lab.names.remove(CLOUD)
    else:
        lab.names.leave_unanswered(CLOUD)
    start(faketime=FASTER)
    lab.log.wait(f"Not able to resolve  {CLOUD} ")
    lab.log.wait(FAILED)
    assert lab.status() == "Resolving URL"
    lab.names.add(CLOUD)
    lab.wait_registered()


def test_nobody_at_the_address(lab, start):
    lab.names.add(CLOUD, NOWHERE)
    start(faketime=FASTER)
    asked = lab.log.wait(f"Resolved router {CLOUD} to {NOWHERE}")
    lab.log.wait("EINPROGRESS in connect()")
    late = lab.log.wait("Timeout in select() - Cancelling!")
    assert 14 <= seconds_between(asked, late) <= 17
    lab.log.wait(f"OpenConnection to {CLOUD}:443 failed ")
    lab.log.wait(FAILED)
    assert lab.status().startswith("Connecting")
    lab.names.add(CLOUD)
    lab.wait_registered()


@pytest.mark.parametrize("says, seconds", [(b"", 15), (b"\x16\x03\x03", 15),
                                           (b"HTTP/1.1 400 Bad Request\r\n\r\n", 0)],
                         ids=["silence", "half a record", "no TLS"])
def test_a_handshake_that_comes_to_nothing(lab, start, says, seconds):
    async def serve(reader, writer):
        writer.write(says)
        with contextlib.suppress(ConnectionError):
            await reader.read()
        writer.close()

    lab.onboarding.stop()
    server = lab.world.wait(asyncio.start_server(serve, network.WORLD_ADDRESS, 443))
    start(faketime=FASTER)
    connected = lab.log.wait("TCP connection is successful")
    given_up = lab.log.wait("SSL_connect Not successful")
    assert seconds - 1 <= seconds_between(connected, given_up) <= seconds + 2
    lab.log.wait(FAILED)
    lab.world.call(server.close)
    lab.onboarding.start()
    lab.wait_registered()


@pytest.mark.parametrize("reply, complaint, status", [
    (Reply(silent=True), NO_END, "Connecting"),
    (Reply(drop=True), "SSL_read Not successful ", "Connecting"),
    (Reply(cut=1), NO_END, "Connecting"),
    (Reply(cut=HEAD - 1), NO_END, "Connecting"),
    (Reply(cut=60, drop=True), "SSL_read Not successful 6", "Connecting"),
    (Reply(pieces=(10,) * 12, gap=0.1), NO_END, "Connecting"),
    (Reply(cut=HEAD), NO_END, "Connecting"),
    (Reply(cut=HEAD + 5), NO_END, "Connecting"),
    (Reply(cut=HEAD + 5, drop=True), "SSL_read Not successful 6", "Connecting"),
    (Reply(content_length="100000", cut=HEAD + 15), NO_END, "Connecting"),
    (Reply(content_length="0"), "Error, 0 content_length response received", "Connecting"),
    (Reply(content_length="-5"), "Error, -5 content_length response received", "Connecting"),
    (Reply(content_length="2147483647"), "Not able to allocate memory for response_body",
     "Connecting"),
    (Reply(content_length="many"), "Error, 0 content_length response received", "Connecting"),
    (Reply(raw=b"HTTP/1.1 302 Found\r\nX: " + b"y" * 4073 + b"\r\n\r\n"), NO_END + ", ret = -1",
     "Connecting"),
    (Reply(raw=b"\r\n" * 3), "Error, 0 content_length response received", "Connecting"),
    (Reply(status_line="http/1.1 302 Found"), "Error response: [", "Connecting"),
    (Reply(status_line=" HTTP/1.1 302 Found"), "Error response: [", "Connecting"),
    (Reply(status_line="HTTP/1.0 302 Found"), "Error response: [", "Connecting"),
    (Reply(status_line="HTTP/1.1 301 Moved"), "Error response: [", "Connecting"),
    (Reply(status_line="HTTP/1.1 500 Internal Server Error", body=b"<html>"),
     "Unexpected response: JSON error", "Connecting"),
    (Reply(status_line="HTTP/1.1 403 Forbidden", body=MESSAGE),
     " Received error message: [Licence expired] from Orvanta", "Licence expired"),
    (not_found(), "get_from_orvrouter: Received 404 from Orvrouter ret=0", "Unknown device")])
def test_an_answer_that_fails_and_then_a_good_one(lab, start, reply, complaint, status):
    lab.onboarding.next_replies = [reply]
    start(faketime=FASTER)
    lab.log.wait(complaint)
    lab.log.wait(FAILED)
    assert lab.status().startswith(status)  # "Connecting", or "Connecting in 1 minute"
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 2


def test_an_error_message_in_a_redirect_does_not_stop_it(lab, start):
    lab.onboarding.reply = Reply(body=MESSAGE)
    start()
    lab.log.wait(" Received error message: [Licence expired] from Orvanta")
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1


@pytest.mark.parametrize("size", [0, 4000, 12000])
def test_a_whole_answer_in_one_record(lab, start, size):
    """What TLS has decrypted beyond the first read shows on no socket any more."""
    reply = Reply(body=b'{"padding": "' + b"x" * size + b'"}')
    lab.onboarding.reply = reply.but(record_size=len(reply.render()))
    start()
    lab.log.wait("Received full data")
    lab.wait_registered()
    assert len(lab.onboarding.requests()) == 1
    assert not any("after 10 reads" in line for line in lab.log.lines())
