"""Real SMTP clients as a mail reader's user sets them up for a plain SMTP server without authentication (msmtp,
curl's smtp://, swaks, Python's smtplib in a child process), sending through the gateway of a Stack, and the
messages they send. The gateway relays with the credentials its POP3 server last received: fetch first."""

import subprocess
import sys
import tempfile

from tarnwick_testing import HOST

CLIENT_TIMEOUT = 300


class Sent:
    """Whether the client said the message went out, and everything it printed."""

    def __init__(self, ok, output):
        self.ok, self.output = ok, output

    def __repr__(self):
        return "Sent(ok=%r, output=%r)" % (self.ok, self.output[-1500:])


def _run(args, data=None):
    result = subprocess.run(args, input=data, capture_output=True, timeout=CLIENT_TIMEOUT)
    return Sent(result.returncode == 0, (result.stdout + result.stderr).decode("latin-1"))


def with_msmtp(port, sender, recipients, message):
    return _run(["msmtp", "--file=/dev/null", "--host=" + HOST, "--port=%d" % port, "--tls=off", "--auth=off",
                 "--from=" + sender, "--", *recipients], message)


def with_curl(port, sender, recipients, message):
    return _run(["curl", "--silent", "--show-error", "--noproxy", "*", "smtp://%s:%d" % (HOST, port),
                 "--mail-from", sender, *(a for r in recipients for a in ("--mail-rcpt", r)), "--upload-file", "-"],
                message)


def with_swaks(port, sender, recipients, message):
    # swaks puts a line break of its own before the "." line, so the file holds the text without its last one.
    with tempfile.NamedTemporaryFile(prefix="tarnwick-swaks-", suffix=".eml") as f:
        f.write(message[:-2] if message.endswith(b"\r\n") else message)
        f.flush()
        return _run(["swaks", "--server", HOST, "--port", str(port), "--from", sender, "--to", ",".join(recipients),
                     "--data", "@" + f.name, "--suppress-data", "--timeout", str(CLIENT_TIMEOUT)])


def with_smtplib(port, sender, recipients, message):
    # The protocol trace is left out for large messages, which it would print whole.
    script = ("import smtplib, sys\ns = smtplib.SMTP(%r, %d, timeout=%d)\ns.set_debuglevel(%d)\n"
              "s.sendmail(%r, %r, sys.stdin.buffer.read())\ns.quit()\n"
              % (HOST, port, CLIENT_TIMEOUT, len(message) < (1 << 20), sender, list(recipients)))
    return _run([sys.executable, "-c", script], message)


CLIENTS = {"msmtp": with_msmtp, "curl": with_curl, "smtplib": with_smtplib, "swaks": with_swaks}


def send(stack, client, sender, recipients, message):
    """Sends `message` with one of CLIENTS through the stack's gateway; returns a Sent."""
    stack.wait_listening(stack.smtp_port)
    return CLIENTS[client](stack.smtp_port, sender, recipients, message)


def without_trace(stored):
    """A stored message without the "Received:" fields (and their continuation lines) the service puts in front."""
    rest = stored
    while rest[:9].lower() == b"received:":
        end = rest.find(b"\r\n")
        while end >= 0 and rest[end + 2:end + 3] in (b" ", b"\t"):
            end = rest.find(b"\r\n", end + 2)
        if end < 0:
            break
        rest = rest[end + 2:]
    return rest


def with_headers(message):
    """`message` with the Date and Message-ID fields msmtp would otherwise add, so that every client sends the
    same bytes."""
    return b"Date: Mon, 23 Nov 2026 10:00:00 +0000\r\nMessage-ID: <%d@example.org>\r\n" % len(message) + message

