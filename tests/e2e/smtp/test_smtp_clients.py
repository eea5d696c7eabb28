"""Real SMTP clients send through the built gateway to tarnwick-webmail, each as a user would set it up for
a plain SMTP server without authentication: msmtp, curl's smtp://, swaks and Python's smtplib. Before the
first POP3 fetch every one of them is refused and nothing reaches the service; after it, every message
reaches the recipient's Maildir and the sender's Sent Items byte for byte as the client sent it (after SMTP
dot-unstuffing), and a POP3 fetch returns it with the gateway's line in front."""

import poplib
import unittest

import messages as M
import smtp_clients as C
from tarnwick_testing import APP_LINE, HOST, Stack

SENDER = "sam@tarnwick.local"
# Who sends what to whom.
SENDS = [("smtplib", "lena", C.with_headers(M.EIGHT_BIT)),
         ("msmtp", "mike", C.with_headers(M.DOTS)),
         ("curl", "carl", C.with_headers(C.attachment_message(16 * 1024))),
         ("swaks", "sue", C.with_headers(M.PLAIN))]
# What each client shows of the refusal: all but curl quote the gateway's answer to HELO.
REFUSAL = "Username and Password are unavailable. Please perform a 'Receive'"
SHOWN = {"curl": "Remote access denied: 500", "msmtp": REFUSAL, "smtplib": REFUSAL, "swaks": REFUSAL}

stack = None


def setUpModule():
    global stack
    stack = Stack()
    for user in ["sam"] + [user for _, user, _ in SENDS]:
        stack.store.add_user(user, user + "-pw")
    stack.start()


def tearDownModule():
    stack.stop()


class Clients(unittest.TestCase):

    def test_refused_before_the_first_fetch_then_delivered_and_fetched_back(self):
        for client, user, message in SENDS:
            with self.subTest(client, before_fetch=True):
                result = C.send(stack, client, SENDER, user + "@tarnwick.local", message)
                self.assertFalse(result.ok, result)
                self.assertIn(SHOWN[client], result.output)
        stack.wait_listening(stack.smtp_port)
        self.assertEqual(stack.service_requests(), 0)

        C.fetch_once(stack, "sam", "sam-pw")
        self.assertGreater(stack.service_requests(), 0)
        for client, user, message in SENDS:
            with self.subTest(client):
                result = C.send(stack, client, SENDER, user + "@tarnwick.local", message)
                self.assertTrue(result.ok, result)
                stack.wait_listening(stack.smtp_port)
                self.assertEqual([C.without_trace(m) for m in stack.store.folder_messages(user)], [message])
                self.assertIn(message, [C.without_trace(m) for m in stack.store.folder_messages("sam", "Sent Items")])

        stack.wait_listening(stack.pop3_port)
        pop = poplib.POP3(HOST, stack.pop3_port, timeout=120)
        pop.user("sue")
        pop.pass_("sue-pw")
        self.assertEqual(pop.retr(1)[1], [APP_LINE] + stack.store.folder_messages("sue")[0].split(b"\r\n"))
        pop.quit()


if __name__ == "__main__":
    unittest.main()
