#!/usr/bin/env python3
"""tarnwick-webmail on its own: peak memory while it serves one large message, and the time of a mailbox
listing of many small ones.

Run by hand after a build:  bench/webmail_serve.py [--binary build/webmail/tarnwick-webmail] [--big-mb 50]
                                                   [--count 1000] [--small-kb 10] [--runs 7]
Each measurement starts its own tarnwick-webmail on 127.0.0.1 over a temporary store and stops it by its pid.
Peak memory is the process's VmHWM (peak resident set) from /proc after the request, with its value right
after start-up beside it. The large message is measured twice: stored with CR LF line ends, and with bare LF
(served with CR LF). Prints one line per measurement; nothing is asserted.
"""

import argparse
import base64
import http.client
import os
import select
import signal
import statistics
import subprocess
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
AUTH = {"Authorization": "Basic " + base64.b64encode(b"bench:bench").decode()}


def message(size, eol):
    head = b"From: big@example.org" + eol + b"Subject: big" + eol + eol
    line = b"0123456789abcdefghijklmnopqrstuvwxyz0123456789abcdefghijklmnopqrstuvwxyz" + eol
    return head + line * ((size - len(head)) // len(line))


class Service:
    def __init__(self, binary, fill):
        self.tmp = tempfile.TemporaryDirectory(prefix="webmail-bench-")
        subprocess.run([binary, "--store", self.tmp.name, "--add-user", "bench", "bench"], check=True,
                       stdout=subprocess.DEVNULL)
        fill(os.path.join(self.tmp.name, "bench", "cur"))
        self.proc = subprocess.Popen([binary, "--store", self.tmp.name, "--listen", "127.0.0.1:0"],
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        ready, _, _ = select.select([self.proc.stdout], [], [], 10)
        line = self.proc.stdout.readline().decode() if ready else ""
        if not line.startswith("listening on "):
            self.stop()
            raise RuntimeError("tarnwick-webmail did not start: %r" % line)
        self.port = int(line.strip().rsplit(":", 1)[1])

    def peak_kb(self):
        with open("/proc/%d/status" % self.proc.pid) as f:
            for line in f:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
        raise RuntimeError("no VmHWM")

    def request(self, method, path):
        """Returns the number of body bytes; the body is read in pieces and dropped."""
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=600)
        try:
            conn.request(method, path, headers=AUTH)
            reply = conn.getresponse()
            total = 0
            while True:
                piece = reply.read(1 << 20)
                if not piece:
                    return total
                total += len(piece)
        finally:
            conn.close()

    def stop(self):
        if self.proc.poll() is None:
            os.kill(self.proc.pid, signal.SIGTERM)
        self.proc.wait(30)
        self.proc.stdout.close()
        self.tmp.cleanup()


def big_message_memory(binary, size, eol, label):
    text = message(size, eol)

    def fill(cur):
        with open(os.path.join(cur, "1.big.bench:2,"), "wb") as f:
            f.write(text)

    for what, method, path in (("GET", "GET", "/mail/bench/folders/INBOX/1.big.bench"),
                               ("listing", "PROPFIND", "/mail/bench/folders/INBOX/")):
        svc = Service(binary, fill)
        try:
            idle = svc.peak_kb()
            served = svc.request(method, path)
            peak = svc.peak_kb()
        finally:
            svc.stop()
        print("%-8s of a %d MB message (%s): peak RSS %.1f MB (%.1f MB after start-up), %d bytes served"
              % (what, size >> 20, label, peak / 1024, idle / 1024, served))


def listing_time(binary, count, size, runs):
    body = b"x" * 70 + b"\r\n"

    def fill(cur):
        for i in range(count):
            head = (b"From: Sender %d <s%d@example.org>\r\nTo: bench@tarnwick.local\r\nSubject: message %d\r\n"
                    b"Date: Tue, 14 May 2002 10:21:13 +0000\r\n\r\n" % (i, i, i))
            with open(os.path.join(cur, "%d.M%d.bench:2," % (1000000 + i, i)), "wb") as f:
                f.write(head + body * ((size - len(head)) // len(body)))

    svc = Service(binary, fill)
    try:
        times = []
        start = time.monotonic()
        svc.request("PROPFIND", "/mail/bench/folders/INBOX/")  # the service's first look at every file
        first = time.monotonic() - start
        for _ in range(runs):
            start = time.monotonic()
            svc.request("PROPFIND", "/mail/bench/folders/INBOX/")
            times.append(time.monotonic() - start)
    finally:
        svc.stop()
    print("listing of %d x %d KB: first %.1f ms, then median %.1f ms (min %.1f, max %.1f) over %d runs"
          % (count, size >> 10, first * 1000, statistics.median(times) * 1000, min(times) * 1000, max(times) * 1000,
             runs))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--binary", default=os.path.join(HERE, "..", "build", "webmail", "tarnwick-webmail"))
    parser.add_argument("--big-mb", type=int, default=50)
    parser.add_argument("--count", type=int, default=1000)
    parser.add_argument("--small-kb", type=int, default=10)
    parser.add_argument("--runs", type=int, default=7)
    args = parser.parse_args()
    big = args.big_mb << 20
    big_message_memory(args.binary, big, b"\r\n", "CR LF")
    big_message_memory(args.binary, big, b"\n", "bare LF")
    listing_time(args.binary, args.count, args.small_kb << 10, args.runs)


if __name__ == "__main__":
    main()
