#!/usr/bin/env python3
"""What a stalled service costs the gateway: how long a POP3 STAT waits when the service accepts the log-in
request and never answers, and how much memory the gateway takes while the service sends a listing reply that
never ends. Uses the tests' scripted service on 127.0.0.1; the gateway runs with its default limits unless
--gateway-arg says otherwise.

Run by hand after building:
    bench/stalled_service.py [--gateway BIN] [--wait 40] [--memory-cap-mb 3000] [--gateway-arg=--max-reply-size=N]
For a build that never gives up, --wait bounds the STAT wait and --memory-cap-mb stops the endless reply (the
gateway is then stopped by its pid); the figure printed says so.
"""

import argparse
import os
import poplib
import socket
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e", "robustness"))
import bench_support as B  # noqa: E402
from scripted_service import ENDLESS, SILENT, ScriptedService  # noqa: E402


def stat_wait(gateway_binary, failure, extra, wait, memory_cap_mb, workdir):
    """Seconds until STAT is answered (or `wait` ran out), the answer, and the gateway's memory: at start, the
    highest sampled, and after the answer."""
    service = ScriptedService()
    service.fail_next("login" if failure == SILENT else "inbox", failure)
    gateway = B.Gateway(gateway_binary, service.base + "/svcs/hotmail/tarnwick.asp", workdir, extra_args=extra)
    try:
        start_mb = B.rss_mb(gateway.proc.pid)
        pop = poplib.POP3(B.HOST, gateway.pop3_port, timeout=wait)
        pop.user("ann")
        pop.pass_("secret")
        pop.sock.settimeout(0.25)
        pop.sock.sendall(b"STAT\r\n")
        started = time.monotonic()
        answer, peak = None, start_mb
        while time.monotonic() - started < wait:
            peak = max(peak, B.rss_mb(gateway.proc.pid))
            if peak > memory_cap_mb:
                answer = "(stopped: the gateway passed %d MB)" % memory_cap_mb
                break
            try:
                data = pop.sock.recv(4096)
            except socket.timeout:
                continue
            answer = data.decode("latin-1").strip() if data else "(connection closed)"
            break
        took = time.monotonic() - started
        end_mb = B.rss_mb(gateway.proc.pid)
        if answer is None:
            answer = "(no answer within %d s)" % wait
        return took, answer, start_mb, peak, end_mb
    finally:
        gateway.stop()
        service.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--gateway", default=B.default_binaries(os.path.join(B.ROOT, "build"))[0])
    parser.add_argument("--wait", type=float, default=40.0, help="longest wait for the STAT answer, in seconds")
    parser.add_argument("--memory-cap-mb", type=float, default=3000.0,
                        help="stop the endless reply when the gateway's resident memory passes this")
    parser.add_argument("--gateway-arg", action="append", default=[], help="an extra argument for the gateway")
    args = parser.parse_args()
    workdir = tempfile.mkdtemp(prefix="tarnwick-stall-")
    try:
        took, answer, start, peak, end = stat_wait(args.gateway, SILENT, args.gateway_arg, args.wait,
                                                   args.memory_cap_mb, workdir)
        print("silent service: STAT answered after %.1f s: %s (memory %.0f MB at start, %.0f MB at the end)"
              % (took, answer, start, end))
        took, answer, start, peak, end = stat_wait(args.gateway, ENDLESS, args.gateway_arg, args.wait,
                                                   args.memory_cap_mb, workdir)
        print("endless listing: STAT answered after %.1f s: %s; gateway memory %.0f MB at start, peak sampled "
              "%.0f MB, %.0f MB after the answer" % (took, answer, start, peak, end))
    finally:
        B.remove_workdir(workdir)


if __name__ == "__main__":
    main()
