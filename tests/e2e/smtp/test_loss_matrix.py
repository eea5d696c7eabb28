"""Real SMTP clients (msmtp, curl, swaks, smtplib) through the built gateway into tarnwick-webmail. Before the
first POP3 fetch each is refused and nothing reaches the service. After it, nothing a client was told is sent
gets lost: each sends several messages of about 1 MB, 4 MB and 12 MB (dots at line starts, 8-bit bytes) and
one 25 MB attachment, and every one is stored byte for byte, exactly once. A client whose message the service
could not take is told so; a client that waits for the reply to each chunk gets every one.

The same matrix with more messages and sizes runs by hand: loss_matrix.py."""

import os
import re
import signal
import subprocess
import threading
import time
import unittest

import loss_matrix as L
import messages as M
import smtp_clients as C
from tarnwick_testing import Stack

COUNTS = {"1M": 3, "4M": 3, "12M": 3, "34M": 1}
SENDER, RECIPIENT = L.SENDER + "@tarnwick.local", L.RECIPIENT + "@tarnwick.local"
# What each client shows of the refusal: all but curl quote the gateway's answer to HELO.
REFUSAL = "Username and Password are unavailable. Please perform a 'Receive'"
SHOWN = {"curl": "Remote access denied: 500", "msmtp": REFUSAL, "smtplib": REFUSAL, "swaks": REFUSAL}
stack = None


def setUpModule():
    global stack
    stack = L.start_stack()


def tearDownModule():
    stack.stop()


class LossMatrix(unittest.TestCase):

    def test_refused_before_the_first_fetch(self):
        fresh = Stack()
        self.addCleanup(fresh.stop)
        fresh.start()
        for client in L.CLIENTS:
            with self.subTest(client):
                result = C.send(fresh, client, SENDER, [RECIPIENT], C.with_headers(M.PLAIN))
                self.assertFalse(result.ok, result)
                self.assertIn(SHOWN[client], result.output)
        fresh.wait_listening(fresh.smtp_port)
        self.assertEqual(fresh.service_requests(), 0)

    def test_every_message_reported_sent_is_stored_whole_once(self):
        cells = L.run(COUNTS, L.CLIENTS, stack=stack)
        self.assertEqual([(c.client, c.size, c.lost, c.strays) for c in cells if c.lost or c.strays], [],
                         L.table(cells, list(COUNTS), L.CLIENTS))
        self.assertEqual([(c.client, c.size, c.failures) for c in cells if c.failures], [])
        self.assertEqual(sum(c.delivered for c in cells), sum(COUNTS.values()) * len(L.CLIENTS))

    def test_a_client_that_waits_for_each_chunk_reply_gets_every_one(self):
        L.empty_folders(stack)
        message = C.with_headers(M.PLAIN)
        client = stack.client(stack.smtp_port)
        self.assertEqual(client.line(), b"220 tarnwick.local\r\n")
        for command in ("HELO me", "MAIL FROM:<%s>" % SENDER, "RCPT TO:<%s>" % RECIPIENT):
            self.assertEqual(client.command(command)[:3], b"250")
        self.assertEqual(client.command("DATA"), b"354 ok\r\n")
        lines = message.split(b"\r\n")[:-1]
        for part in (lines[:2], lines[2:4], lines[4:]):
            client.sock.sendall(b"".join(line + b"\r\n" for line in part))
            self.assertEqual(client.line(), b"250 ok\r\n", part)
        self.assertEqual(client.command("."), b"250 message queued\r\n")
        self.assertEqual(client.command("QUIT"), b"221 tarnwick.local\r\n")
        client.close()
        stack.wait_listening(stack.smtp_port)
        self.assertEqual([C.without_trace(m) for m in stack.store.folder_messages(L.RECIPIENT)], [message])

    def test_a_client_whose_post_the_killed_service_never_took_reports_a_failure(self):
        own = L.start_stack()
        self.addCleanup(own.stop)
        message = C.with_headers(C.attachment_message(25 * 1024 * 1024))
        result = []
        sender = threading.Thread(target=lambda: result.append(C.send(own, "smtplib", SENDER, [RECIPIENT], message)))
        sender.start()
        # Killed once a good part of the posted text has reached the service, while more is on its way.
        deadline = time.monotonic() + 60
        while bytes_received(own.service_port) < len(message) // 4:
            self.assertLess(time.monotonic(), deadline, "the post did not begin")
            time.sleep(0.002)
        os.kill(own.webmail.proc.pid, signal.SIGKILL)
        sender.join(timeout=C.CLIENT_TIMEOUT)
        self.assertEqual(len(result), 1)
        self.assertFalse(result[0].ok, result[0])
        self.assertIn("500", result[0].output)
        self.assertEqual(own.store.folder_messages(L.RECIPIENT), [])


def bytes_received(port):
    """The most bytes any open connection to 127.0.0.1:`port` has delivered to it so far (from ss)."""
    out = subprocess.run(["ss", "-tinH", "state", "established", "( sport = :%d )" % port],
                         capture_output=True, text=True, check=True).stdout
    return max((int(n) for n in re.findall(r"bytes_received:(\d+)", out)), default=0)


if __name__ == "__main__":
    unittest.main()
