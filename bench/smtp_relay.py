#!/usr/bin/env python3
"""How long the gateway takes to relay a message, against posting the same relayed text to tarnwick-webmail
directly with one curl call.

Run by hand after a build:  bench/smtp_relay.py [--build build] [--sizes-mb 1,20] [--pairs 7]
For each size, interleaved pairs: (a) on an SMTP connection that has already relayed one small message (so
the log-in is behind it), the time from sending DATA to the reply "250 message queued"; (b) one curl process
posting the text the gateway posted, with the same authentication negotiation. Prints every pair, then the
median and min-max of each side and of throughput, the gateway's peak memory (VmHWM, from its start, so it
covers every size so far), and the ratios last. Everything runs on 127.0.0.1; each
process is stopped by its pid. Nothing is asserted. Goal: ratio <= 1.3 at 20 MB, and the same throughput at
1 MB and 20 MB (the cost per chunk does not grow with the text collected so far).

The client streams its text as mail readers do: the gateway holds every chunk's "250 ok" until the relay is
done and sends them right before "250 message queued", so (a) includes the held replies.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "tests", "support"))

import bench_support as B  # noqa: E402
import tarnwick_testing as T  # noqa: E402
import messages  # noqa: E402

SENDER = "bench@tarnwick.local"
RECIPIENT = "rcpt@tarnwick.local"


class SmtpClient(B.LineClient):
    """A well-behaved client: it reads every reply and waits for the relay's own."""

    def __init__(self, port):
        super().__init__(port, timeout=3600)
        self.line()

    def relay(self, stuffed):
        """Seconds from DATA to the relay's reply."""
        start = time.monotonic()
        assert self.command("MAIL FROM:<%s>" % SENDER) == b"250 ok\r\n"
        assert self.command("RCPT TO:<%s>" % RECIPIENT) == b"250 ok\r\n"
        assert self.command("DATA") == b"354 ok\r\n"
        self.sock.sendall(stuffed + b".\r\n")
        held = 0
        while True:
            reply = self.line()
            if reply != b"250 ok\r\n":
                break
            held += 1
        self.held = held
        elapsed = time.monotonic() - start
        if reply != b"250 message queued\r\n":
            raise RuntimeError("relay failed: %r after %d chunk replies" % (reply, held))
        return elapsed

    def close(self):
        self.command("QUIT")
        super().close()


def relayed_text(stuffed):
    """What the gateway posts for `stuffed`, which ends with CR LF: the client's data stream as it was sent."""
    return b"MAIL FROM:<%s>\r\nRCPT TO:<%s>\r\n\r\n%s.\r\n" % (SENDER.encode(), RECIPIENT.encode(), stuffed)


def curl_post(stack, path):
    """Seconds for one curl process to post the file at `path` to the send address."""
    url = "http://%s:%d/mail/bench/sendmsg" % (T.HOST, stack.service_port)
    start = time.monotonic()
    subprocess.run(["curl", "--silent", "--show-error", "--fail", "--noproxy", "*", "--anyauth", "--user",
                    "bench:bench", "-H", "Content-Type: message/rfc821", "-H", "Expect:", "--data-binary",
                    "@" + path, "-o", "/dev/null", url], check=True)
    return time.monotonic() - start


def empty_store(stack):
    for folder in (("rcpt", "new"), ("rcpt", "cur"), ("bench", ".Sent Items", "new"), ("bench", ".Sent Items", "cur")):
        path = os.path.join(stack.store.root, *folder)
        for name in os.listdir(path):
            os.remove(os.path.join(path, name))


def describe(values):
    return "median %.3f s (%.3f-%.3f)" % (statistics.median(values), min(values), max(values))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(HERE, "..", "build"))
    parser.add_argument("--sizes-mb", default="1,20")
    parser.add_argument("--pairs", type=int, default=7)
    args = parser.parse_args()
    os.environ.setdefault("TARNWICK_GATEWAY", os.path.join(args.build, "app", "tarnwick-gateway"))
    os.environ.setdefault("TARNWICK_WEBMAIL", os.path.join(args.build, "webmail", "tarnwick-webmail"))

    stack = T.Stack()
    results = {}
    try:
        stack.store.add_user("bench", "bench")
        stack.store.add_user("rcpt", "rcpt")
        stack.start()
        pop = __import__("poplib").POP3(T.HOST, stack.pop3_port, timeout=60)
        pop.user("bench")
        pop.pass_("bench")
        pop.stat()
        pop.quit()
        pop.close()
        for mb in (int(s) for s in args.sizes_mb.split(",")):
            stuffed = B.stuffed(messages.big_message(mb * 1024 * 1024))
            with tempfile.NamedTemporaryFile(prefix="tarnwick-bench-") as f:
                f.write(relayed_text(stuffed))
                f.flush()
                gateway_times, curl_times = [], []
                for i in range(args.pairs):
                    T.wait_for(lambda: T.is_listening(stack.smtp_port), 30, "SMTP")
                    client = SmtpClient(stack.smtp_port)
                    client.command("HELO bench")
                    client.relay(b"Subject: log-in\r\n\r\nfirst\r\n")
                    gateway_times.append(client.relay(stuffed))
                    client.close()
                    curl_times.append(curl_post(stack, f.name))
                    empty_store(stack)
                    print("%2d MB pair %d: gateway %.3f s (%d chunk replies held), curl %.3f s" % (
                        mb, i + 1, gateway_times[-1], client.held, curl_times[-1]), flush=True)
            results[mb] = (gateway_times, curl_times, len(stuffed), B.peak_rss_mb(stack.gateway.pid))
    finally:
        stack.stop()

    print()
    for mb, (g, c, size, peak) in results.items():
        print("%2d MB gateway: %s, %.0f MB/s; gateway peak memory so far %.0f MB" % (
            mb, describe(g), size / statistics.median(g) / 1e6, peak))
        print("%2d MB curl:    %s, %.0f MB/s" % (mb, describe(c), size / statistics.median(c) / 1e6))
    for mb, (g, c, _, _) in results.items():
        ratios = [a / b for a, b in zip(g, c)]
        print("%2d MB ratio gateway/curl: median %.2f (%.2f-%.2f)" % (mb, statistics.median(ratios), min(ratios),
                                                                    max(ratios)))


if __name__ == "__main__":
    main()
