"""What a mail reader gets when the web mail service fails, against the built gateway (headless) and a
scripted service on loopback. These pin the gateway's design, quirks included: a message whose fetch failed
arrives empty, an error page is served as if it were the message, a listing that is not XML is an empty
mailbox, a reply without an X-Dav-Error header is a failure, and the first error of the process is the one
every later failure reports. That last rule is why each test starts a gateway of its own. Every test ends by
showing that the gateway then serves the next client."""

import unittest

from gateway_stack import APP_LINE, RawClient, Stack, free_port
from scripted_service import (DROP, ERROR_500, ERROR_500_NO_DAV, ERROR_PAGE, INBOX, TRUNCATED,
                              ScriptedService)

GREETING = b"+OK Tarnwick/POP3 Gateway Server - Hello\r\n"
FAREWELL = b"+OK Tarnwick/POP3 Gateway Server - Good-Bye\r\n"
TOTAL = sum(len(text) for _, text in INBOX)
ABORTED = b"-ERR The connection with the server was terminated abnormally\r\n"
NO_DAV_HEADER = b"-ERR The requested header was not found\r\n"
NO_INBOX_ADDRESS = b"-ERR The URL is invalid\r\n"
CANNOT_CONNECT = b"-ERR A connection with the server could not be established\r\n"
EMPTY_MAILBOX = b"+OK 0 0\r\n"


def retr_answer(number, body):
    """RETR of message `number` as the gateway builds it: the listed size, its own header line, the body with
    lines that begin with a dot stuffed, and the end line."""
    stuffed = b"\r\n".join(b"." + line if line.startswith(b".") else line for line in body.split(b"\r\n"))
    return b"+OK %d octets\r\n%s\r\n%s\r\n.\r\n" % (len(INBOX[number - 1][1]), APP_LINE.encode(), stuffed)


class GatewayOnScriptedService(Stack):
    """The headless gateway pointed at a scripted service instead of tarnwick-webmail."""

    def __init__(self, entry_url):
        super().__init__()
        self._entry_url = entry_url

    def _start_webmail(self):
        pass

    def service_url(self):
        return self._entry_url


