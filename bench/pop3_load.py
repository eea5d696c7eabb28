#!/usr/bin/env python3
"""How long a mail reader waits on the gateway: the first STAT of a connection (log-in, folder listing,
inbox listing and one fetch per message) for inboxes of growing size, and RETR of one large message.

Run by hand after a build:  bench/pop3_load.py [--build build] [--sizes 250,500,1000,2000] [--big-mb 20]
Everything runs on 127.0.0.1 (tarnwick-webmail on a temporary store, the gateway headless); each process is
stopped by its pid. Prints one line per measurement; nothing is asserted.
"""

import argparse
import os
import poplib
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "support"))

import tarnwick_testing as T  # noqa: E402


def small_message(i):
    return (b"From: Sender %d <s%d@example.org>\r\nTo: bench@tarnwick.local\r\nSubject: message %d\r\n"
            b"Date: Tue, 14 May 2002 10:21:13 +0000\r\n\r\nBody line of message %d.\r\n" % (i, i, i, i))


def big_message(size):
    line = b"0123456789abcdefghijklmnopqrstuvwxyz0123456789abcdefghijklmnopqrstuvwxyz\r\n"
    head = b"From: big@example.org\r\nSubject: big\r\n\r\n"
    return head + line * ((size - len(head)) // len(line))


def with_stack(fill, measure):
    stack = T.Stack()
    try:
        stack.store.add_user("bench", "bench")
        fill(stack.store)
        stack.start()
        return measure(stack)
    finally:
        stack.stop()


def first_stat(stack):
    pop = poplib.POP3(T.HOST, stack.pop3_port, timeout=3600)
    pop.user("bench")
    pop.pass_("bench")
    start = time.monotonic()
    count, size = pop.stat()
    elapsed = time.monotonic() - start
    pop.quit()
    return count, size, elapsed


def retr_big(stack):
    pop = poplib.POP3(T.HOST, stack.pop3_port, timeout=3600)
    pop.user("bench")
    pop.pass_("bench")
    start = time.monotonic()
    pop.stat()
    loaded = time.monotonic()
    _, lines, octets = pop.retr(1)
    done = time.monotonic()
    pop.quit()
    return loaded - start, done - loaded, octets


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(HERE, "..", "build"))
    parser.add_argument("--sizes", default="250,500,1000,2000")
    parser.add_argument("--big-mb", type=int, default=20)
    args = parser.parse_args()
    os.environ.setdefault("TARNWICK_GATEWAY", os.path.join(args.build, "app", "tarnwick-gateway"))
    os.environ.setdefault("TARNWICK_WEBMAIL", os.path.join(args.build, "webmail", "tarnwick-webmail"))

    for n in (int(s) for s in args.sizes.split(",")):
        def fill(store, n=n):
            for i in range(n):
                store.deliver("bench", small_message(i))
        count, size, elapsed = with_stack(fill, first_stat)
        print("first STAT, %5d messages: %7.2f s  (%.2f ms per message; +OK %d %d)"
              % (n, elapsed, 1000 * elapsed / max(n, 1), count, size), flush=True)

    big = big_message(args.big_mb * 1024 * 1024)
    load, retr, octets = with_stack(lambda store: store.deliver("bench", big), retr_big)
    print("one %d MB message: load %.2f s, RETR %.2f s (%d octets received)" % (args.big_mb, load, retr, octets))


if __name__ == "__main__":
    main()
