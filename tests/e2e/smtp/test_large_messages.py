"""12 MB messages sent again and again with curl, msmtp and smtplib, and a 20 MB attachment with curl: every
message that a client reports sent must reach the recipient whole.

A client reads the "250 ok" the gateway sends for the first chunk of a large message as the reply to its end
of data while the gateway is still reading, sends QUIT, takes the next "250 ok" for the reply to that, and
closes. The gateway's replies to the chunks it reads after that close make the client's system reset the
connection: the data never ends and nothing is relayed, although the client reported the message sent.
Measured here: msmtp loses every message from about 500 KB on, smtplib one 12 MB message in four, curl a
20 MB attachment now and then. Until the gateway stops answering every chunk this file fails, so CTest does
not run it; run it by hand after building into build/:

  cd tests/e2e/smtp && PYTHONPATH=../../support python3 -m unittest -v test_large_messages
"""

import os
import unittest

import messages as M
import smtp_clients as C
from tarnwick_testing import Stack

SIZE = 12 * 1024 * 1024
# Enough sends per client to show a loss that happens about every second time.
SENDS_PER_CLIENT = 4
stack = None


def setUpModule():
    global stack
    stack = Stack()
    stack.store.add_user("sender", "senderpw")
    stack.store.add_user("rcpt", "rcptpw")
    stack.start()
    C.fetch_once(stack, "sender", "senderpw")


def tearDownModule():
    stack.stop()


def empty_folders():
    """Keeps the store small between clients."""
    for folder in (("rcpt", "new"), ("rcpt", "cur"), ("sender", ".Sent Items", "new"), ("sender", ".Sent Items", "cur")):
        path = os.path.join(stack.store.root, *folder)
        for name in os.listdir(path):
            os.remove(os.path.join(path, name))


class LargeMessages(unittest.TestCase):

    def send_repeatedly(self, client, body):
        empty_folders()
        for _ in range(SENDS_PER_CLIENT):
            result = C.send(stack, client, "sender@tarnwick.local", "rcpt@tarnwick.local", body)
            self.assertTrue(result.ok, result)
        stack.wait_listening(stack.smtp_port)
        arrived = stack.store.folder_messages("rcpt")
        whole = sum(1 for m in arrived if C.without_trace(m) == body)
        self.assertEqual((len(arrived), whole), (SENDS_PER_CLIENT, SENDS_PER_CLIENT), stack.gateway_log()[-3000:])

    def test_each_client(self):
        for client in ("curl", "msmtp", "smtplib"):
            with self.subTest(client):
                self.send_repeatedly(client, C.with_headers(M.big_message(SIZE)))

    def test_curl_twenty_megabyte_attachment(self):
        self.send_repeatedly("curl", C.with_headers(C.attachment_message(20 * 1024 * 1024)))


if __name__ == "__main__":
    unittest.main()
