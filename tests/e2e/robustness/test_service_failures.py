"""What a mail reader gets when the web mail service stops talking, never stops, or answers a fetch with an error
page, against the built gateway (headless) and a scripted service on loopback; a reply cut short is the service
client's own case, proved below the gateway. The gateway's quirks stay: a message whose fetch failed arrives
empty, an error page is served as if it were the message, and the first error of the process is the one every
later failure reports (so each case starts a gateway of its own). The stalls run with 2-second request time-outs
(a setting for tests only) and a 1 MB reply limit. Every case ends with the next client served."""

import os
import unittest

import messages as M
import smtp_clients as C
from scripted_service import (ENDLESS, ERROR_500_NO_DAV, ERROR_PAGE, INBOX, SILENT, SLOW_READ, STALL_MID_BODY,
                              ScriptedService)
from tarnwick_testing import APP_LINE, SERVICE_PATH, Stack, answer

SIZES = [len(text) for _, text in INBOX]
LISTED = b"+OK 2 %d" % sum(SIZES)
TIMED_OUT = b"-ERR The operation timed out"
REPLY_LIMIT = 1 << 20
os.environ["TARNWICK_TEST_HTTP_TIMEOUT"] = "2"  # seconds, read by the gateways started below


def retr(number, body=None):
    """RETR as a reader gets it: the listed size, then the gateway's line and `body` (by default the message)."""
    body = INBOX[number - 1][1] if body is None else body
    return b"+OK %d octets" % SIZES[number - 1], APP_LINE + b"\r\n" + body


# (what goes wrong, the failures scripted for the next request of each kind, the reader's commands and answers
# after the log-in).
CASES = [
    ("a fetch stops half-way: it times out, the message arrives empty, and a move refused without X-Dav-Error "
     "reports the time-out",
     {"get": STALL_MID_BODY, "bmove": ERROR_500_NO_DAV},
     [("STAT", LISTED), ("RETR 1", retr(1, b"")), ("RETR 2", retr(2)), ("DELE 1", TIMED_OUT)]),
    ("a fetch answered 500 without X-Dav-Error: the error page arrives as if it were the message",
     {"get": ERROR_500_NO_DAV}, [("RETR 1", retr(1, ERROR_PAGE)), ("RETR 2", retr(2))]),
    ("the log-in is never answered: the request times out", {"login": SILENT}, [("STAT", TIMED_OUT)]),
    ("the listing never ends: it is cut at the reply limit and nothing of it is kept",
     {"inbox": ENDLESS}, [("STAT", b"-ERR The server response exceeded the allowed size")]),
]


class ServiceFailures(unittest.TestCase):

    def start(self):
        """A scripted service and a gateway pointed at it, both stopped at the clean-up."""
        service = ScriptedService()
        self.addCleanup(service.stop)
        gateway = Stack(service_url=service.base + SERVICE_PATH, gateway_args=["--max-reply-size", str(REPLY_LIMIT)])
        gateway.start()
        self.addCleanup(gateway.stop)
        return service, gateway

    def session(self, gateway, exchanges):
        pop = gateway.pop3("ann", "secret")
        for command, expected in exchanges:
            self.assertEqual(answer(pop, command, multiline=command.startswith("RETR")), expected, command)
        pop.quit()

    def assert_next_client_served(self, gateway):
        self.session(gateway, [("STAT", LISTED), ("RETR 2", retr(2))])
        self.assertIsNone(gateway.gateway.poll(), "the gateway is still running")

    def test_each_failure_as_the_reader_sees_it(self):
        for what, failures, exchanges in CASES:
            with self.subTest(what):
                service, gateway = self.start()
                for kind, failure in failures.items():
                    service.fail_next(kind, failure)
                self.session(gateway, exchanges)
                if ENDLESS in failures.values():
                    self.assertGreaterEqual(service.endless_sent, REPLY_LIMIT)
                for _, expected in exchanges:
                    # The activity log shows each refusal as the reader got it.
                    if isinstance(expected, bytes) and expected.startswith(b"-ERR"):
                        self.assertIn("SERVER_RESPONSE: " + expected.decode(), gateway.gateway_log())
                self.assert_next_client_served(gateway)
                self.doCleanups()

    def test_a_service_that_stops_reading_a_posted_message(self):
        service, gateway = self.start()
        self.session(gateway, [("STAT", LISTED)])  # the sending account is the one the POP3 server last saw
        service.fail_next("post", SLOW_READ)
        # Far more than the socket buffers on both sides hold, so that the gateway's sending stalls.
        sent = C.send(gateway, "smtplib", "ann@tarnwick.local", ["bob@example.org"], M.big_message(24 << 20))
        self.assertFalse(sent.ok, sent)
        self.assertIn("(500, b'The operation timed out')", sent.output)
        self.assert_next_client_served(gateway)


if __name__ == "__main__":
    unittest.main()
