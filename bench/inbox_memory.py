#!/usr/bin/env python3
"""Peak memory against the size of the inbox: the gateway and Dovecot's POP3 server, side by side, for a first
STAT and then RETR of every message, over inboxes of 100 x 100 KB, 1000 x 100 KB, 200 x 1 MB and one 200 MB
message on the same Maildir; with the first STAT's time.

Run by hand after a build:
    bench/inbox_memory.py [--build build] [--pairs 3] [--inboxes 100x100K,1000x100K,200x1M,1x200M]
Run it once with the older binaries (--gateway OLD/tarnwick-gateway --webmail OLD/tarnwick-webmail) and once with
the newer ones to compare them. Needs Dovecot's POP3 server (Debian package dovecot-pop3d), run as
bench/compare_dovecot.py runs it: in the foreground, on a loopback port, with a configuration of its own in a
temporary folder. Each pair starts a fresh gateway, so that its peak is that of one connection; the webmail's
peak is reset before each pair. Gateway figures are VmHWM of the gateway process: "idle" once it listens, "peak"
after the QUIT. Dovecot's figure is the VmHWM of its pop3 process for the session, read before the QUIT.
Every process started here is stopped by its pid.
"""

import argparse
import os
import shutil
import statistics
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bench_support as B  # noqa: E402
import compare_dovecot as C  # noqa: E402

UNITS = {"K": 1024, "M": 1024 * 1024}


def parse_inbox(text):
    """"1000x100K" -> (1000, 102400)."""
    count, size = text.lower().split("x")
    return int(count), int(size[:-1]) * UNITS[size[-1].upper()]


def read_response(sock):
    """One multi-line POP3 response, read straight from the socket; returns its size in bytes."""
    tail = b""
    received = 0
    first = None
    while not tail.endswith(b"\r\n.\r\n"):
        chunk = sock.recv(1 << 20)
        if not chunk:
            raise RuntimeError("connection closed during RETR")
        if first is None:
            first = chunk[:4]
        received += len(chunk)
        tail = (tail + chunk)[-5:]
    if first != b"+OK ":
        raise RuntimeError("RETR answered %r" % first)
    return received


def session(port, count, session_pid=None):
    """Log in, STAT (timed), RETR 1..count (timed), then QUIT. Returns (first STAT time, RETR time, bytes,
    pop3 process peak)."""
    pop = B.pop3_login(port)
    stat_time, (n, _) = B.timed(pop.stat)
    if n != count:
        raise RuntimeError("STAT counted %d messages, not %d" % (n, count))
    received = 0
    start = time.perf_counter()
    for i in range(1, count + 1):
        pop.sock.sendall(b"RETR %d\r\n" % i)
        received += read_response(pop.sock)
    retr_time = time.perf_counter() - start
    peak = B.peak_rss_mb(session_pid()) if session_pid else None
    pop.quit()
    return stat_time, retr_time, received, peak


def measure(name, count, size, args, gateway_bin, webmail_bin, work):
    store = B.Store(os.path.join(work, "store"), count, size)
    webmail = B.Webmail(webmail_bin, store, work)
    dovecot = C.Dovecot(store.maildir, work)
    idle, peak, web, dove, g_stat, d_stat, g_retr, d_retr = [], [], [], [], [], [], [], []
    try:
        for _ in range(args.pairs):
            gateway = B.Gateway(gateway_bin, webmail.url(), work)
            try:
                # Qt and the sockets settle after start-up; idle is what the listening gateway holds.
                time.sleep(0.5)
                idle.append(B.peak_rss_mb(gateway.proc.pid))
                B.reset_peak_rss(webmail.proc.pid)
                stat, retr, g_bytes, _ = session(gateway.pop3_port, count)
                g_stat.append(stat)
                g_retr.append(retr)
                peak.append(B.peak_rss_mb(gateway.proc.pid))
                web.append(B.peak_rss_mb(webmail.proc.pid))
            finally:
                gateway.stop()
            stat, retr, d_bytes, d_peak = session(dovecot.port, count, dovecot.session_pid)
            d_stat.append(stat)
            d_retr.append(retr)
            dove.append(d_peak)
    finally:
        dovecot.stop()
        webmail.stop()
        shutil.rmtree(os.path.join(work, "store"), ignore_errors=True)
        shutil.rmtree(os.path.join(work, "dovecot"), ignore_errors=True)
    med = statistics.median
    print("%s: gateway idle %s; gateway peak %s; webmail peak %s; Dovecot peak %s" % (
        name, B.describe(idle, "MB"), B.describe(peak, "MB"), B.describe(web, "MB"), B.describe(dove, "MB")))
    print("%s: first STAT: gateway %s; Dovecot %s" % (name, B.describe(g_stat), B.describe(d_stat)))
    print("%s: RETR of every message: gateway %s; Dovecot %s; bytes read: gateway %d, Dovecot %d" % (
        name, B.describe(g_retr), B.describe(d_retr), g_bytes, d_bytes))
    return (name, med(idle), med(peak), med(web), med(dove), med(g_stat), med(d_stat), med(g_retr), med(d_retr))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    B.add_binary_options(parser)
    parser.set_defaults(pairs=3)
    parser.add_argument("--inboxes", default="100x100K,1000x100K,200x1M,1x200M",
                        help="comma-separated COUNTxSIZE, SIZE in K or M")
    args = parser.parse_args()
    C.require_dovecot()
    gateway_bin, webmail_bin = B.binaries(args)
    print("gateway %s\nwebmail %s" % (gateway_bin, webmail_bin))
    rows = []
    work = B.make_workdir("tarnwick-inbox-")
    try:
        for inbox in args.inboxes.split(","):
            count, size = parse_inbox(inbox)
            rows.append(measure(inbox, count, size, args, gateway_bin, webmail_bin, work))
    finally:
        B.remove_workdir(work)
    print()
    print("| inbox | gateway idle | gateway peak | peak - idle | webmail peak | Dovecot peak | first STAT gateway |"
          " first STAT Dovecot | RETR all gateway | RETR all Dovecot |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for name, idle, peak, web, dove, g_stat, d_stat, g_retr, d_retr in rows:
        print("| %s | %.0f MB | %.0f MB | %.0f MB | %.0f MB | %.0f MB | %.3f s | %.3f s | %.3f s | %.3f s |" % (
            name, idle, peak, peak - idle, web, dove, g_stat, d_stat, g_retr, d_retr))
    print()
    for name, idle, peak, *_ in rows:
        print("gateway peak above idle, %s: %.0f MB  [goal <= 40 MB]" % (name, peak - idle))


if __name__ == "__main__":
    main()
