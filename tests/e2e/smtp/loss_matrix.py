#!/usr/bin/env python3
"""The loss matrix: every SMTP client sends messages of every size through the built gateway into
tarnwick-webmail, and each stored message is compared byte for byte with what the client sent (after SMTP
dot-unstuffing). A message the client reported sent must be stored whole, exactly once.

Run by hand after building into build/ (or with TARNWICK_GATEWAY / TARNWICK_WEBMAIL naming other binaries):

  tests/e2e/smtp/loss_matrix.py --count 10

It prints one table, "delivered/sent" per cell, and exits 1 when any message that its client reported sent
is missing, damaged or stored twice. test_loss_matrix runs it with a small count.
"""

import argparse
import collections
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))

import messages as M  # noqa: E402
import smtp_clients as C  # noqa: E402
from tarnwick_testing import Stack, fetch  # noqa: E402

SENDER, SENDER_PASSWORD = "sender", "senderpw"
RECIPIENT = "rcpt"
# Label and builder of each size; "34M" is a 25 MB attachment, 34 MB once in base64.
SIZES = {
    "64K": lambda: M.big_message(64 * 1024),
    "256K": lambda: M.big_message(256 * 1024),
    "1M": lambda: M.big_message(1024 * 1024),
    "4M": lambda: M.big_message(4 * 1024 * 1024),
    "12M": lambda: M.big_message(12 * 1024 * 1024),
    "34M": lambda: C.attachment_message(25 * 1024 * 1024),
}
CLIENTS = ["msmtp", "curl", "swaks", "smtplib"]


class Cell:
    """What one client did with one size: messages sent, reported sent, stored whole once; the reported-sent ones
    missing or doubled (lost), stored copies that match none sent (strays), and the clients' failures."""

    def __init__(self, client, size):
        self.client, self.size = client, size
        self.sent = self.reported = self.delivered = 0
        self.lost, self.strays, self.failures = [], [], []
        self.seconds = 0.0

    def __str__(self):
        text = "%d/%d" % (self.delivered, self.sent)
        if self.lost:
            text += " (%d lost)" % len(self.lost)
        return text


def unique(body, client, size, number):
    return (b"Date: Mon, 23 Nov 2026 10:00:00 +0000\r\nMessage-ID: <%s.%s.%d@example.org>\r\n"
            % (client.encode(), size.encode(), number)) + body


def empty_folders(stack):
    for parts in ((RECIPIENT,), (SENDER, ".Sent Items")):
        for sub in ("new", "cur"):
            path = os.path.join(stack.store.root, *parts, sub)
            for name in os.listdir(path):
                os.remove(os.path.join(path, name))


def run_cell(stack, client, size, body, count):
    cell = Cell(client, size)
    empty_folders(stack)
    started = time.monotonic()
    sent = []
    for number in range(count):
        message = unique(body, client, size, number)
        result = C.send(stack, client, SENDER + "@tarnwick.local", [RECIPIENT + "@tarnwick.local"], message)
        cell.sent += 1
        if result.ok:
            cell.reported += 1
        else:
            cell.failures.append(result)
        sent.append((message, result.ok))
    stack.wait_listening(stack.smtp_port)
    cell.seconds = time.monotonic() - started
    copies = collections.Counter(C.without_trace(m) for m in stack.store.folder_messages(RECIPIENT))
    for number, (message, ok) in enumerate(sent):
        n = copies.pop(message, 0)
        if n == 1:
            cell.delivered += 1
        elif ok:
            cell.lost.append("message %d: %d whole copies" % (number, n))
    cell.strays = ["a stored message that matches none sent (%d bytes)" % len(m) for m in copies]
    return cell


def start_stack():
    """A running stack whose gateway has the sender's credentials."""
    stack = Stack()
    try:
        stack.store.add_user(SENDER, SENDER_PASSWORD)
        stack.store.add_user(RECIPIENT, RECIPIENT + "pw")
        stack.start()
        fetch(stack, SENDER, SENDER_PASSWORD)
    except BaseException:
        stack.stop()
        raise
    return stack


def run(counts, clients, progress=None, stack=None):
    """Sends counts[size] messages of each size with each client, on `stack` or a fresh one; returns the
    cells, size by size."""
    own = stack is None
    if own:
        stack = start_stack()
    try:
        cells = []
        for size, count in counts.items():
            body = SIZES[size]()
            for client in clients:
                cell = run_cell(stack, client, size, body, count)
                if progress:
                    progress(cell)
                cells.append(cell)
        return cells
    finally:
        if own:
            stack.stop()


def table(cells, sizes, clients):
    by = {(c.client, c.size): c for c in cells}
    lines = ["| client | " + " | ".join(sizes) + " |", "|---|" + "---|" * len(sizes)]
    for client in clients:
        lines.append("| %s | " % client + " | ".join(str(by[client, s]) for s in sizes) + " |")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=10, help="messages per client and size (default 10)")
    parser.add_argument("--sizes", default=",".join(SIZES), help="comma-separated, from " + ",".join(SIZES))
    parser.add_argument("--clients", default=",".join(CLIENTS), help="comma-separated, from " + ",".join(CLIENTS))
    args = parser.parse_args()
    sizes, clients = args.sizes.split(","), args.clients.split(",")
    for name, known in ((sizes, SIZES), (clients, CLIENTS)):
        unknown = [n for n in name if n not in known]
        if unknown:
            parser.error("unknown: " + ", ".join(unknown))

    def progress(cell):
        print("%-8s %-5s %-14s reported sent %d/%d, %.1f s" % (cell.client, cell.size, cell, cell.reported,
                                                               cell.sent, cell.seconds), flush=True)
        for line in cell.lost + cell.strays + [repr(f) for f in cell.failures]:
            print("    " + line, flush=True)

    started = time.monotonic()
    cells = run({size: args.count for size in sizes}, clients, progress)
    print(table(cells, sizes, clients))
    print("%d of %d delivered whole once; %d reported sent and lost; %d stored damaged; %.0f s" % (
        sum(c.delivered for c in cells), sum(c.sent for c in cells), sum(len(c.lost) for c in cells),
        sum(len(c.strays) for c in cells), time.monotonic() - started))
    return 1 if any(c.lost or c.strays for c in cells) else 0


if __name__ == "__main__":
    sys.exit(main())
