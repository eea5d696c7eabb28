#!/usr/bin/env python3
"""What the activity log costs: the time per command of a connection that sends 5k, 10k and 20k one-line
commands (five log entries each), headless and with the window up (on an Xvfb display), and a whole fetch of
1000 messages of 10 KB in both modes.

Run by hand after a build:  bench/log_cost.py [--build build] [--commands 5000,10000,20000] [--pairs 3]
Needs Xvfb (Debian package xvfb) for the window mode; this script installs nothing. Xvfb and every other
process started here is stopped by its pid. Each measurement is a pair, headless then window, repeated
--pairs times in turn; the ratios come last.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bench_support as B  # noqa: E402


class Xvfb:
    def __init__(self):
        if not shutil.which("Xvfb"):
            raise SystemExit("Xvfb is not installed: install the Debian package xvfb and run this again.")
        read, write = os.pipe()
        self.proc = subprocess.Popen(["Xvfb", "-displayfd", str(write), "-screen", "0", "1280x1024x24", "-nolisten",
                                      "tcp"], pass_fds=(write,), stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(write)
        number = b""
        while not number.endswith(b"\n"):
            chunk = os.read(read, 16)
            if not chunk:
                raise RuntimeError("Xvfb did not start")
            number += chunk
        os.close(read)
        self.display = ":" + number.decode().strip()

    def stop(self):
        B.stop(self.proc)


def commands(port, n):
    """n LIST 1 commands after the first STAT, each waited for; returns the time of the n commands."""
    pop = B.pop3_login(port)
    pop.stat()
    sock = pop.sock
    start = time.perf_counter()
    for _ in range(n):
        sock.sendall(b"LIST 1\r\n")
        reply = b""
        while not reply.endswith(b"\r\n"):
            chunk = sock.recv(4096)
            if not chunk:
                raise RuntimeError("connection closed")
            reply += chunk
    elapsed = time.perf_counter() - start
    pop.quit()
    return elapsed


def whole_fetch(port):
    start = time.perf_counter()
    pop = B.pop3_login(port)
    count, _ = pop.stat()
    for i in range(1, count + 1):
        pop.retr(i)
    pop.quit()
    return time.perf_counter() - start


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    B.add_binary_options(parser)
    parser.set_defaults(pairs=3)
    parser.add_argument("--commands", default="5000,10000,20000")
    parser.add_argument("--fetch-count", type=int, default=1000)
    args = parser.parse_args()
    gateway_bin, webmail_bin = B.binaries(args)
    print("gateway %s\nwebmail %s" % (gateway_bin, webmail_bin))
    sizes = [int(s) for s in args.commands.split(",")]
    work = B.make_workdir("tarnwick-log-")
    xvfb = Xvfb()
    ratios = []
    try:
        store = B.Store(os.path.join(work, "store"), args.fetch_count, 10 * 1024)
        webmail = B.Webmail(webmail_bin, store, work)
        modes = [("headless", None), ("window", xvfb.display)]
        gateways = {name: B.Gateway(gateway_bin, webmail.url(), work, display, os.path.join(work, name + ".log"))
                    for name, display in modes}
        try:
            per_command = {}
            for n in sizes:
                times = {name: [] for name, _ in modes}
                for _ in range(args.pairs):
                    for name, _ in modes:
                        times[name].append(commands(gateways[name].pop3_port, n))
                for name, _ in modes:
                    per_command[(name, n)] = times[name]
                    print("%d commands, %s: %s; per command %s" % (
                        n, name, B.describe(times[name]), B.describe([t / n for t in times[name]], "ms", 1000)))
            fetch = {name: [] for name, _ in modes}
            for _ in range(args.pairs):
                for name, _ in modes:
                    fetch[name].append(whole_fetch(gateways[name].pop3_port))
            for name, _ in modes:
                print("whole fetch of %d x 10 KB, %s: %s" % (args.fetch_count, name, B.describe(fetch[name])))
        finally:
            for g in gateways.values():
                g.stop()
            webmail.stop()
        for name, _ in modes:
            for n in sizes:
                ratios.append("%s, per command at %d commands: %.3f ms" % (
                    name, n, 1000 * statistics.median(per_command[(name, n)]) / n))
            if 10000 in sizes and 20000 in sizes:
                ratios.append(B.ratio_line("%s, 20k commands / 10k commands" % name, per_command[(name, 20000)],
                                           per_command[(name, 10000)], 2.2))
        for n in sizes:
            ratios.append(B.ratio_line("window / headless, %d commands" % n, per_command[("window", n)],
                                       per_command[("headless", n)]))
        ratios.append(B.ratio_line("whole fetch, window / headless", fetch["window"], fetch["headless"], 1.2))
    finally:
        xvfb.stop()
        B.remove_workdir(work)
    B.print_ratios(ratios)


if __name__ == "__main__":
    main()
