"""What the Python tests and the benchmarks share: free ports on 127.0.0.1, processes stopped by their pid,
tarnwick-webmail on a temporary Maildir store with one headless tarnwick-gateway pointed at it (or at another
service), and a POP3 fetch through the gateway. The binaries come from TARNWICK_GATEWAY and TARNWICK_WEBMAIL
(CTest sets them), else from the build folder at the top of the tree."""

import os
import poplib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

HOST = "127.0.0.1"
SERVICE_PATH = "/svcs/hotmail/tarnwick.asp"
TRASH_FOLDER = "Deleted Items"
ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))


def binary(variable, build_path):
    return os.environ.get(variable) or os.path.join(ROOT, "build", build_path)


# The line the gateway puts in front of every message it serves, with the version the top CMakeLists.txt names.
with open(os.path.join(ROOT, "CMakeLists.txt"), "rb") as f:
    APP_LINE = b"X-Application: Tarnwick Gateway - " + re.search(rb"project\(\w+ VERSION ([\d.]+)", f.read()).group(1)
LISTENING_LINE = re.compile(rb"listening on (?:https?://)?(?:127\.0\.0\.1|\[::1\]):(\d+)")
# tarnwick-webmail logs one line per HTTP request: method, path, status, ...
REQUEST_LINE = re.compile(r"^[A-Z]+ /\S* \d{3} .*$", re.MULTILINE)


def free_port():
    """A port that nothing listened on a moment ago (the caller retries on the rare collision)."""
    return two_free_ports()[0]


def two_free_ports():
    with socket.socket() as first, socket.socket() as second:
        first.bind((HOST, 0))
        second.bind((HOST, 0))
        return first.getsockname()[1], second.getsockname()[1]


def is_listening(port):
    """Whether some socket listens on 127.0.0.1:port, read from /proc: a probe connection would be the
    gateway's one client."""
    wanted = {"0100007F:%04X" % port, "0000000000000000FFFF00000100007F:%04X" % port}
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        if os.path.exists(table):  # not without IPv6
            with open(table) as f:
                if any(fields[1] in wanted and fields[3] == "0A" for fields in map(str.split, f)):
                    return True
    return False


def read_file(path):
    """The file's bytes, or b"" while it does not exist (a log a process has not written yet)."""
    try:
        with open(path, "rb") as f:
            return f.read()
    except FileNotFoundError:
        return b""


def wait_for(predicate, timeout, what, poll=0.02):
    """The predicate's first true value, looked for until `timeout` seconds have passed."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if value := predicate():
            return value
        time.sleep(poll)
    raise AssertionError("timed out waiting for " + what)


def stop_process(proc):
    """Stops one process we started, by its pid: SIGTERM, then SIGKILL if it lingers."""
    if proc is None or proc.poll() is not None:
        return
    os.kill(proc.pid, signal.SIGTERM)
    try:
        proc.wait(timeout=5)
    except subprocess.TimeoutExpired:
        os.kill(proc.pid, signal.SIGKILL)
        proc.wait(timeout=5)


def start(command, log, ready, what, **popen):
    """Starts a process (its output appended to the file `log`) and waits until ready() is true; fails with the
    log if the process ends first, and stops it on any failure."""
    with open(log, "ab") as out:
        proc = subprocess.Popen(command, stdout=out, stderr=out, stdin=subprocess.DEVNULL, **popen)

    def up():
        if proc.poll() is not None:
            raise AssertionError("%s exited:\n%s" % (what, read_file(log).decode("latin-1")))
        return ready()

    try:
        wait_for(up, 20, what + " to start")
    except BaseException:
        stop_process(proc)
        raise
    return proc


class Webmail:
    """One tarnwick-webmail over `store`, listening on `host`:`port` (ephemeral by default); its output is
    appended to folder/NAME.log."""

    def __init__(self, folder, name, store, args=(), port=0, host=HOST):
        self.log_path = os.path.join(folder, name + ".log")
        skip = len(read_file(self.log_path))  # a restart's listening line comes after the old output
        self.port = None

        def bound():
            m = LISTENING_LINE.search(read_file(self.log_path)[skip:])
            self.port = m and int(m.group(1))
            return self.port

        self.proc = start([binary("TARNWICK_WEBMAIL", "webmail/tarnwick-webmail"), "--store", store, "--listen",
                           "%s:%d" % (host, port), *args], self.log_path, bound, "tarnwick-webmail")

    def output(self):
        return read_file(self.log_path).decode("latin-1")

    def requests(self):
        return REQUEST_LINE.findall(self.output())

    def stop(self):
        stop_process(self.proc)
        return self.proc.returncode


class Store:
    """A tarnwick-webmail Maildir store: a password file and one Maildir++ tree per account."""

    def __init__(self, root):
        self.root = root
        self._accounts = {}
        self._clock = 1_600_000_000  # message files get increasing times: the listing is oldest first
        os.makedirs(root, exist_ok=True)

    def add_user(self, name, password):
        self._accounts[name] = password
        for folder in ("", ".Sent Items", "." + TRASH_FOLDER, ".Outbox"):
            for sub in ("cur", "new", "tmp"):
                os.makedirs(os.path.join(self.root, name, folder, sub), exist_ok=True)
        with open(os.path.join(self.root, "passwd"), "w") as f:
            f.writelines("%s:%s\n" % account for account in sorted(self._accounts.items()))
        os.chmod(os.path.join(self.root, "passwd"), 0o600)

    def deliver(self, user, data, seen=False):
        """Puts one message into the user's inbox, unread in new/ or read in cur/ with flag S."""
        self._clock += 60
        name = "%d.M%dP%dQ1.e2e" % (self._clock, self._clock % 1000000, os.getpid())
        inbox = os.path.join(self.root, user)
        with open(os.path.join(inbox, "tmp", name), "wb") as f:
            f.write(data)
        final = os.path.join(inbox, "cur", name + ":2,S") if seen else os.path.join(inbox, "new", name)
        os.rename(os.path.join(inbox, "tmp", name), final)
        os.utime(final, (self._clock, self._clock))
        return name

    def folder_messages(self, user, folder=""):
        """The contents of every message file in one folder of the user (INBOX when folder is empty)."""
        base = os.path.join(self.root, user, ("." + folder) if folder else "")
        return [read_file(os.path.join(base, sub, name)) for sub in ("new", "cur")
                for name in sorted(os.listdir(os.path.join(base, sub)))]


