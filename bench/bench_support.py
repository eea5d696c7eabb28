"""What the benchmarks share: a Maildir store with generated mail, tarnwick-webmail and the headless (or
windowed) gateway on loopback ports, POP3 timing, peak memory, the summary of interleaved pairs, and
dot-stuffing and a line-by-line POP3/SMTP client for exact bytes.

Every process started here listens on 127.0.0.1 only and is stopped by its own pid. Nothing is installed.
"""

import os
import poplib
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
sys.path.insert(0, os.path.join(ROOT, "tests", "support"))
# Ports, listening sockets and stopping processes by pid, as the tests do them.
from tarnwick_testing import HOST, LISTENING_LINE, SERVICE_PATH, free_port, is_listening, wait_for  # noqa: E402,F401
from tarnwick_testing import stop_process as stop  # noqa: E402

USER = "bench"
PASSWORD = "bench"


def default_binaries(build):
    return (os.path.join(build, "app", "tarnwick-gateway"), os.path.join(build, "webmail", "tarnwick-webmail"))


def add_binary_options(parser):
    parser.add_argument("--build", default=os.path.join(ROOT, "build"),
                        help="build folder holding app/tarnwick-gateway and webmail/tarnwick-webmail")
    parser.add_argument("--gateway", help="the gateway binary (default: from --build)")
    parser.add_argument("--webmail", help="the tarnwick-webmail binary (default: from --build)")
    parser.add_argument("--pairs", type=int, default=5, help="interleaved pairs per measurement")


def binaries(args):
    gateway, webmail = default_binaries(args.build)
    gateway, webmail = args.gateway or gateway, args.webmail or webmail
    for b in (gateway, webmail):
        if not os.access(b, os.X_OK):
            raise SystemExit("not an executable: %s (build first, or give --build / --gateway / --webmail)" % b)
    return gateway, webmail


def status_mb(pid, field):
    """A memory figure of the process from /proc/PID/status ("VmRSS", "VmHWM"), in MB."""
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1]) / 1024.0
    return float("nan")


def peak_rss_mb(pid):
    """The process's peak resident set (VmHWM) so far, in MB."""
    return status_mb(pid, "VmHWM")


def rss_mb(pid):
    """The process's resident set (VmRSS) now, in MB."""
    return status_mb(pid, "VmRSS")


def reset_peak_rss(pid):
    """Starts VmHWM afresh from the current resident set (Linux: 5 to /proc/PID/clear_refs)."""
    try:
        with open("/proc/%d/clear_refs" % pid, "w") as f:
            f.write("5")
    except OSError:
        pass


# -- mail

