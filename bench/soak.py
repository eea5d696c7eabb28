#!/usr/bin/env python3
"""A bounded load and soak run of the gateway against tarnwick-webmail, run by hand (never by CTest):

  1. postal (Debian package postal) sends mail through the gateway's SMTP server for --postal-seconds, through
     a small HELO shim (postal greets with EHLO only); then the recipient's inbox is counted.
  2. rabid (same package) reads the sender's mailbox through the POP3 server for --rabid-seconds.
  3. A Python driver sends --messages numbered messages, one SMTP connection each, trying a refused one again
     like a mail reader does, while a POP3 reader keeps listing and fetching the sender's mailbox. Half-way
     tarnwick-webmail is killed (SIGKILL, by its pid) and started again on the same port and store.

Then every stored copy is checked against what was sent: sent (the client was told so), stored, lost (told
sent, not stored), duplicated (stored more than once), half (stored but not whole), and files left in tmp/.
Memory (resident set) of both programs at start and end. Everything runs on 127.0.0.1; every process is
stopped by its pid.

  bench/soak.py [--build build] [--messages 300] [--postal-seconds 70] [--rabid-seconds 20]
"""

import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections import Counter

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "support"))
sys.path.insert(0, HERE)
import bench_support as B  # noqa: E402
import tarnwick_testing as T  # noqa: E402
from helo_shim import HeloShim  # noqa: E402

SENDER, SENDER_PW = "load", "loadpw"
RCPT, RCPT_PW = "rcpt", "rcptpw"
ATTEMPTS = 6


def memory(stack):
    return "gateway %.0f MB, tarnwick-webmail %.0f MB" % (B.rss_mb(stack.gateway.pid), B.rss_mb(stack.webmail.proc.pid))


def pop3_login(stack, user, password):
    """Logs in once, so that the SMTP server sends with this account (the gateway uses the last POP3 log-in)."""
    stack.wait_listening(stack.pop3_port)
    c = B.LineClient(stack.pop3_port)
    c.line()
    c.command("USER " + user)
    c.command("PASS " + password)
    answer = c.command("STAT")
    c.command("QUIT")
    c.close()
    return answer


def message(i):
    """Message number i: a unique Message-ID, a size that varies from 1 KB to about 200 KB, and a last line that
    says how long the text above it is, so a copy cut short is seen as such."""
    head = ("From: Load <load@tarnwick.local>\r\nTo: rcpt@tarnwick.local\r\nSubject: soak %d\r\n"
            "Message-ID: <soak-%d@tarnwick.local>\r\n\r\n" % (i, i)).encode()
    lines = 10 + (i * 7919) % 2500
    body = b"".join(b"line %06d of message %d: the quick brown fox jumps over the lazy dog\r\n" % (n, i)
                    for n in range(lines))
    if i % 11 == 0:
        body += b".a line that begins with a dot\r\n"
    return head + body + b"end of message %d\r\n" % i


def send_one(stack, i):
    """One SMTP session for message i; the reply to the end of data, or the error that ended the session."""
    port = stack.smtp_port
    try:
        # The gateway serves one SMTP client at a time and listens again once the last one's close is handled.
        stack.wait_listening(port)
        c = B.LineClient(port, timeout=120)
    except OSError as e:
        return "connect: " + e.strerror
    try:
        c.line()
        for command in ("HELO soak", "MAIL FROM:<load@tarnwick.local>", "RCPT TO:<rcpt@tarnwick.local>"):
            c.command(command)
        if not c.command("DATA").startswith(b"354"):
            return "DATA refused"
        c.sock.sendall(B.stuffed(message(i)) + b".\r\n")
        reply = c.line()
        while reply == b"250 ok\r\n":
            reply = c.line()
        c.command("QUIT")
        return reply.decode("latin-1").strip()
    except (OSError, AssertionError) as e:
        return "session: %s" % e
    finally:
        c.close()


class Pop3Reader(threading.Thread):
    """Lists and fetches the sender's mailbox again and again; counts each answer it gets by its first line."""

    def __init__(self, stack):
        super().__init__(daemon=True)
        self.stack = stack
        self.seen = Counter()
        self.stop = threading.Event()

    def run(self):
        while not self.stop.is_set():
            try:
                self.stack.wait_listening(self.stack.pop3_port)
                c = B.LineClient(self.stack.pop3_port, timeout=120)
            except (OSError, AssertionError):
                self.seen["connect failed"] += 1
                time.sleep(0.2)
                continue
            try:
                c.line()
                c.command("USER " + SENDER)
                c.command("PASS " + SENDER_PW)
                stat = c.command("STAT")
                self.seen["STAT " + stat.decode("latin-1").strip()[:60]] += 1
                if stat.startswith(b"+OK") and not stat.startswith(b"+OK 0 "):
                    first = c.command("RETR 1", multiline=True).split(b"\r\n", 1)[0]
                    self.seen["RETR 1 " + re.sub(r"\d+", "N", first.decode("latin-1"))[:60]] += 1
                c.command("QUIT")
            except (OSError, AssertionError) as e:
                self.seen["session ended: " + str(e)[:50]] += 1
            finally:
                c.close()
            time.sleep(0.05)


