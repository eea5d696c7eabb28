#!/usr/bin/env python3
"""A bounded load run of tarnwick-webmail's relay: N messages (default 1,000) to an address of another domain,
posted to the service's send address, relayed to a real mail server (a private Postfix on a loopback port,
as the end-to-end tests run it) and delivered into its Maildir. Counts every message at the far end: each
must arrive exactly once. With --kill-at K, tarnwick-webmail is killed (SIGKILL, by its pid) once K messages
have arrived and started again on the same store, to show what a crash under load does.

Run by hand, as root (Postfix's master needs it), after a build:
    bench/webmail_relay_load.py [--build build] [--messages 1000] [--size 2000] [--kill-at K]
Prints the time to post, the time until the last message arrived (from the first post), the rate, and the
numbers missing and duplicated. Everything runs on 127.0.0.1; each process is stopped by its pid.
"""

import argparse
import base64
import http.client
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "support"))

import mail_server  # noqa: E402
import tarnwick_testing as T  # noqa: E402

RECIPIENT = "far@example.test"
MARK = re.compile(rb"^Subject: load (\d+)\r?$", re.M)


def start_webmail(webmail, store, port, relay_url, log):
    proc = subprocess.Popen([webmail, "--store", store, "--listen", "%s:%d" % (T.HOST, port), "--relay", relay_url],
                            stdout=subprocess.PIPE, stderr=log, stdin=subprocess.DEVNULL)
    line = proc.stdout.readline()
    m = T.LISTENING_LINE.search(line)
    if not m:
        raise SystemExit("tarnwick-webmail did not start: %r" % line)
    return proc, int(m.group(1))


def message(n, size):
    body = b"".join(b"line %05d of message %d, filler to reach the size\r\n" % (i, n) for i in range(size // 50 + 1))
    return (b"From: bench@tarnwick.local\r\nTo: %s\r\nSubject: load %d\r\nMessage-ID: <load-%d@tarnwick.local>\r\n"
            b"\r\n" % (RECIPIENT.encode(), n, n) + body)


def arrived(server):
    """How often each message number has arrived."""
    counts = {}
    maildir = os.path.join(server.mail, server.mailboxes[RECIPIENT])
    for sub in ("new", "cur"):
        d = os.path.join(maildir, sub)
        if not os.path.isdir(d):
            continue
        for name in os.listdir(d):
            with open(os.path.join(d, name), "rb") as f:
                m = MARK.search(f.read(4096))
            if m:
                counts[int(m.group(1))] = counts.get(int(m.group(1)), 0) + 1
    return counts


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(HERE, "..", "build"))
    parser.add_argument("--messages", type=int, default=1000)
    parser.add_argument("--size", type=int, default=2000, help="approximate bytes per message")
    parser.add_argument("--kill-at", type=int, default=0, help="kill -9 the service once this many arrived")
    parser.add_argument("--timeout", type=float, default=600)
    args = parser.parse_args()
    why = mail_server.unavailable()
    if why:
        raise SystemExit("cannot run: " + why)
    webmail = os.path.join(args.build, "webmail", "tarnwick-webmail")
    work = tempfile.mkdtemp(prefix="tarnwick-relay-load-")
    os.chmod(work, 0o711)
    store = os.path.join(work, "store")
    T.Store(store).add_user("bench", "bench")
    server = mail_server.Postfix(os.path.join(work, "mx"), mailboxes={RECIPIENT: "far/"})
    server.start()
    log = open(os.path.join(work, "webmail.log"), "ab")
    proc = None
    try:
        proc, port = start_webmail(webmail, store, 0, server.url(), log)
        auth = "Basic " + base64.b64encode(b"bench:bench").decode()
        started = time.monotonic()
        connection = http.client.HTTPConnection(T.HOST, port, timeout=60)
        for n in range(args.messages):
            body = (b"MAIL FROM:<bench@tarnwick.local>\r\nRCPT TO:<%s>\r\n\r\n" % RECIPIENT.encode()
                    + message(n, args.size) + b".\r\n")
            connection.request("POST", "/mail/bench/sendmsg", body,
                               {"Content-Type": "message/rfc821", "Authorization": auth})
            reply = connection.getresponse()
            reply.read()
            if reply.status != 200:
                raise SystemExit("post %d: HTTP %d" % (n, reply.status))
        connection.close()
        posted = time.monotonic() - started
        print("posted %d messages of about %d bytes in %.1f s" % (args.messages, args.size, posted))
        killed = False
        deadline = started + args.timeout
        while time.monotonic() < deadline:
            counts = arrived(server)
            if args.kill_at and not killed and len(counts) >= args.kill_at:
                os.kill(proc.pid, signal.SIGKILL)
                proc.wait()
                proc, port = start_webmail(webmail, store, port, server.url(), log)
                killed = True
                print("killed tarnwick-webmail (SIGKILL) with %d arrived; started it again" % len(counts))
            if len(counts) == args.messages:
                break
            time.sleep(0.2)
        elapsed = time.monotonic() - started
        counts = arrived(server)
        missing = args.messages - len(counts)
        duplicated = sum(c - 1 for c in counts.values() if c > 1)
        outbox = os.path.join(store, "bench", ".Outbox")
        left = sum(len(os.listdir(os.path.join(outbox, sub))) for sub in ("new", "cur"))
        print("arrived: %d distinct of %d, %d missing, %d duplicated, %d left in the Outbox"
              % (len(counts), args.messages, missing, duplicated, left))
        print("last arrival %.1f s after the first post: %.0f messages/s end to end"
              % (elapsed, args.messages / elapsed))
        return 0 if missing == 0 and duplicated == 0 else 1
    finally:
        T.stop_process(proc)
        server.stop()
        log.close()
        print("work folder (logs, stores): " + work)


if __name__ == "__main__":
    sys.exit(main())
