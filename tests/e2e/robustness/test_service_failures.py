"""What a mail reader gets when the web mail service fails, against the built gateway (headless) and a
scripted service on loopback, one row per way of failing. These pin the gateway's design, quirks included:
a message whose fetch failed arrives empty, an error page is served as if it were the message, a listing
that is not XML is an empty mailbox, a reply without an X-Dav-Error header is a failure, and the first error
of the process is the one every later failure reports. That last rule is why each row starts a gateway of
its own. Every row ends by showing that the gateway then serves the next client."""

import time
import unittest

import messages as M
from scripted_service import (DROP, ENDLESS, ERROR_500, ERROR_500_NO_DAV, ERROR_PAGE, INBOX, SILENT, SLOW_READ,
                              STALL_MID_BODY, TRUNCATED, ScriptedService)
from tarnwick_testing import APP_LINE, Stack, free_port

SIZES = [len(text) for _, text in INBOX]
LISTED = b"+OK 2 %d\r\n" % sum(SIZES)
EMPTY = b"+OK 0 0\r\n"
ABORTED = b"-ERR The connection with the server was terminated abnormally\r\n"
NO_DAV_HEADER = b"-ERR The requested header was not found\r\n"
NO_INBOX_ADDRESS = b"-ERR The URL is invalid\r\n"
CANNOT_CONNECT = b"-ERR A connection with the server could not be established\r\n"
TIMED_OUT = b"-ERR The operation timed out\r\n"
TOO_LARGE = b"-ERR The server response exceeded the allowed size\r\n"
# The stall rows run the gateway with 2-second request time-outs (a setting for tests only) and a 1 MB reply
# limit, so that a row takes seconds, not the defaults' 30.
TEST_TIMEOUT = 2
REPLY_LIMIT = 1 << 20


def retr(number, body=None):
    """RETR of message `number` as the gateway answers it: the listed size, its own line, `body` (by default
    the message's own text) with lines that begin with a dot stuffed, and the end line."""
    body = INBOX[number - 1][1] if body is None else body
    return b"+OK %d octets\r\n%s\r\n%s\r\n.\r\n" % (SIZES[number - 1], APP_LINE, M.stuffed(body))


# (what goes wrong, the failures scripted for the next request of each kind, the reader's commands and the
# answers it gets). Every row's session begins with USER and PASS, which never reach the service.
ROWS = [
    ("a fetch breaks off: the message arrives empty; its error is the one a later failure reports",
     {"get": DROP, "bmove": ERROR_500_NO_DAV},
     [("STAT", LISTED), ("RETR 1", retr(1, b"")), ("RETR 2", retr(2)), ("DELE 1", ABORTED)]),
    ("a move breaks off: the deletion is refused and the message stays there to read",
     {"bmove": DROP}, [("STAT", LISTED), ("DELE 1", ABORTED), ("RETR 1", retr(1))]),
    ("500 with X-Dav-Error: the error page is the message, a refused move is a deletion",
     {"get": ERROR_500, "bmove": ERROR_500},
     [("RETR 1", retr(1, ERROR_PAGE)), ("DELE 1", b"+OK msg deleted\r\n")]),
    ("a listing answered 500 with X-Dav-Error is no XML: an empty mailbox",
     {"inbox": ERROR_500}, [("STAT", EMPTY), ("LIST", b"+OK 0 messages (0 octets)\r\n.\r\n")]),
    ("500 without X-Dav-Error: a fetch reads no header and serves the page, a move fails",
     {"get": ERROR_500_NO_DAV, "bmove": ERROR_500_NO_DAV},
     [("RETR 1", retr(1, ERROR_PAGE)), ("DELE 1", NO_DAV_HEADER)]),
    ("a listing answered 500 without X-Dav-Error fails; nothing was loaded, so the next command lists again",
     {"inbox": ERROR_500_NO_DAV},
     [("STAT", NO_DAV_HEADER), ("LIST", b"+OK 2 messages (%d octets)\r\n1 %d\r\n2 %d\r\n.\r\n"
                                % (sum(SIZES), SIZES[0], SIZES[1]))]),
    ("a log-in answered 500 without X-Dav-Error leaves no inbox address",
     {"login": ERROR_500_NO_DAV}, [("STAT", NO_INBOX_ADDRESS)]),
    ("a cut-off listing is no XML: an empty mailbox, no error", {"inbox": TRUNCATED}, [("STAT", EMPTY)]),
    ("a cut-off folder listing lists no folders; the inbox address came with the log-in",
     {"folders": TRUNCATED}, [("STAT", LISTED)]),
    ("a cut-off log-in reply shows the parser's message (on standard error when headless)",
     {"login": TRUNCATED}, [("STAT", NO_INBOX_ADDRESS)]),
]


