"""Real SMTP clients as a mail reader's user sets them up for a plain SMTP server without authentication (msmtp,
curl's smtp://, swaks, Python's smtplib in a child process), sending through the gateway of a Stack, and the
messages they send. The gateway relays with the credentials its POP3 server last received: fetch first."""

import collections
import re
import subprocess
import sys

from tarnwick_testing import HOST

CLIENT_TIMEOUT = 300


# Whether the client said the message went out, and everything it printed.
Sent = collections.namedtuple("Sent", "ok output")


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
    # swaks puts a line break of its own before the "." line, so it is given the text without its last one.
    return _run(["swaks", "--server", HOST, "--port", str(port), "--from", sender, "--to", ",".join(recipients),
                 "--data", "-", "--suppress-data", "--timeout", str(CLIENT_TIMEOUT)],
                message[:-2] if message.endswith(b"\r\n") else message)


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
    return re.sub(rb"\A(?:Received:.*\r\n(?:[ \t].*\r\n)*)*", b"", stored)
