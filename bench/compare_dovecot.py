#!/usr/bin/env python3
"""The gateway side by side with Dovecot's POP3 server on a copy of the same Maildir: a whole fetch of 1000
messages of 10 KB with poplib, the first STAT, RETR of one 50 MB message, and the peak memory of each server.
Beside the whole fetch stands its floor: the n + 3 requests of the first STAT made by the bare keep-alive client
of first_stat_floor.py, plus the rest of the fetch at Dovecot's pace (Dovecot's whole fetch less its first STAT),
which is what a gateway that adds nothing to the requests it must send could reach.

Run by hand after a build:
    bench/compare_dovecot.py [--build build] [--pairs 5] [--count 1000] [--message-kb 10] [--big-mb 50]
Needs Dovecot's POP3 server (Debian package dovecot-pop3d); this script installs nothing. Dovecot runs as the
user running the script, in the foreground, on a loopback port with a minimal configuration of its own in a
temporary folder (as root, its mail processes run as the package's "dovecot" user). Every process started here
is stopped by its pid. Each measurement is a pair, gateway then Dovecot, repeated --pairs times in turn;
the ratios come last. Dovecot keeps its index between connections, as it does in normal use.
"""

import argparse
import grp
import os
import pwd
import shutil
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bench_support as B  # noqa: E402
import first_stat_floor as F  # noqa: E402

DOVECOT = "/usr/sbin/dovecot"


class Dovecot:
    def __init__(self, maildir, workdir):
        self.dir = os.path.join(workdir, "dovecot")
        os.makedirs(os.path.join(self.dir, "run"))
        self.mail = os.path.join(self.dir, "Maildir")
        shutil.copytree(maildir, self.mail)
        self.port = B.free_port()
        if os.getuid() == 0:
            # Dovecot gives no mail access to uid 0: the mail processes run as the package's own users.
            internal, login = "dovecot", "dovenull"
            mail_user = pwd.getpwnam("dovecot")
            for base, dirs, files in os.walk(self.mail):
                for name in [base] + [os.path.join(base, f) for f in dirs + files]:
                    os.chown(name, mail_user.pw_uid, mail_user.pw_gid)
            uid, gid = mail_user.pw_uid, mail_user.pw_gid
            # Its auth and mail processes must reach their files through the temporary folders.
            os.chmod(workdir, 0o755)
        else:
            internal = login = pwd.getpwuid(os.getuid()).pw_name
            uid, gid = os.getuid(), os.getgid()
        with open(os.path.join(self.dir, "passwd"), "w") as f:
            f.write("%s:{PLAIN}%s\n" % (B.USER, B.PASSWORD))
        os.chmod(os.path.join(self.dir, "passwd"), 0o644)
        config = """base_dir = {d}/run
state_dir = {d}/state
log_path = {d}/dovecot.log
protocols = pop3
listen = 127.0.0.1
ssl = no
disable_plaintext_auth = no
auth_mechanisms = plain
default_internal_user = {internal}
default_internal_group = {group}
default_login_user = {login}
first_valid_uid = 1
passdb {{
  driver = passwd-file
  args = scheme=PLAIN username_format=%u {d}/passwd
}}
userdb {{
  driver = static
  args = uid={uid} gid={gid} home={d}/home
}}
mail_location = maildir:{mail}
service pop3-login {{
  inet_listener pop3 {{
    address = 127.0.0.1
    port = {port}
  }}
}}
service imap-login {{
  inet_listener imap {{
    port = 0
  }}
}}
""".format(d=self.dir, internal=internal, group=grp.getgrgid(gid).gr_name, login=login, uid=uid, gid=gid,
           mail=self.mail, port=self.port)
        self.config = os.path.join(self.dir, "dovecot.conf")
        with open(self.config, "w") as f:
            f.write(config)
        self.proc = subprocess.Popen([DOVECOT, "-F", "-c", self.config], stdin=subprocess.DEVNULL)
        B.wait_for(lambda: self.proc.poll() is None and B.is_listening(self.port), 20, "Dovecot")

    def session_pid(self):
        """The mail process serving the current POP3 session (a child of the master named "pop3")."""
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open("/proc/%s/status" % pid) as f:
                    status = dict(line.split(":", 1) for line in f if ":" in line)
            except OSError:
                continue
            if status.get("Name", "").strip() == "pop3" and int(status["PPid"]) == self.proc.pid:
                return int(pid)
        return None

    def stop(self):
        B.stop(self.proc)


def whole_fetch(port):
    """poplib as a mail reader uses it: log in, STAT, RETR every message, QUIT. Returns (total, first STAT)."""
    start = time.perf_counter()
    pop = B.pop3_login(port)
    stat_time, (count, _) = B.timed(pop.stat)
    for i in range(1, count + 1):
        pop.retr(i)
    pop.quit()
    return time.perf_counter() - start, stat_time, count


def retr_big(port, session_pid=None):
    """RETR 1 read straight from the socket (poplib's line reader would be the bottleneck); returns the time
    of the RETR alone, the bytes read and the serving process's peak memory when a pid finder is given."""
    pop = B.pop3_login(port)
    pop.stat()
    sock = pop.sock
    start = time.perf_counter()
    sock.sendall(b"RETR 1\r\n")
    tail = b""
    received = 0
    while not tail.endswith(b"\r\n.\r\n"):
        chunk = sock.recv(1 << 20)
        if not chunk:
            raise RuntimeError("connection closed during RETR")
        received += len(chunk)
        tail = (tail + chunk)[-5:]
    elapsed = time.perf_counter() - start
    peak = B.peak_rss_mb(session_pid()) if session_pid else None
    pop.quit()
    return elapsed, received, peak