# A service that stops talking: (what goes wrong, the failure scripted, the reader's commands and answers).
STALLS = [
    ("the log-in is never answered: the request times out", {"login": SILENT}, [("STAT", TIMED_OUT)]),
    ("the listing stops half-way and the connection stays open: it times out",
     {"inbox": STALL_MID_BODY}, [("STAT", TIMED_OUT)]),
    ("a fetch stops half-way: it times out and, like any failed fetch, the message arrives empty",
     {"get": STALL_MID_BODY}, [("STAT", LISTED), ("RETR 1", retr(1, b"")), ("RETR 2", retr(2))]),
    ("the listing never ends: it is cut at the reply limit and nothing of it is kept",
     {"inbox": ENDLESS}, [("STAT", TOO_LARGE)]),
]


class ServiceFailures(unittest.TestCase):

    def start_gateway(self, entry_url, **stack_args):
        gateway = Stack(service_url=entry_url, **stack_args)
        gateway.start()
        return gateway

    def session(self, gateway, exchanges):
        c = gateway.client(gateway.pop3_port)
        self.addCleanup(c.close)
        self.assertEqual(c.line(), b"+OK Tarnwick/POP3 Gateway Server - Hello\r\n")
        for command, answer in [("USER ann", b"+OK send password\r\n"), ("PASS secret", b"+OK send stat\r\n")] \
                + exchanges + [("QUIT", b"+OK Tarnwick/POP3 Gateway Server - Good-Bye\r\n")]:
            self.assertEqual(c.command(command, multiline=command in ("LIST", "RETR 1", "RETR 2")), answer, command)
        c.close()

    def assert_next_client_served(self, gateway):
        self.session(gateway, [("STAT", LISTED), ("RETR 2", retr(2))])
        self.assertIsNone(gateway.gateway.poll(), "the gateway is still running")

    def test_each_failure_as_the_reader_sees_it(self):
        for what, failures, exchanges in ROWS:
            with self.subTest(what):
                service = ScriptedService()
                gateway = self.start_gateway(service.entry_url())
                try:
                    for kind, failure in failures.items():
                        service.fail_next(kind, failure)
                    self.session(gateway, exchanges)
                    self.assert_next_client_served(gateway)
                    if failures.get("login") == TRUNCATED:
                        self.assertRegex(gateway.gateway_log(), r"(?m)^tarnwick-gateway: \S.*$")
                finally:
                    gateway.stop()
                    service.stop()

    def stalling(self):
        """A scripted service and a gateway with short time-outs and a small reply limit, both stopped at the end."""
        service = ScriptedService()
        self.addCleanup(service.stop)
        gateway = self.start_gateway(service.entry_url(), gateway_args=["--max-reply-size", str(REPLY_LIMIT)],
                                     gateway_env={"TARNWICK_TEST_HTTP_TIMEOUT": str(TEST_TIMEOUT)})
        self.addCleanup(gateway.stop)
        return service, gateway

    def test_a_service_that_stops_talking(self):
        for what, failures, exchanges in STALLS:
            with self.subTest(what):
                service, gateway = self.stalling()
                for kind, failure in failures.items():
                    service.fail_next(kind, failure)
                started = time.monotonic()
                self.session(gateway, exchanges)
                self.assertLess(time.monotonic() - started, 4 * TEST_TIMEOUT + 5)
                if ENDLESS in failures.values():
                    self.assertGreaterEqual(service.endless_sent, REPLY_LIMIT)
                for _, answer in exchanges:
                    if answer.startswith(b"-ERR"):  # the activity log shows the failure as the reader got it
                        self.assertIn("SERVER_RESPONSE: " + answer.decode().strip(), gateway.gateway_log())
                self.assert_next_client_served(gateway)

    def test_a_service_that_stops_reading_a_posted_message(self):
        service, gateway = self.stalling()
        self.session(gateway, [("STAT", LISTED)])  # the sending account is the one the POP3 server last saw
        service.fail_next("post", SLOW_READ)
        c = gateway.client(gateway.smtp_port)
        self.addCleanup(c.close)
        c.line()
        for command in ("HELO reader", "MAIL FROM:<ann@tarnwick.local>", "RCPT TO:<bob@example.org>"):
            self.assertTrue(c.command(command).startswith(b"250"), command)
        self.assertTrue(c.command("DATA").startswith(b"354"))
        started = time.monotonic()
        # Far more than the socket buffers on both sides hold, so that the gateway's sending stalls.
        c.sock.sendall(M.big_message(24 << 20) + b"\r\n.\r\n")
        answer = c.line()
        while answer == b"250 ok\r\n":  # the chunk replies the gateway may send before its verdict
            answer = c.line()
        self.assertEqual(answer, b"500 The operation timed out\r\n")
        self.assertLess(time.monotonic() - started, 4 * TEST_TIMEOUT + 20)
        c.close()
        self.assert_next_client_served(gateway)

    def test_a_service_that_is_down_then_back(self):
        port = free_port()
        gateway = self.start_gateway("http://127.0.0.1:%d/svcs/hotmail/tarnwick.asp" % port)
        self.addCleanup(gateway.stop)
        self.session(gateway, [("STAT", CANNOT_CONNECT), ("RETR 1", CANNOT_CONNECT)])
        self.addCleanup(ScriptedService(port).stop)
        self.assert_next_client_served(gateway)


if __name__ == "__main__":
    unittest.main()
