#!/usr/bin/env python3
"""The loss matrix: real SMTP clients (msmtp, curl, swaks, smtplib) send messages of every size (dots at line
starts, 8-bit bytes, a 25 MB attachment) through the built gateway into tarnwick-webmail; a message the client
reported sent must be stored whole, byte for byte, exactly once. The test sends a few messages per cell, and also
shows that every client is refused before the first POP3 fetch, nothing reaching the service, and that a client
whose post the killed service never took is told so. By hand (after building into build/, or with
TARNWICK_GATEWAY / TARNWICK_WEBMAIL naming other binaries) it prints one table, "delivered/sent" per cell, and
exits 1 when a message reported sent is lost or damaged:

  tests/e2e/smtp/loss_matrix.py --count 10
"""

import argparse
import collections
import concurrent.futures
import os
import re
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))

import messages as M  # noqa: E402
import smtp_clients as C  # noqa: E402
from tarnwick_testing import Stack, fetch, wait_for  # noqa: E402

SENDER, RECIPIENT = "sender@tarnwick.local", "rcpt@tarnwick.local"
# Label and size of each message: text, except "34M", a 25 MB attachment that is 34 MB once in base64.
SIZES = {"64K": 64 << 10, "256K": 256 << 10, "1M": 1 << 20, "4M": 4 << 20, "12M": 12 << 20, "34M": 25 << 20}
CLIENTS = ["msmtp", "curl", "swaks", "smtplib"]
TEST_COUNTS = {"1M": 3, "4M": 3, "12M": 3, "34M": 1}
# What each client shows of the refusal: all but curl quote the gateway's answer to HELO.
REFUSAL = "Username and Password are unavailable. Please perform a 'Receive'"
SHOWN = {"curl": "Remote access denied: 500", "msmtp": REFUSAL, "smtplib": REFUSAL, "swaks": REFUSAL}


def named(name, body):
    """`body` with a Date and a Message-ID of its own: every client then sends the same bytes (msmtp would add
    both), and a stored copy names the send it came from."""
    return b"Date: Mon, 23 Nov 2026 10:00:00 +0000\r\nMessage-ID: <%s@example.org>\r\n" % name.encode() + body


# What one client did with one size: messages sent and stored whole once; the faults (a message reported sent
# missing or doubled, a stored copy that matches none sent) and the client's failures.
Cell = collections.namedtuple("Cell", "client size sent delivered faults failures")


def stored(stack):
    return [C.without_trace(m) for m in stack.store.folder_messages("rcpt")]


def empty_folders(stack):
    for parts in (("rcpt",), ("sender", ".Sent Items")):
        for sub in ("new", "cur"):
            path = os.path.join(stack.store.root, *parts, sub)
            for name in os.listdir(path):
                os.remove(os.path.join(path, name))


def run_cell(stack, client, size, body, count):
    empty_folders(stack)
    sent = [named("%s.%s.%d" % (client, size, number), body) for number in range(count)]
    results = [C.send(stack, client, SENDER, [RECIPIENT], message) for message in sent]
    stack.wait_listening(stack.smtp_port)
    copies = collections.Counter(stored(stack))
    found = [copies.pop(message, 0) for message in sent]
    faults = ["message %d: %d whole copies" % (number, n) for number, (n, result) in enumerate(zip(found, results))
              if n != 1 and result.ok]
    faults += ["a stored message that matches none sent (%d bytes)" % len(m) for m in copies]
    return Cell(client, size, count, found.count(1), faults, [result for result in results if not result.ok])


def start():
    """A running stack with the two accounts; the gateway sends once a fetch gave it the sender's credentials."""
    stack = Stack()
    stack.store.add_user("sender", "senderpw")
    stack.store.add_user("rcpt", "rcptpw")
    stack.start()
    return stack


