"""Real SMTP clients against the built gateway and tarnwick-webmail, each as a user would configure it for a
plain SMTP server without authentication: every message reaches the recipient's Maildir and the sender's
Sent Items byte for byte as the client sent it (after SMTP dot-unstuffing), mail to another domain waits in
the sender's outbox folder, and a POP3 fetch returns a delivered message with the gateway's line in front.
One webmail and one gateway serve the whole file, after one POP3 fetch by the sender."""

import poplib
import re
import socket
import unittest

import messages as M
import smtp_clients as C
from gateway_stack import APP_LINE, HOST, Stack

SENDER = "sam@tarnwick.local"
# Large enough to come in many chunks, each answered "250 ok"; test_large_messages sends 20 MB with real
# clients, which read the answer to an early chunk as the answer to the whole message and can close while the
# gateway still reads, so that test runs by hand only (see the README).
ATTACHMENT_SIZE = 2 * 1024 * 1024
CHUNK = 64 * 1024
# Small enough for one or two arrivals, which no client can misread.
SMALL_ATTACHMENT_SIZE = 16 * 1024
EHLO_FALLBACK = ["CLIENT_REQUEST: EHLO",
                 "SERVER_RESPONSE: 500 Tarnwick/SMTP Gateway Server does not understand the command: EHLO",
                 "CLIENT_REQUEST: HELO", "SERVER_RESPONSE: 250 hello"]

stack = None


def setUpModule():
    global stack
    stack = Stack()
    for user in ("sam", "lena", "mike", "carl", "sue", "lars"):
        stack.store.add_user(user, user + "-pw")
    stack.start()
    C.fetch_once(stack, "sam", "sam-pw")


def tearDownModule():
    stack.stop()


class Clients(unittest.TestCase):

    def send(self, client, recipient, message):
        mark = len(stack.gateway_log())
        result = C.send(stack, client, SENDER, recipient, message)
        self.assertTrue(result.ok, result)
        C.wait_smtp_listening(stack)
        log = [line for line in stack.gateway_log()[mark:].split("\r\n") if line and not line.startswith("SOCKET_EVENT")]
        # The client greets with EHLO, takes the refusal and falls back to HELO; the relay is in the log.
        start = log.index(EHLO_FALLBACK[0])
        self.assertEqual(log[start:start + 4], EHLO_FALLBACK, client)
        self.assertIn("SERVER_RESPONSE: 250 message queued", log, client)
        return result

    def assert_delivered(self, user, message):
        self.assertEqual([C.without_trace(m) for m in stack.store.folder_messages(user)], [message])
        self.assertIn(message, [C.without_trace(m) for m in stack.store.folder_messages("sam", "Sent Items")])

    def test_smtplib_eight_bit_text(self):
        message = C.with_headers(M.EIGHT_BIT)
        self.send("smtplib", "lena@tarnwick.local", message)
        self.assert_delivered("lena", message)

    def test_msmtp_lines_beginning_with_dots(self):
        message = C.with_headers(M.DOTS)
        self.send("msmtp", "mike@tarnwick.local", message)
        self.assert_delivered("mike", message)

    def test_curl_mime_attachment(self):
        message = C.with_headers(C.attachment_message(SMALL_ATTACHMENT_SIZE))
        self.send("curl", "carl@tarnwick.local", message)
        self.assert_delivered("carl", message)

    def test_many_chunks_each_answered_then_relayed(self):
        """A client that waits for an answer to every write: each chunk is answered "250 ok", the end mark (in
        a write of its own) gets the relay's answer, and the message arrives whole."""
        message = C.with_headers(C.attachment_message(ATTACHMENT_SIZE))
        stuffed = re.sub(rb"(?m)^\.", b"..", message)
        with socket.create_connection((HOST, stack.smtp_port), timeout=120) as s:
            replies = s.makefile("rb")

            def say(data, expected):
                s.sendall(data)
                self.assertEqual(replies.readline(), expected)

            self.assertEqual(replies.readline(), b"220 tarnwick.local\r\n")
            say(b"HELO me\r\n", b"250 hello\r\n")
            say(b"MAIL FROM:<" + SENDER.encode() + b">\r\n", b"250 ok\r\n")
            say(b"RCPT TO:<lars@tarnwick.local>\r\n", b"250 ok\r\n")
            say(b"DATA\r\n", b"354 ok\r\n")
            chunks = [stuffed[i:i + CHUNK] for i in range(0, len(stuffed), CHUNK)]
            self.assertGreater(len(chunks), 10)
            for chunk in chunks:
                say(chunk, b"250 ok\r\n")
            # A write can come in more than one arrival, and each arrival is answered: more "250 ok" may wait.
            s.sendall(b".\r\n")
            reply = replies.readline()
            while reply == b"250 ok\r\n":
                reply = replies.readline()
            self.assertEqual(reply, b"250 message queued\r\n")
            say(b"QUIT\r\n", b"221 tarnwick.local\r\n")
            replies.close()
        C.wait_smtp_listening(stack)
        self.assert_delivered("lars", message)

    def test_swaks_plain_text_then_fetched_over_pop3(self):
        message = C.with_headers(M.PLAIN)
        self.send("swaks", "sue@tarnwick.local", message)
        self.assert_delivered("sue", message)
        C.wait_for(lambda: C.is_listening(stack.pop3_port), 30, "the POP3 server")
        pop = poplib.POP3(HOST, stack.pop3_port, timeout=120)
        try:
            pop.user("sue")
            pop.pass_("sue-pw")
            _, lines, _ = pop.retr(1)
            self.assertEqual(lines, [APP_LINE.encode()] + stack.store.folder_messages("sue")[0].split(b"\r\n"))
            pop.quit()
        finally:
            pop.close()

    def test_another_domain_waits_in_the_senders_outbox(self):
        message = C.with_headers(M.MULTIPART)
        self.send("msmtp", "someone@example.org", message)
        queued = [m for m in stack.store.folder_messages("sam", "Outbox")
                  if re.search(rb"X-Tarnwick-Envelope-To: <someone@example.org>", m)]
        self.assertEqual(len(queued), 1)
        self.assertTrue(queued[0].endswith(b"\r\n" + message), queued[0][:300])


if __name__ == "__main__":
    unittest.main()