def require_dovecot():
    """Ends the run with what to install when Dovecot's POP3 server is missing."""
    if not os.access(DOVECOT, os.X_OK):
        raise SystemExit("Dovecot is not installed: install the Debian package dovecot-pop3d "
                         "(sudo apt-get install dovecot-pop3d) and run this again.")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    B.add_binary_options(parser)
    parser.add_argument("--count", type=int, default=1000)
    parser.add_argument("--message-kb", type=int, default=10)
    parser.add_argument("--big-mb", type=int, default=50)
    args = parser.parse_args()
    require_dovecot()
    gateway_bin, webmail_bin = B.binaries(args)
    print("gateway %s\nwebmail %s" % (gateway_bin, webmail_bin))
    ratios = []
    work = B.make_workdir("tarnwick-dovecot-")
    try:
        # 1. Whole fetch and first STAT of --count messages.
        store = B.Store(os.path.join(work, "store"), args.count, args.message_kb * 1024)
        webmail = B.Webmail(webmail_bin, store, work)
        gateway = B.Gateway(gateway_bin, webmail.url(), work)
        dovecot = Dovecot(store.maildir, work)
        try:
            g_fetch, g_stat, d_fetch, d_stat, floor = [], [], [], [], []
            for _ in range(args.pairs):
                B.wait_for(lambda: B.is_listening(gateway.pop3_port), 10, "the gateway to listen again")
                total, stat, n = whole_fetch(gateway.pop3_port)
                assert n == args.count, n
                g_fetch.append(total)
                g_stat.append(stat)
                total, stat, n = whole_fetch(dovecot.port)
                assert n == args.count, n
                d_fetch.append(total)
                d_stat.append(stat)
                floor_stat, n, _ = F.floor_first_stat(webmail.port, "digest", webmail.url())
                assert n == args.count, n
                floor.append(floor_stat + total - stat)
            print("whole fetch of %d x %d KB: gateway %s; Dovecot %s; floor %s" % (
                args.count, args.message_kb, B.describe(g_fetch), B.describe(d_fetch), B.describe(floor)))
            print("first STAT: gateway %s; Dovecot %s" % (B.describe(g_stat), B.describe(d_stat)))
            ratios.append(B.ratio_line("whole fetch, gateway / Dovecot", g_fetch, d_fetch, 1.3))
            ratios.append(B.ratio_line("whole fetch, floor (n + 3 requests, then Dovecot's pace) / Dovecot", floor,
                                       d_fetch))
            ratios.append(B.ratio_line("whole fetch, gateway / floor", g_fetch, floor))
            ratios.append(B.ratio_line("first STAT, gateway / Dovecot", g_stat, d_stat))
        finally:
            gateway.stop()
            dovecot.stop()
            webmail.stop()
        shutil.rmtree(os.path.join(work, "store"), ignore_errors=True)
        shutil.rmtree(os.path.join(work, "dovecot"), ignore_errors=True)

        # 2. RETR of one big message, and peak memory: a fresh gateway for each pair, so that its peak is this
        # RETR's; tarnwick-webmail's peak is reset before each pair.
        big = B.Store(os.path.join(work, "big"), 0, 0)
        with open(os.path.join(big.maildir, "cur", "1600000000.M1P1Q1.big:2,"), "wb") as f:
            f.write(B.sized_message(0, args.big_mb * 1024 * 1024))
        webmail = B.Webmail(webmail_bin, big, work)
        dovecot = Dovecot(big.maildir, work)
        try:
            g_time, d_time, g_mem, w_mem, d_mem = [], [], [], [], []
            for _ in range(args.pairs):
                gateway = B.Gateway(gateway_bin, webmail.url(), work)
                try:
                    B.reset_peak_rss(webmail.proc.pid)
                    t, received, _ = retr_big(gateway.pop3_port)
                    g_time.append(t)
                    g_mem.append(B.peak_rss_mb(gateway.proc.pid))
                    w_mem.append(B.peak_rss_mb(webmail.proc.pid))
                finally:
                    gateway.stop()
                t, received, peak = retr_big(dovecot.port, dovecot.session_pid)
                d_time.append(t)
                d_mem.append(peak)
            mb = args.big_mb
            print("RETR of %d MB: gateway %s; Dovecot %s" % (mb, B.describe(g_time), B.describe(d_time)))
            print("peak memory: gateway %s; tarnwick-webmail %s; Dovecot's pop3 process %s" % (
                B.describe(g_mem, "MB"), B.describe(w_mem, "MB"), B.describe(d_mem, "MB")))
            ratios.append(B.ratio_line("RETR %d MB, gateway / Dovecot" % mb, g_time, d_time, 1.3))
            ratios.append("gateway peak memory: %.0f MB (max %.0f)  [goal <= %d MB = 2 x %d MB + 40 MB]" % (
                statistics.median(g_mem), max(g_mem), 2 * mb + 40, mb))
            ratios.append("tarnwick-webmail peak memory while serving it: %.0f MB (max %.0f)  [goal <= 40 MB]" % (
                statistics.median(w_mem), max(w_mem)))
            ratios.append("Dovecot pop3 process peak memory: %.0f MB" % statistics.median(d_mem))
        finally:
            dovecot.stop()
            webmail.stop()
    finally:
        B.remove_workdir(work)
    B.print_ratios(ratios)


if __name__ == "__main__":
    main()
