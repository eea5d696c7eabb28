"""The four SMTP clients of the end-to-end tests, each run as a mail reader's user would configure it against a
plain SMTP server without authentication, the POP3 fetch that must come first (the gateway relays with the
credentials its POP3 server last received), and the messages they send."""

import base64
import poplib
import subprocess
import sys
import tempfile

from tarnwick_testing import HOST

CLIENT_TIMEOUT = 300
TRACE_LIMIT = 1 << 20


class Sent:
    """What a client reported: whether it said the message went out, and everything it printed."""

    def __init__(self, ok, output):
        self.ok = ok
        self.output = output

    def __repr__(self):
        return "Sent(ok=%r, output=%r)" % (self.ok, self.output[-1500:])


def fetch_once(stack, user, password):
    """A mail reader's first fetch: it fills the gateway's credential store."""
    stack.wait_listening(stack.pop3_port)
    pop = poplib.POP3(HOST, stack.pop3_port, timeout=120)
    pop.user(user)
    pop.pass_(password)
    pop.stat()
    pop.quit()


def _run(args, data=None):
    result = subprocess.run(args, input=data, capture_output=True, timeout=CLIENT_TIMEOUT)
    return Sent(result.returncode == 0, (result.stdout + result.stderr).decode("latin-1"))


def with_msmtp(stack, sender, recipient, message):
    # No configuration file: host, port and sender on the command line; no TLS, no authentication.
    return _run(["msmtp", "--file=/dev/null", "--host=" + HOST, "--port=%d" % stack.smtp_port,
                 "--tls=off", "--auth=off", "--from=" + sender, "--", recipient], message)


def with_curl(stack, sender, recipient, message):
    return _run(["curl", "--silent", "--show-error", "--noproxy", "*", "smtp://%s:%d" % (HOST, stack.smtp_port),
                 "--mail-from", sender, "--mail-rcpt", recipient, "--upload-file", "-"], message)


def with_swaks(stack, sender, recipient, message):
    # swaks puts a line break of its own before the "." line: a text that ends with one would gain an empty
    # line, so the file holds the text without it.
    with tempfile.NamedTemporaryFile(prefix="tarnwick-swaks-", suffix=".eml") as f:
        f.write(message[:-2] if message.endswith(b"\r\n") else message)
        f.flush()
        return _run(["swaks", "--server", HOST, "--port", str(stack.smtp_port), "--from", sender,
                     "--to", recipient, "--data", "@" + f.name, "--suppress-data", "--timeout", str(CLIENT_TIMEOUT)])


def with_smtplib(stack, sender, recipient, message):
    # In a child process, as a user's own script would run it; its output is the protocol trace (left out for
    # large messages, which it would print whole).
    script = ("import smtplib, sys\n"
              "s = smtplib.SMTP(%r, %d, timeout=%d)\n"
              "s.set_debuglevel(%d)\n"
              "s.sendmail(%r, [%r], sys.stdin.buffer.read())\n"
              "s.quit()\n" % (HOST, stack.smtp_port, CLIENT_TIMEOUT, len(message) < TRACE_LIMIT, sender, recipient))
    return _run([sys.executable, "-c", script], message)


CLIENTS = {"msmtp": with_msmtp, "curl": with_curl, "smtplib": with_smtplib, "swaks": with_swaks}


def send(stack, client, sender, recipient, message):
    stack.wait_listening(stack.smtp_port)
    return CLIENTS[client](stack, sender, recipient, message)


def without_trace(stored):
    """A stored message without the trace header lines the service may put in front ("Received:" and their
    continuation lines)."""
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
    """`message` with the Date and Message-ID header lines msmtp would otherwise add, so that every client
    sends the same bytes."""
    return b"Date: Mon, 23 Nov 2026 10:00:00 +0000\r\nMessage-ID: <%d@example.org>\r\n" % len(message) + message


def attachment_message(size):
    """A MIME message with a text part and a binary attachment whose base64 form is about `size` bytes."""
    raw = bytes((i * 7 + i // 251) & 0xFF for i in range(size * 3 // 4))
    encoded = base64.encodebytes(raw).replace(b"\n", b"\r\n")
    return (b"From: Sam <sam@tarnwick.local>\r\nTo: carl@tarnwick.local\r\nSubject: The big file\r\n"
            b"MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n"
            b"--b1\r\nContent-Type: text/plain\r\n\r\nThe file is attached.\r\n"
            b"--b1\r\nContent-Type: application/octet-stream\r\n"
            b"Content-Disposition: attachment; filename=\"big.bin\"\r\nContent-Transfer-Encoding: base64\r\n\r\n"
            + encoded + b"--b1--\r\n")