def restart_webmail(stack):
    """SIGKILL to tarnwick-webmail by its pid, then the same program on the same port and store."""
    os.kill(stack.webmail.proc.pid, signal.SIGKILL)
    stack.webmail.proc.wait()
    for _ in range(50):
        try:
            stack.webmail = T.Webmail(stack.dir, "webmail", stack.store.root, port=stack.service_port)
            return
        except AssertionError:
            time.sleep(0.1)
    raise SystemExit("tarnwick-webmail did not start again on port %d" % stack.service_port)


def kill_during_sends(stack, told_sent, kills):
    """Once as many messages as each entry of `kills` are told sent, kills tarnwick-webmail a moment later, while
    the next message is on its way, and starts it again."""
    for n, count in enumerate(kills):
        while len(told_sent) < count:
            time.sleep(0.001)
        time.sleep(0.005 * (n % 5))
        restart_webmail(stack)
        print("tarnwick-webmail killed (SIGKILL) and started again after %d messages were told sent" % count)


def stored_copies(stack, folder_user):
    """Message-ID number -> list of stored texts (trace fields removed) in the user's inbox."""
    copies = {}
    for text in stack.store.folder_messages(folder_user):
        m = re.search(rb"Message-ID: <soak-(\d+)@", text)
        if m:
            start = text.index(b"From: Load")
            copies.setdefault(int(m.group(1)), []).append(text[start:])
    return copies


def tmp_files(stack):
    found = []
    for dirpath, _, filenames in os.walk(stack.store.root):
        if os.path.basename(dirpath) == "tmp":
            found += filenames
    return found


def run_postal(stack, seconds, max_kb):
    if seconds <= 0 or not shutil.which("postal"):
        print("postal: skipped (%s)" % ("not installed" if seconds > 0 else "--postal-seconds 0"))
        return
    shim = HeloShim(stack.smtp_port)
    users = os.path.join(stack.dir, "postal-users")
    senders = os.path.join(stack.dir, "postal-senders")
    with open(users, "w") as f:
        f.write("rcpt@tarnwick.local\n")
    with open(senders, "w") as f:
        f.write("load@tarnwick.local\n")
    before = len(stack.store.folder_messages(RCPT))
    # One thread: the gateway serves one SMTP client at a time and refuses the others.
    # stdbuf: postal prints a line per minute and would lose it in its buffer when the time-out stops it.
    run = subprocess.run(["timeout", "-s", "TERM", str(seconds), "stdbuf", "-oL", "postal", "-t", "1", "-c", "1",
                          "-m", str(max_kb),
                          "-r", "600", "-f", senders, "[127.0.0.1]%d" % shim.port, users],
                         capture_output=True, text=True, cwd=stack.dir)  # it writes postal.log where it runs
    shim.close()
    stored = stack.store.folder_messages(RCPT)[before:]
    # postal's Message-Ids repeat now and then; a duplicate is the same text (below the trace field) twice.
    texts = Counter(t[t.index(b"From: "):] if b"From: " in t else t for t in stored)
    ids = Counter(m.group(1) for t in stored if (m := re.search(rb"Message-Id: (<[^>]+>)", t)))
    stats = [line for line in run.stdout.splitlines() if re.match(r"\d\d:\d\d,", line)]
    # postal.log: one line per message postal counts as sent, starting with the hash its X-PostalHash carries.
    try:
        with open(os.path.join(stack.dir, "postal.log")) as f:
            sent = Counter(line.split()[0] for line in f if line.strip())
    except FileNotFoundError:
        sent = Counter()
    hashes = Counter(m.group(1).decode() for t in stored if (m := re.search(rb"X-PostalHash: (\w+)", t)))
    print("postal: sent (its postal.log) %d, of them not stored %d" % (sum(sent.values()), len(set(sent) - set(hashes))))
    print("postal: %d s, bodies up to %d KB, its per-minute lines (time,messages,data K,errors,connections,ssl): %s"
          % (seconds, max_kb, "; ".join(stats) or "none"))
    print("postal: stored %d, distinct texts %d (distinct Message-Ids %d), duplicated %d; postal's own error "
          "lines: %d (%s)" % (len(stored), len(texts), len(ids), sum(n - 1 for n in texts.values()), run.stderr.count("\n"),
             Counter(run.stderr.splitlines()).most_common(2)))


