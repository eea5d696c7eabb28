#!/usr/bin/env python3
"""The held chunk replies' weak case, measured: a sender that pauses in the middle of its message, then sends
the rest without reading, and reads its replies one byte at a time. A pause longer than the gateway's hold
time lets the held "250 ok" replies go out; the sender then takes one of them for the reply to its message,
takes the next for the reply to QUIT and closes with replies unread, which resets the connection.

For each pause it sends --count messages of --size bytes and prints in how many the replies so far came
during the pause, how many the sender reported sent and how many reached the recipient whole. Run by hand against a built gateway (TARNWICK_GATEWAY picks another binary):

  bench/smtp_pause.py --pauses 0.5,1.2,1.8,2.5
"""

import argparse
import os
import select
import socket
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))

import bench_support as B  # noqa: E402
import messages as M  # noqa: E402
import smtp_clients as C  # noqa: E402
from tarnwick_testing import HOST, Stack, fetch  # noqa: E402


def read_line(sock):
    """One reply line, read a byte at a time as a naive client does."""
    line = bytearray()
    while not line.endswith(b"\n"):
        byte = sock.recv(1)
        if not byte:
            break
        line += byte
    return bytes(line)


def send_with_pause(port, message, pause):
    """Sends `message` (dot-stuffed, ending with CR LF), pausing once halfway. Returns whether the client would
    report it sent, and whether replies had come by the end of the pause."""
    sock = socket.create_connection((HOST, port), timeout=60)
    try:
        read_line(sock)
        for command in (b"HELO me", b"MAIL FROM:<sender@tarnwick.local>", b"RCPT TO:<rcpt@tarnwick.local>", b"DATA"):
            sock.sendall(command + b"\r\n")
            read_line(sock)
        half = len(message) // 2
        sock.sendall(message[:half])
        time.sleep(pause)
        early = bool(select.select([sock], [], [], 0)[0])
        sock.sendall(message[half:] + b".\r\n")
        ok = read_line(sock).startswith(b"250")
        sock.sendall(b"QUIT\r\n")
        read_line(sock)
        return ok, early
    except OSError:
        return False, False
    finally:
        sock.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--pauses", default="0.5,1.2,1.8,2.5", help="seconds, comma-separated")
    parser.add_argument("--count", type=int, default=10, help="messages per pause (default 10)")
    parser.add_argument("--size", type=int, default=1 << 20, help="message size in bytes (default 1 MiB)")
    args = parser.parse_args()
    stack = Stack()
    try:
        stack.store.add_user("sender", "senderpw")
        stack.store.add_user("rcpt", "rcptpw")
        stack.start()
        fetch(stack, "sender", "senderpw")
        inbox = os.path.join(stack.store.root, "rcpt", "new")
        for pause in (float(p) for p in args.pauses.split(",")):
            for name in os.listdir(inbox):
                os.remove(os.path.join(inbox, name))
            messages = [b"Message-ID: <%d@example.org>\r\n" % i + M.big_message(args.size) for i in range(args.count)]
            reported = early = 0
            for message in messages:
                stack.wait_listening(stack.smtp_port)
                ok, replied = send_with_pause(stack.smtp_port, B.stuffed(message), pause)
                reported += ok
                early += replied
            stack.wait_listening(stack.smtp_port)
            stored = [C.without_trace(m) for m in stack.store.folder_messages("rcpt")]
            whole = sum(1 for m in messages if stored.count(m) == 1)
            print("pause %.1f s: replies during the pause %d/%d, reported sent %d/%d, delivered whole %d/%d" % (
                pause, early, args.count, reported, args.count, whole, args.count), flush=True)
    finally:
        stack.stop()


if __name__ == "__main__":
    main()
