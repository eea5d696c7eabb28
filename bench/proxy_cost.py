#!/usr/bin/env python3
"""What the service on another machine costs: HTTPS, and nginx in front of two instances.

1. The gateway's first STAT of --count messages of --message-kb KB, three ways, interleaved: straight to one
   tarnwick-webmail over HTTP; straight to one over HTTPS; over HTTPS to nginx, which terminates TLS and
   passes the requests on to two instances over one store. Goal: the proxied figure at most 1.5 x the direct.
   Beside each way, the CPU time its gateway, its instances and nginx's workers spent per STAT.
2. GET of one 12 KB message by --concurrency keep-alive clients (ab -k, from Debian's apache2-utils):
   tarnwick-webmail over HTTP against nginx serving the same file from the same disk, in one run. The
   ratio is webmail's requests per second over nginx's. A second row compares webmail with nginx doing the
   same work per request as webmail: a Basic password check and an access log line.

Everything listens on 127.0.0.1 and is stopped by its pid. Needs nginx, openssl and ab from apache2-utils
(scripts/setup installs them); the script installs nothing.
"""

import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys

import bench_support as B
from proxy_testing import Nginx, make_certificates, make_nonce_key, nginx_binary, site_config
from tarnwick_testing import Webmail as Instance

MESSAGE_BYTES = 12 * 1024
# The second, like-for-like row: nginx checking a Basic password and writing an access log line per request.
NGINX_CHECKING = "nginx with Basic and log"


def first_stat(port):
    pop = B.pop3_login(port)
    elapsed, (count, _) = B.timed(pop.stat)
    pop.quit()
    return elapsed, count