def run_rabid(stack, seconds):
    if seconds <= 0 or not shutil.which("rabid"):
        print("rabid: skipped (%s)" % ("not installed" if seconds > 0 else "--rabid-seconds 0"))
        return
    users = os.path.join(stack.dir, "rabid-users")
    with open(users, "w") as f:
        f.write("%s %s\n" % (SENDER, SENDER_PW))
    debug = os.path.join(stack.dir, "rabid-debug")
    run = subprocess.run(["timeout", "-s", "TERM", str(seconds), "rabid", "-p", "1", "-c", "3", "-z", debug,
                          "[127.0.0.1]%d" % stack.pop3_port, users], capture_output=True, text=True,
                         cwd=stack.dir)
    log = ""
    for name in sorted(os.listdir(stack.dir)):
        if name.startswith("rabid-debug"):
            with open(os.path.join(stack.dir, name), errors="replace") as f:
                log += f.read()
    commands = re.findall(r"(?mi)^(USER|PASS|STAT|LIST|UIDL|TOP \d+ \d+|RETR \d+|DELE \d+|QUIT)\b", log)
    print("rabid: %d s, exit %d, commands it sent: %s; last lines of its log: %r"
          % (seconds, run.returncode, " ".join(commands[:12]) + (" ..." if len(commands) > 12 else ""),
             log.strip().splitlines()[-2:]))
    pop3_login(stack, SENDER, SENDER_PW)  # rabid may leave the gateway's last log-in elsewhere


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(T.ROOT, "build"))
    parser.add_argument("--messages", type=int, default=300)
    parser.add_argument("--postal-seconds", type=int, default=70)
    parser.add_argument("--postal-max-kb", type=int, default=8, help="postal's largest message body")
    parser.add_argument("--rabid-seconds", type=int, default=20)
    parser.add_argument("--kills", type=int, default=3, help="times tarnwick-webmail is killed during the sends")
    args = parser.parse_args()
    os.environ.setdefault("TARNWICK_GATEWAY", os.path.join(args.build, "app", "tarnwick-gateway"))
    os.environ.setdefault("TARNWICK_WEBMAIL", os.path.join(args.build, "webmail", "tarnwick-webmail"))

    stack = T.Stack()
    stack.store.add_user(SENDER, SENDER_PW)
    stack.store.add_user(RCPT, RCPT_PW)
    for i in range(5):
        stack.store.deliver(SENDER, b"Subject: waiting %d\r\n\r\nfor the readers\r\n" % i)
    stack.start()
    try:
        pop3_login(stack, SENDER, SENDER_PW)
        print("memory at start: " + memory(stack))
        run_postal(stack, args.postal_seconds, args.postal_max_kb)
        run_rabid(stack, args.rabid_seconds)

        for i in range(20):  # rabid deletes what it reads: mail for the POP3 reader below
            stack.store.deliver(SENDER, b"Subject: waiting %d\r\n\r\nfor the reader\r\n" % i)
        reader = Pop3Reader(stack)
        reader.start()
        replies, told_sent, refused_then = Counter(), set(), Counter()
        kills = [args.messages * (k + 1) // (args.kills + 1) for k in range(args.kills)]
        killer = threading.Thread(target=kill_during_sends, args=(stack, told_sent, kills), daemon=True)
        killer.start()
        started = time.monotonic()
        for i in range(args.messages):
            for attempt in range(ATTEMPTS):
                reply = send_one(stack, i)
                replies[reply if not reply.startswith("session") else "session ended"] += 1
                if reply == "250 message queued":
                    told_sent.add(i)
                    break
                refused_then[i] += 1
                time.sleep(0.3)
        killer.join(60)
        reader.stop.set()
        reader.join(30)
        took = time.monotonic() - started
        stack.wait_listening(stack.smtp_port)

        copies = stored_copies(stack, RCPT)
        whole = {i for i, texts in copies.items() if any(t == message(i) for t in texts)}
        half = sorted(i for i, texts in copies.items() if any(t != message(i) for t in texts))
        lost = sorted(told_sent - set(copies))
        duplicated = sorted(i for i, texts in copies.items() if len(texts) > 1)
        never_sent = sorted(set(range(args.messages)) - told_sent)
        print("driver: %d messages in %.0f s; replies to the end of data: %s" % (args.messages, took,
                                                                               dict(replies)))
        print("driver: told sent %d (%d of them after a refusal), stored %d distinct (%d whole), lost %d %s, "
              "duplicated %d %s, half %d %s, never sent after %d tries %d %s"
              % (len(told_sent), len(refused_then), len(copies), len(whole), len(lost), lost[:10],
                 len(duplicated), duplicated[:10], len(half), half[:10], ATTEMPTS, len(never_sent),
                 never_sent[:10]))
        print("POP3 reader saw: %s" % dict(reader.seen))
        print("files left in tmp/ folders: %d" % len(tmp_files(stack)))
        print("memory at end: " + memory(stack))
    finally:
        stack.stop()


if __name__ == "__main__":
    main()