def run(stack, counts, progress=lambda cell: None):
    """Sends counts[size] messages of each size with each client; returns the cells, size by size."""
    cells = []
    for size, count in counts.items():
        body = M.attachment_message(SIZES[size]) if size == "34M" else M.big_message(SIZES[size])
        for client in CLIENTS:
            cells.append(run_cell(stack, client, size, body, count))
            progress(cells[-1])
    return cells


def table(cells, sizes):
    shown = {(c.client, c.size): "%d/%d" % (c.delivered, c.sent) + (" (%d faults)" % len(c.faults) if c.faults else "")
             for c in cells}
    lines = ["| client | " + " | ".join(sizes) + " |", "|---|" + "---|" * len(sizes)]
    lines += ["| %s | " % client + " | ".join(shown[client, s] for s in sizes) + " |" for client in CLIENTS]
    return "\n".join(lines)


def bytes_received(port):
    """The most bytes any open connection to 127.0.0.1:`port` has delivered to it so far (from ss)."""
    out = subprocess.run(["ss", "-tinH", "state", "established", "( sport = :%d )" % port],
                         capture_output=True, text=True, check=True).stdout
    return max((int(n) for n in re.findall(r"bytes_received:(\d+)", out)), default=0)


class LossMatrix(unittest.TestCase):

    def test_refused_before_the_first_fetch_then_every_message_reported_sent_is_stored_whole_once(self):
        stack = start()
        self.addCleanup(stack.stop)
        for client in CLIENTS:
            with self.subTest(client):
                result = C.send(stack, client, SENDER, [RECIPIENT], named("refused", M.PLAIN))
                self.assertFalse(result.ok, result)
                self.assertIn(SHOWN[client], result.output)
        stack.wait_listening(stack.smtp_port)
        self.assertEqual(stack.webmail.requests(), [])

        fetch(stack, "sender", "senderpw")
        cells = run(stack, TEST_COUNTS)
        # Every cell ran, and each message was reported sent and stored whole once.
        expected = [(client, size, count, count, [], []) for size, count in TEST_COUNTS.items() for client in CLIENTS]
        self.assertEqual(cells, expected, table(cells, list(TEST_COUNTS)))

    def test_a_client_whose_post_the_killed_service_never_took_reports_a_failure(self):
        stack = start()
        self.addCleanup(stack.stop)
        fetch(stack, "sender", "senderpw")
        message = named("killed", M.attachment_message(25 * 1024 * 1024))
        with concurrent.futures.ThreadPoolExecutor() as pool:
            sending = pool.submit(C.send, stack, "smtplib", SENDER, [RECIPIENT], message)
            # Killed once a good part of the posted text has reached the service, while more is on its way.
            wait_for(lambda: bytes_received(stack.service_port) > len(message) / 4, 60, "the post to begin", poll=0.002)
            os.kill(stack.webmail.proc.pid, signal.SIGKILL)
            result = sending.result(timeout=C.CLIENT_TIMEOUT)
        self.assertFalse(result.ok, result)
        self.assertIn("500", result.output)
        self.assertEqual(stored(stack), [])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=10, help="messages per client and size (default 10)")
    count = parser.parse_args().count

    def progress(cell):
        print("%-8s %-5s %d/%d, %d failed, %.0f s so far" % (cell.client, cell.size, cell.delivered, cell.sent,
                                                             len(cell.failures), time.monotonic() - started),
              flush=True)
        for line in cell.faults + [repr(f) for f in cell.failures]:
            print("    " + line, flush=True)

    started = time.monotonic()
    stack = start()
    try:
        fetch(stack, "sender", "senderpw")
        cells = run(stack, {size: count for size in SIZES}, progress)
    finally:
        stack.stop()
    print(table(cells, list(SIZES)))
    print("%d of %d delivered whole once; %d reported sent and lost, doubled or stored damaged; %.0f s" % (
        sum(c.delivered for c in cells), sum(c.sent for c in cells), sum(len(c.faults) for c in cells),
        time.monotonic() - started))
    return 1 if any(c.faults for c in cells) else 0


if __name__ == "__main__":
    sys.exit(main())