def sized_message(i, size):
    """A plain text message of exactly `size` bytes with CR LF line ends."""
    head = (b"From: Sender %d <s%d@example.org>\r\nTo: bench@tarnwick.local\r\nSubject: message %d\r\n"
            b"Date: Tue, 14 May 2002 10:21:13 +0000\r\nMessage-ID: <%d@bench>\r\n\r\n" % (i, i, i, i))
    line = b"The quick brown fox jumps over the lazy dog, message body text line 0123456789.\r\n"
    body = line * max(0, (size - len(head)) // len(line))
    pad = size - len(head) - len(body)
    if pad > 0:
        body += b"x" * max(0, pad - 2) + b"\r\n"[:pad]
    return (head + body)[:size]


class Store:
    """A tarnwick-webmail store (passwd plus Maildir++ tree) for one account, filled once."""

    def __init__(self, root, count, size):
        self.root = root
        self.maildir = os.path.join(root, USER)
        for folder in ("", ".Sent Items", ".Deleted Items", ".Outbox"):
            for sub in ("cur", "new", "tmp"):
                os.makedirs(os.path.join(self.maildir, folder, sub), exist_ok=True)
        with open(os.path.join(root, "passwd"), "w") as f:
            f.write("%s:%s\n" % (USER, PASSWORD))
        os.chmod(os.path.join(root, "passwd"), 0o600)
        clock = 1_600_000_000
        for i in range(count):
            clock += 60
            name = "%d.M%dP1Q%d.bench" % (clock, i, i)
            path = os.path.join(self.maildir, "cur", name + ":2,")
            with open(path, "wb") as f:
                f.write(sized_message(i, size))
            os.utime(path, (clock, clock))


# -- processes

class Webmail:
    def __init__(self, binary, store, workdir, auth="any"):
        self.out = open(os.path.join(workdir, "webmail.out"), "w+b")
        self.err = open(os.path.join(workdir, "webmail.err"), "w+b")
        self.proc = subprocess.Popen([binary, "--store", store.root, "--listen", HOST + ":0", "--auth", auth],
                                     stdout=self.out, stderr=self.err, stdin=subprocess.DEVNULL)
        self.port = None

        def bound():
            if self.proc.poll() is not None:
                raise RuntimeError("tarnwick-webmail exited")
            self.out.seek(0)
            m = LISTENING_LINE.search(self.out.read())
            if m:
                self.port = int(m.group(1))
            return self.port is not None

        wait_for(bound, 20, "tarnwick-webmail")

    def url(self):
        return "http://%s:%d%s" % (HOST, self.port, SERVICE_PATH)

    def request_lines(self):
        self.err.seek(0)
        return [line for line in self.err.read().decode("latin-1").splitlines() if line.split(" ")[0].isupper()]

    def stop(self):
        stop(self.proc)
        self.out.close()
        self.err.close()


class Gateway:
    """The gateway pointed at one webmail; headless, or with its window on `display` (an X display name)."""

    def __init__(self, binary, service_url, workdir, display=None, log_path=None, extra_args=()):
        runtime = tempfile.mkdtemp(prefix="rt-", dir=workdir)
        os.chmod(runtime, 0o700)
        env = dict(os.environ, XDG_RUNTIME_DIR=runtime)
        args = [binary]
        if display is None:
            env["QT_QPA_PLATFORM"] = "offscreen"
            args.append("--headless")
        else:
            env["DISPLAY"] = display
            env["QT_QPA_PLATFORM"] = "xcb"
        self.pop3_port, smtp_port = free_port(), free_port()
        args += ["--pop3-port", str(self.pop3_port), "--smtp-port", str(smtp_port), "--service-url", service_url]
        args += list(extra_args)
        self.log = open(log_path or os.devnull, "wb")
        self.proc = subprocess.Popen(args, stdout=self.log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                     env=env)
        wait_for(lambda: self.proc.poll() is None and is_listening(self.pop3_port), 30, "the gateway")

    def stop(self):
        stop(self.proc)
        self.log.close()


def pop3_login(port):
    pop = poplib.POP3(HOST, port, timeout=3600)
    pop.user(USER)
    pop.pass_(PASSWORD)
    return pop


def timed(step):
    start = time.perf_counter()
    result = step()
    return time.perf_counter() - start, result


# -- summaries

def describe(values, unit="s", scale=1.0):
    v = [x * scale for x in values]
    return "median %.4g %s (min %.4g, max %.4g, n=%d)" % (statistics.median(v), unit, min(v), max(v), len(v))


# What ratio_line prints, read back by before_after.py: name, ratio, per-pair minimum and maximum, the rest.
RATIO_LINE = re.compile(r"^(.*?): ([0-9.]+) x \(per pair: median [0-9.]+, min ([0-9.]+), max ([0-9.]+)\)(.*)$")


def ratio_line(name, numerators, denominators, goal=None):
    """Ratio of medians, and the median and range of the per-pair ratios."""
    pair = [a / b for a, b in zip(numerators, denominators) if b > 0]
    text = "%s: %.2f x (per pair: median %.2f, min %.2f, max %.2f)" % (
        name, statistics.median(numerators) / statistics.median(denominators), statistics.median(pair), min(pair),
        max(pair))
    if goal is not None:
        text += "  [goal <= %.2f]" % goal
    return text


def print_ratios(lines):
    print()
    for line in lines:
        print(line)


def make_workdir(prefix):
    return tempfile.mkdtemp(prefix=prefix)


def remove_workdir(path, keep=False):
    if keep:
        print("kept", path)
    else:
        shutil.rmtree(path, ignore_errors=True)


def stuffed(body):
    """`body` as it travels inside a multi-line POP3 response: a "." before every line that begins with one."""
    lines = body.split(b"\r\n")
    return b"\r\n".join(b"." + l if l.startswith(b".") else l for l in lines)


class LineClient:
    """A POP3 or SMTP client over a plain socket, for exact bytes: one command per send, as a mail reader does."""

    def __init__(self, port, timeout=60):
        self.sock = socket.create_connection((HOST, port), timeout=timeout)
        self.buf = bytearray()

    def _until(self, end):
        """The received bytes up to and including the first `end`, read from the socket as far as needed."""
        start = 0
        while (found := self.buf.find(end, start)) < 0:
            start = max(0, len(self.buf) - len(end) + 1)
            chunk = self.sock.recv(1 << 20)
            if not chunk:
                raise AssertionError("connection closed; had %r" % bytes(self.buf[-200:]))
            self.buf += chunk
        out = bytes(self.buf[:found + len(end)])
        del self.buf[:found + len(end)]
        return out

    def line(self):
        return self._until(b"\r\n")

    def command(self, text, multiline=False):
        """Sends one command; returns the whole response, up to and including its "." line if multiline."""
        self.sock.sendall(text.encode("latin-1") + b"\r\n")
        first = self.line()
        if not (multiline and first.startswith(b"+OK")):
            return first
        self.buf[:0] = b"\r\n"  # the first line's end, so that a "." line right after it is found too
        return first + self._until(b"\r\n.\r\n")[2:]

    def close(self):
        self.sock.close()