def cpu_seconds(pids):
    """User and system CPU time the processes have used so far."""
    ticks = 0
    for pid in pids:
        with open("/proc/%d/stat" % pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
        ticks += int(fields[11]) + int(fields[12])
    return ticks / os.sysconf("SC_CLK_TCK")


def children(pid):
    with open("/proc/%d/task/%d/children" % (pid, pid)) as f:
        return [int(p) for p in f.read().split()]


def ab(url, requests, concurrency, auth=None):
    """Requests per second of one ab run; fails on any failed or non-2xx request."""
    args = ["ab", "-q", "-k", "-c", str(concurrency), "-n", str(requests)]
    if auth:
        args += ["-A", auth]
    out = subprocess.run(args + [url], capture_output=True, text=True, timeout=600, check=True).stdout
    failed = int(re.search(r"Failed requests:\s+(\d+)", out).group(1))
    non2xx = re.search(r"Non-2xx responses:\s+(\d+)", out)
    length = int(re.search(r"Document Length:\s+(\d+)", out).group(1))
    if failed or non2xx or length != MESSAGE_BYTES:
        raise RuntimeError("ab against %s: %d failed, %s non-2xx, length %d\n%s" % (
            url, failed, non2xx.group(1) if non2xx else 0, length, out))
    return float(re.search(r"Requests per second:\s+([0-9.]+)", out).group(1))


def static_site(port, file, users=None, log=None):
    """nginx serving `file`; with `users` (an htpasswd file) behind a Basic check, with `log` writing an access
    log line per request there, as tarnwick-webmail does both."""
    extra = ""
    if users:
        extra += "    auth_basic \"tarnwick-webmail\";\n    auth_basic_user_file %s;\n" % users
    if log:
        extra += "    access_log %s;\n" % log
    return ("server {\n    listen 127.0.0.1:%d;\n    keepalive_requests 100000;\n%s"
            "    location = /message { alias %s; default_type message/rfc822; }\n}\n" % (port, extra, file))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    B.add_binary_options(parser)
    parser.add_argument("--count", type=int, default=1000)
    parser.add_argument("--message-kb", type=int, default=10)
    parser.add_argument("--auth", default="digest", choices=("digest", "basic"))
    parser.add_argument("--requests", type=int, default=50000, help="requests per ab run")
    parser.add_argument("--concurrency", type=int, default=32)
    parser.add_argument("--skip-ab", action="store_true", help="only the first STAT comparison")
    args = parser.parse_args()
    gateway_bin, webmail_bin = B.binaries(args)
    if not nginx_binary() or not shutil.which("openssl"):
        raise SystemExit("needs nginx and openssl (scripts/setup installs them)")
    if not args.skip_ab and not shutil.which("ab"):
        raise SystemExit("needs ab from apache2-utils (scripts/setup installs it), or give --skip-ab")
    os.environ["TARNWICK_WEBMAIL"] = webmail_bin
    print("gateway %s\nwebmail %s\nnginx %s" % (gateway_bin, webmail_bin, nginx_binary()))

    work = B.make_workdir("tarnwick-proxy-bench-")
    stoppers = []
    try:
        certs = make_certificates(work)
        key = make_nonce_key(os.path.join(work, "nonce.key"))
        store = B.Store(os.path.join(work, "store"), args.count, args.message_kb * 1024)

        def instance(name, *extra):
            i = Instance(work, name, store.root, ["--auth", args.auth, *extra])
            stoppers.append(i.stop)
            return i

        def gateway(url, *extra):
            g = B.Gateway(gateway_bin, url, work, extra_args=extra)
            stoppers.append(g.stop)
            return g

        plain = instance("plain")
        tls = instance("tls", "--tls-cert", certs["cert"], "--tls-key", certs["key"])
        behind = [instance(n, "--nonce-key-file", key, "--trusted-proxy", "127.0.0.1") for n in ("one", "two")]
        proxy_port = B.free_port()
        nginx = Nginx(os.path.join(work, "proxy"), site_config(proxy_port, certs["cert"], certs["key"],
                                                               [i.port for i in behind]), proxy_port, workers=2)
        stoppers.append(nginx.stop)
        ca = ("--service-ca", certs["ca"])
        ways = [
            ("direct HTTP", gateway("http://127.0.0.1:%d%s" % (plain.port, B.SERVICE_PATH))),
            ("direct HTTPS", gateway("https://localhost:%d%s" % (tls.port, B.SERVICE_PATH), *ca)),
            ("HTTPS via nginx to two", gateway("https://localhost:%d%s" % (proxy_port, B.SERVICE_PATH), *ca)),
        ]
        served = {"direct HTTP": [plain], "direct HTTPS": [tls], "HTTPS via nginx to two": behind}
        # Where the time goes: the processes of each way take turns (one request at a time), so their CPU time
        # adds up to about the whole STAT.
        hops = {name: [("gateway", [g.proc.pid]), ("webmail", [i.proc.pid for i in served[name]])]
                for name, g in ways}
        hops["HTTPS via nginx to two"].append(("nginx", children(nginx.proc.pid)))
        times = {name: [] for name, _ in ways}
        cpu = {name: {hop: 0.0 for hop, _ in hops[name]} for name, _ in ways}
        for _ in range(args.pairs):
            for name, g in ways:
                before = {hop: cpu_seconds(pids) for hop, pids in hops[name]}
                elapsed, count = first_stat(g.pop3_port)
                for hop, pids in hops[name]:
                    cpu[name][hop] += cpu_seconds(pids) - before[hop]
                assert count == args.count, (name, count)
                times[name].append(elapsed)
        print("\nfirst STAT of %d x %d KB (%s):" % (args.count, args.message_kb, args.auth))
        for name, _ in ways:
            lines = [line for i in served[name] for line in i.requests()]
            print("  %-24s %s; %d requests a STAT, %d of them answered 401" % (
                name, B.describe(times[name]), len(lines) // args.pairs,
                sum(" 401 " in line for line in lines) // args.pairs))
            print("  %-24s CPU time a STAT: %s" % ("", ", ".join(
                "%s %.0f ms" % (hop, 1000 * seconds / args.pairs) for hop, seconds in cpu[name].items())))
        ratios = [B.ratio_line("first STAT, direct HTTPS / direct HTTP", times["direct HTTPS"],
                               times["direct HTTP"]),
                  B.ratio_line("first STAT, HTTPS via nginx / direct HTTP", times["HTTPS via nginx to two"],
                               times["direct HTTP"], 1.5)]

        if not args.skip_ab:
            # One 12 KB message, the same file for both servers.
            message = os.path.join(store.maildir, "cur", "ab-message:2,S")
            with open(message, "wb") as f:
                f.write(B.sized_message(0, MESSAGE_BYTES))
            serve = Instance(work, "serve", store.root, ["--auth", "basic"])  # ab sends Basic credentials
            stoppers.append(serve.stop)
            static_port, checking_port = B.free_port(), B.free_port()
            static = Nginx(os.path.join(work, "static"), static_site(static_port, message), static_port, workers=2)
            stoppers.append(static.stop)
            # nginx's own plain-text password scheme: the same comparison webmail makes.
            users = os.path.join(work, "htpasswd")
            with open(users, "w") as f:
                f.write("%s:{PLAIN}%s\n" % (B.USER, B.PASSWORD))
            checking = Nginx(os.path.join(work, "checking"), static_site(
                checking_port, message, users, os.path.join(work, "checking", "access.log")), checking_port, workers=2)
            stoppers.append(checking.stop)
            webmail_url = "http://127.0.0.1:%d/mail/%s/folders/INBOX/ab-message" % (serve.port, B.USER)
            nginx_url = "http://127.0.0.1:%d/message" % static_port
            credentials = "%s:%s" % (B.USER, B.PASSWORD)
            servers = {"webmail": (webmail_url, [serve.proc.pid], credentials),
                       "nginx": (nginx_url, children(static.proc.pid), None),
                       NGINX_CHECKING: ("http://127.0.0.1:%d/message" % checking_port,
                                        children(checking.proc.pid), credentials)}
            rates = {name: [] for name in servers}
            # CPU time per request as well: on a shared machine it varies far less than requests per second.
            cpu = {name: [] for name in servers}
            for _ in range(args.pairs):
                for name, (url, pids, auth) in servers.items():
                    before = cpu_seconds(pids)
                    rates[name].append(ab(url, args.requests, args.concurrency, auth))
                    cpu[name].append((cpu_seconds(pids) - before) / args.requests)
            print("\nGET of one 12 KB message, ab -k -c %d -n %d:" % (args.concurrency, args.requests))
            for name in rates:
                print("  %-26s %s; CPU %s" % (name, B.describe(rates[name], "req/s"),
                                               B.describe(cpu[name], "us/request", 1e6)))
            pair = [w / n for w, n in zip(rates["webmail"], rates["nginx"])]
            ratios.append("GET 12 KB, webmail / nginx requests per second: %.2f x (per pair: median %.2f, min %.2f, "
                          "max %.2f)  [goal >= 0.80]" % (statistics.median(rates["webmail"]) /
                                                          statistics.median(rates["nginx"]),
                                                          statistics.median(pair), min(pair), max(pair)))
            ratios.append(B.ratio_line("GET 12 KB, CPU per request, webmail / nginx", cpu["webmail"], cpu["nginx"]))
            ratios.append(B.ratio_line("GET 12 KB, requests per second, webmail / " + NGINX_CHECKING, rates["webmail"],
                                       rates[NGINX_CHECKING]))
            ratios.append(B.ratio_line("GET 12 KB, CPU per request, webmail / " + NGINX_CHECKING, cpu["webmail"],
                                       cpu[NGINX_CHECKING]))
        B.print_ratios(ratios)
    finally:
        for stop in reversed(stoppers):
            stop()
        B.remove_workdir(work)


if __name__ == "__main__":
    sys.exit(main())