class ServiceFailures(unittest.TestCase):

    def start(self, entry_url=None):
        if entry_url is None:
            self.service = ScriptedService()
            self.addCleanup(self.service.stop)
            entry_url = self.service.entry_url()
        self.gateway = GatewayOnScriptedService(entry_url)
        self.gateway.start()
        self.addCleanup(self.gateway.stop)

    def client(self):
        """A new POP3 client, greeted and signed in (USER and PASS never reach the service)."""
        self.gateway.wait_pop3_listening()
        c = RawClient(self.gateway.pop3_port)
        self.addCleanup(c.close)
        self.assertEqual(c.line(), GREETING)
        self.assertEqual(c.command("USER ann"), b"+OK send password\r\n")
        self.assertEqual(c.command("PASS secret"), b"+OK send stat\r\n")
        return c

    def end(self, c):
        self.assertEqual(c.command("QUIT"), FAREWELL)
        c.close()

    def assert_next_client_served(self):
        c = self.client()
        self.assertEqual(c.command("STAT"), b"+OK 2 %d\r\n" % TOTAL)
        self.assertEqual(c.command("RETR 2", multiline=True), retr_answer(2, INBOX[1][1]))
        self.end(c)
        self.assertIsNone(self.gateway.gateway.poll(), "the gateway is still running")

    def test_a_message_whose_fetch_broke_off_arrives_empty_and_its_error_is_kept(self):
        self.start()
        self.service.fail_next("get", DROP)
        c = self.client()
        # The listing goes on past the failed fetch: both messages are listed with the sizes the service gave.
        self.assertEqual(c.command("STAT"), b"+OK 2 %d\r\n" % TOTAL)
        self.assertEqual(c.command("RETR 1", multiline=True), retr_answer(1, b""))
        self.assertEqual(c.command("RETR 2", multiline=True), retr_answer(2, INBOX[1][1]))
        self.end(c)
        self.assert_next_client_served()
        # Later failures report the first error of the process, not their own.
        self.service.fail_next("bmove", ERROR_500_NO_DAV)
        c = self.client()
        self.assertEqual(c.command("DELE 1"), ABORTED)
        self.end(c)

    def test_a_move_that_broke_off_refuses_the_deletion(self):
        self.start()
        self.service.fail_next("bmove", DROP)
        c = self.client()
        self.assertEqual(c.command("STAT"), b"+OK 2 %d\r\n" % TOTAL)
        self.assertEqual(c.command("DELE 1"), ABORTED)
        # The loaded list is unchanged: the message is still there to read.
        self.assertEqual(c.command("RETR 1", multiline=True), retr_answer(1, INBOX[0][1]))
        self.end(c)
        self.assertIn("SERVER_RESPONSE: " + ABORTED.decode(), self.gateway.gateway_log())
        self.assert_next_client_served()

    def test_a_500_reply_with_an_x_dav_error_header_is_read_like_any_other(self):
        self.start()
        c = self.client()
        self.assertEqual(c.command("STAT"), b"+OK 2 %d\r\n" % TOTAL)
        self.end(c)
        # A fetch answered with an error page: the page is served as the message, under the listed size.
        self.service.fail_next("get", ERROR_500)
        c = self.client()
        self.assertEqual(c.command("RETR 1", multiline=True), retr_answer(1, ERROR_PAGE))
        # A refused move still answers as a deletion.
        self.service.fail_next("bmove", ERROR_500)
        self.assertEqual(c.command("DELE 1"), b"+OK msg deleted\r\n")
        self.end(c)
        # A listing answered with an error page: that is no XML, so the mailbox is empty.
        self.service.fail_next("inbox", ERROR_500)
        c = self.client()
        self.assertEqual(c.command("STAT"), EMPTY_MAILBOX)
        self.assertEqual(c.command("LIST", multiline=True), b"+OK 0 messages (0 octets)\r\n.\r\n")
        self.end(c)
        self.assert_next_client_served()

    def test_a_fetch_or_move_answered_500_without_x_dav_error(self):
        self.start()
        self.service.fail_next("get", ERROR_500_NO_DAV)
        c = self.client()
        # A fetch reads no header: the page is the message.
        self.assertEqual(c.command("RETR 1", multiline=True), retr_answer(1, ERROR_PAGE))
        self.service.fail_next("bmove", ERROR_500_NO_DAV)
        self.assertEqual(c.command("DELE 1"), NO_DAV_HEADER)
        self.end(c)
        self.assert_next_client_served()

    def test_a_listing_answered_500_without_x_dav_error_fails_the_command_and_the_next_one_lists_again(self):
        self.start()
        self.service.fail_next("inbox", ERROR_500_NO_DAV)
        c = self.client()
        self.assertEqual(c.command("STAT"), NO_DAV_HEADER)
        # Nothing was loaded, so the next command logs in and lists again; it succeeds now.
        self.assertEqual(c.command("LIST", multiline=True),
                         b"+OK 2 messages (%d octets)\r\n1 %d\r\n2 %d\r\n.\r\n"
                         % (TOTAL, len(INBOX[0][1]), len(INBOX[1][1])))
        self.end(c)
        self.assert_next_client_served()

    def test_a_log_in_answered_500_without_x_dav_error_leaves_no_inbox_address(self):
        self.start()
        self.service.fail_next("login", ERROR_500_NO_DAV)
        c = self.client()
        self.assertEqual(c.command("STAT"), NO_INBOX_ADDRESS)
        self.end(c)
        self.assert_next_client_served()

    def test_truncated_xml(self):
        self.start()
        # A cut-off listing is no XML: an empty mailbox, no error.
        self.service.fail_next("inbox", TRUNCATED)
        c = self.client()
        self.assertEqual(c.command("STAT"), EMPTY_MAILBOX)
        self.end(c)
        # A cut-off folder listing lists no folders; the inbox address came with the log-in.
        self.service.fail_next("folders", TRUNCATED)
        c = self.client()
        self.assertEqual(c.command("STAT"), b"+OK 2 %d\r\n" % TOTAL)
        self.end(c)
        self.assert_next_client_served()

    def test_a_truncated_log_in_reply_shows_the_parser_message_and_fails_the_command(self):
        self.start()
        self.service.fail_next("login", TRUNCATED)
        c = self.client()
        self.assertEqual(c.command("STAT"), NO_INBOX_ADDRESS)
        self.end(c)
        # The message box of the log-in goes to standard error when headless.
        self.assertRegex(self.gateway.gateway_log(), r"(?m)^tarnwick-gateway: \S.*$")
        self.assert_next_client_served()

    def test_a_service_that_is_down(self):
        port = free_port()
        self.start("http://127.0.0.1:%d/svcs/hotmail/tarnwick.asp" % port)
        c = self.client()
        self.assertEqual(c.command("STAT"), CANNOT_CONNECT)
        self.assertEqual(c.command("RETR 1"), CANNOT_CONNECT)
        self.end(c)
        # Once the service is back, the next client gets its mail.
        self.service = ScriptedService(port)
        self.addCleanup(self.service.stop)
        self.assert_next_client_served()


if __name__ == "__main__":
    unittest.main()
