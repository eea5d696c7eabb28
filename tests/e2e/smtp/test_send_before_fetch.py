"""Sending before any POP3 fetch since the gateway started: every client is refused with the reply about
unavailable credentials and nothing reaches the service. Its own webmail and gateway, never fetched from."""

import unittest

import messages as M
import smtp_clients as C
from gateway_stack import Stack

# What each client shows: all but curl quote the gateway's refusal of HELO.
REFUSAL = "Username and Password are unavailable. Please perform a 'Receive'"
SHOWN = {"curl": "Remote access denied: 500", "msmtp": REFUSAL, "smtplib": REFUSAL, "swaks": REFUSAL}

stack = None


def setUpModule():
    global stack
    stack = Stack()
    stack.store.add_user("sam", "sam-pw")
    stack.store.add_user("rita", "rita-pw")
    stack.start()


def tearDownModule():
    stack.stop()


class BeforeFetch(unittest.TestCase):

    def test_every_client_is_refused_and_nothing_is_posted(self):
        for client in sorted(C.CLIENTS):
            with self.subTest(client=client):
                result = C.send(stack, client, "sam@tarnwick.local", "rita@tarnwick.local", C.with_headers(M.PLAIN))
                self.assertFalse(result.ok, result)
                self.assertIn(SHOWN[client], result.output)
        C.wait_smtp_listening(stack)
        self.assertEqual(stack.service_requests(), 0)
        self.assertEqual(stack.store.folder_messages("rita"), [])
        self.assertEqual(stack.store.folder_messages("sam", "Sent Items"), [])


if __name__ == "__main__":
    unittest.main()