class Stack:
    """The running pair: webmail on an ephemeral port, the gateway headless on two free ports. Given a
    `service_url`, only the gateway runs, pointed at that service."""

    def __init__(self, webmail_args=(), service_url=None, gateway_args=()):
        self.webmail_args = list(webmail_args)
        self.gateway_args = list(gateway_args)
        self._service_url = service_url
        self.dir = tempfile.mkdtemp(prefix="tarnwick-e2e-")
        self.store = Store(os.path.join(self.dir, "store"))
        self.webmail = self.gateway = self.service_port = self.pop3_port = self.smtp_port = None

    def start(self):
        try:
            if self._service_url is None:
                self.webmail = Webmail(self.dir, "webmail", self.store.root, self.webmail_args)
                self.service_port = self.webmail.port
            self._start_gateway()
        except BaseException:
            self.stop()
            raise

    def stop(self):
        stop_process(self.gateway)
        if self.webmail:
            self.webmail.stop()
        shutil.rmtree(self.dir, ignore_errors=True)

    def restart_webmail(self, kill=False, webmail_args=None):
        """Stops tarnwick-webmail (SIGKILL when `kill`) and starts it again on the same store and port, with new
        arguments if given."""
        if kill:
            os.kill(self.webmail.proc.pid, signal.SIGKILL)
        self.webmail.stop()  # waits for the killed process too
        if webmail_args is not None:
            self.webmail_args = list(webmail_args)
        self.webmail = Webmail(self.dir, "webmail", self.store.root, self.webmail_args, port=self.service_port)

    def _start_gateway(self):
        service_url = self._service_url or "http://%s:%d%s" % (HOST, self.service_port, SERVICE_PATH)
        runtime = os.path.join(self.dir, "runtime")
        os.makedirs(runtime, mode=0o700, exist_ok=True)
        env = dict(os.environ, XDG_RUNTIME_DIR=runtime, QT_QPA_PLATFORM="offscreen")
        for attempt in range(5):
            self.pop3_port, self.smtp_port = two_free_ports()
            try:
                self.gateway = start([binary("TARNWICK_GATEWAY", "app/tarnwick-gateway"), "--headless", "--pop3-port",
                                      str(self.pop3_port), "--smtp-port", str(self.smtp_port), "--service-url",
                                      service_url] + self.gateway_args, os.path.join(self.dir, "gateway.out"),
                                     lambda: is_listening(self.pop3_port) and is_listening(self.smtp_port),
                                     "the gateway", env=env)
                return
            except AssertionError:
                pass  # most likely another process took one of the ports in the meantime: try two fresh ones
        raise AssertionError("the gateway did not start:\n" + self.gateway_log())

    def gateway_log(self):
        return read_file(os.path.join(self.dir, "gateway.out")).decode("latin-1")

    def wait_listening(self, port):
        """The gateway listens again only after the previous client's close has been handled."""
        wait_for(lambda: is_listening(port), 30, "the gateway to listen again on %d" % port)

    def pop3(self, user, password):
        """Python's poplib on the gateway, logged in (a failed log-in raises poplib.error_proto)."""
        self.wait_listening(self.pop3_port)
        pop = poplib.POP3(HOST, self.pop3_port, timeout=120)
        pop.user(user)
        pop.pass_(password)
        return pop


def answer(pop, command, multiline=False):
    """The answer a poplib client gets to one command: its reply line (a refusal too), and after +OK to a
    multi-line command the lines that follow, un-stuffed and joined by CR LF."""
    try:
        if not multiline:
            return pop._shortcmd(command)
        first, lines, _ = pop._longcmd(command)
        return first, b"\r\n".join(lines)
    except poplib.error_proto as refused:
        return refused.args[0]


def fetch(stack, user, password):
    """Every message of the user's inbox as a POP3 reader gets it through the gateway: the gateway's line, CR LF,
    then the message."""
    pop = stack.pop3(user, password)
    try:
        return [b"\r\n".join(pop.retr(i)[1]) for i in range(1, pop.stat()[0] + 1)]
    finally:
        pop.quit()

