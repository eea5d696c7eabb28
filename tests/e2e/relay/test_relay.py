"""Mail through the gateway to another domain reaches a real mail server (a private Postfix) through
tarnwick-webmail's relay: byte for byte, with its envelope, one transaction for all recipients; a recipient
refused for now is tried again alone, one refused for good comes back to the sender as a delivery report; a
second service on the same store leaves the queue alone; mail waits in the Outbox while the server is down; a
kill -9 during a relay delivers once; TLS and a log-in with a checked certificate. And mail the
server delivers into an account's Maildir is mail the gateway serves."""

import email
import os
import re
import tempfile
import time
import unittest
import urllib.request

import mail_server
import smtp_clients as C
from tarnwick_testing import HOST, Stack, Webmail, fetch, wait_for

SENDER = "sam@tarnwick.local"
RETRY = ["--relay-retry", "1s,2s"]
mx = stack = work = None


def setUpModule():
    global mx, stack, work
    if reason := mail_server.unavailable():
        raise unittest.SkipTest(reason)
    work = tempfile.TemporaryDirectory(prefix="tarnwick-relay-")
    unittest.addModuleCleanup(work.cleanup)
    os.chmod(work.name, 0o711)  # for Postfix's own user
    mx = mail_server.Postfix(os.path.join(work.name, "mx"),
                             mailboxes={"someone@example.test": "someone/", "another@example.test": "another/"})
    unittest.addModuleCleanup(mx.stop)
    mx.start()
    stack = Stack(webmail_args=["--relay", mx.url()] + RETRY)
    unittest.addModuleCleanup(stack.stop)
    stack.store.add_user("sam", "sam-pw")
    stack.store.add_user("lena", "lena-pw")
    stack.start()
    fetch(stack, "sam", "sam-pw")  # the gateway sends with the credentials of the last fetch


def restart_mx(refused=None, data_pause=0):
    """Starts the mail server again on its port, refusing `refused` at RCPT and pausing `data_pause` s at DATA."""
    mx.stop()
    mx.refused, mx.data_pause = dict(refused or {}), data_pause
    mx.start()


def send(recipients, text):
    sent = C.send(stack, "msmtp", SENDER, recipients, text)
    if not sent.ok:
        raise AssertionError(sent)


def message(subject):
    # A dot at a line's start and 8-bit text: neither may change on the way.
    return (b"Date: Mon, 23 Nov 2026 10:00:00 +0000\r\nMessage-ID: <%s@tarnwick.local>\r\n"
            b"From: Sam <sam@tarnwick.local>\r\nTo: someone@example.test\r\nSubject: %s\r\n\r\n"
            b"Hello out there.\r\n.A line that starts with a dot\r\nGr\xfc\xdfe\r\n"
            % (subject.replace(" ", "-").encode(), subject.encode()))


def split_trace(delivered):
    """The envelope sender and recipient Postfix records (Return-Path, Delivered-To) and what follows its own
    Received field."""
    m = re.match(rb"Return-Path: <([^>]*)>\n(?:X-Original-To: \S+\n)?Delivered-To: (\S+)\n"
                 rb"Received: [^\n]*\n(?:[ \t][^\n]*\n)*", delivered)
    if not m:
        raise AssertionError("no Postfix trace lines at the top of %r" % delivered[:400])
    return m.group(1).decode(), m.group(2).decode(), delivered[m.end():]


class Relay(unittest.TestCase):

    def test_1_one_transaction_for_all_a_recipient_refused_for_now_tried_alone_and_one_queue_runner(self):
        # A second service on the same store all along must leave the queue to the first.
        second = Webmail(work.name, "second", stack.store.root, ["--relay", mx.url()] + RETRY)
        self.addCleanup(second.stop)
        wait_for(lambda: "another process runs this store's queue" in second.output(), 20, "the queue found taken")
        restart_mx(refused={"busy@example.test": "450 4.2.0 mailbox busy"})
        try:
            # Posted to the send address as the gateway posts, but with several recipients (urlopen raises unless 2xx).
            envelope = (b"MAIL FROM:<sam@tarnwick.local>\r\nRCPT TO:<someone@example.test>\r\n"
                        b"RCPT TO:<another@example.test>\r\nRCPT TO:<busy@example.test>\r\n\r\n")
            url = "http://%s:%d/mail/sam/sendmsg" % (HOST, stack.service_port)
            headers = {"Content-Type": "message/rfc821", "Authorization": "Basic c2FtOnNhbS1wdw=="}
            urllib.request.urlopen(urllib.request.Request(url, envelope + message("Partly") + b".\r\n", headers),
                                   timeout=30).close()
            for address in ("someone@example.test", "another@example.test"):
                self.assertEqual(split_trace(mx.wait_delivered(address, b"Subject: Partly", 20)[0])[:2],
                                 (SENDER, address))
            wait_for(lambda: "sending to <busy@example.test> via" in stack.webmail.output(), 20, "a second attempt")
            self.assertIn("deferred <busy@example.test>: 450 4.2.0 <busy@example.test>: Recipient address "
                          "rejected: mailbox busy", stack.webmail.output())
        finally:
            restart_mx()
        # Now the server knows no such mailbox: the report comes back, fetched through the gateway.
        wait_for(lambda: any(b"Subject: Partly" in m for m in stack.store.folder_messages("sam")), 20,
                 "the report for busy@")
        wait_for(lambda: stack.store.folder_messages("sam", "Outbox") == [], 10, "the Outbox to empty")
        (report,) = [m for m in fetch(stack, "sam", "sam-pw") if b"Subject: Partly" in m]
        parsed = email.message_from_bytes(report.split(b"\r\n", 1)[1])
        self.assertEqual(parsed.get_content_type(), "multipart/report")
        _, status, headers = parsed.get_payload()
        fields = dict(item for block in status.get_payload() for item in block.items())
        self.assertEqual((fields["Final-Recipient"], fields["Action"], fields["Status"]),
                         ("rfc822; busy@example.test", "failed", "5.1.1"))
        self.assertTrue(fields["Diagnostic-Code"].startswith("smtp; 550 5.1.1 <busy@example.test>: "), fields)
        self.assertIn("Message-ID: <Partly@tarnwick.local>", headers.get_payload())
        # One transaction for the two the server took, and none again after busy@ was tried alone.
        self.assertEqual(len(re.findall(r"from=<sam@tarnwick\.local>, size=\d+, nrcpt=2 ", mx.log())), 1)
        self.assertNotIn("sending to", second.output())

    def test_2_waits_while_the_mail_server_is_down_then_goes_out_byte_for_byte_with_its_envelope(self):
        text = message("While you were out")
        mx.stop()
        try:
            send(["someone@example.test"], text)
            wait_for(lambda: "deferred <someone@example.test>" in stack.webmail.output(), 20, "a deferral")
            self.assertEqual(len(stack.store.folder_messages("sam", "Outbox")), 1)
        finally:
            mx.start()
        # The pauses are 1 s then 2 s: the next attempt comes within a few seconds of the server's start.
        (delivered,) = mx.wait_delivered("someone@example.test", b"Subject: While you were out", 10)
        wait_for(lambda: stack.store.folder_messages("sam", "Outbox") == [], 10, "the Outbox to empty")
        self.assertEqual(split_trace(delivered)[:2], (SENDER, "someone@example.test"))
        # Postfix stores lines with LF; otherwise the text is the Sent Items copy, tarnwick-webmail's trace
        # field and all, and it ends with exactly what msmtp sent.
        (copy,) = [m for m in stack.store.folder_messages("sam", "Sent Items") if b"While you were out" in m]
        self.assertEqual(split_trace(delivered)[2], copy.replace(b"\r\n", b"\n"))
        self.assertTrue(copy.endswith(text))

    def test_4_killed_during_a_relay_and_restarted_delivers_once(self):
        # The server is paused before the message is sent, so the first attempt is the one under way when the
        # kill comes (counting attempts after a restart could miss one that began in between).
        restart_mx(data_pause=4)
        self.addCleanup(restart_mx)
        logged = len(stack.webmail.output())
        send(["someone@example.test"], message("Killed midway"))
        # The server waits 4 s before it answers DATA: a second after the attempt began, the relay is under way.
        wait_for(lambda: "sending to <someone@example.test> via" in stack.webmail.output()[logged:], 20, "an attempt")
        time.sleep(1)
        stack.restart_webmail(kill=True)
        mx.wait_delivered("someone@example.test", b"Subject: Killed midway", 20)
        wait_for(lambda: stack.store.folder_messages("sam", "Outbox") == [], 10, "the Outbox to empty")
        time.sleep(5)  # longer than a second transfer would take
        self.assertEqual(len(mx.wait_delivered("someone@example.test", b"Subject: Killed midway", 1)), 1)
        self.assertIn("an attempt was cut short", stack.webmail.output())

    def test_5_mail_server_delivers_into_an_account_and_the_gateway_serves_it(self):
        # Postfix will not deliver as root: the account's tree belongs to nobody, the folders above it may be
        # passed through. tarnwick-webmail (root here) reads it all.
        for d in (stack.dir, stack.store.root):
            os.chmod(d, 0o711)
        for base, dirs, files in os.walk(os.path.join(stack.store.root, "lena")):
            for name in [base] + [os.path.join(base, n) for n in dirs + files]:
                os.chown(name, 65534, 65534)
        inbound = mail_server.Postfix(os.path.join(work.name, "inbound"), domains=("tarnwick.local",),
                                      mailboxes={"lena@tarnwick.local": "lena/"}, mail_base=stack.store.root)
        inbound.start()
        self.addCleanup(inbound.stop)
        text = message("From the world").replace(b"To: someone@example.test", b"To: lena@tarnwick.local")
        sent = C.with_swaks(inbound.port, "someone@example.test", ["lena@tarnwick.local"], text)
        self.assertTrue(sent.ok, sent)
        inbound.wait_delivered("lena@tarnwick.local", b"Subject: From the world", 20)
        (fetched,) = [m for m in fetch(stack, "lena", "lena-pw") if b"Subject: From the world" in m]
        _, recipient, rest = split_trace(fetched.split(b"\r\n", 1)[1].replace(b"\r\n", b"\n"))
        self.assertEqual(recipient, "lena@tarnwick.local")
        # Postfix stored LF line ends; the gateway serves the file's last bare LF with a line break of its own.
        self.assertEqual(rest.rstrip(b"\n"), text.replace(b"\r\n", b"\n").rstrip(b"\n"))

    def test_6_tls_and_login_with_a_checked_certificate(self):
        secure = mail_server.Postfix(os.path.join(work.name, "secure"), mailboxes={"safe@example.test": "safe/"},
                                     login=("relayuser", "s3cret:pass word"))
        secure.start()
        self.addCleanup(secure.stop)
        self.addCleanup(stack.restart_webmail, webmail_args=["--relay", mx.url()] + RETRY)
        auth = os.path.join(work.name, "relay-auth")
        with open(os.open(auth, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w") as f:
            f.write("relayuser:s3cret:pass word\n")
        fetch(stack, "sam", "sam-pw")  # the gateway sends as the account of its last fetch
        # The system's authorities do not know the server's certificate: the message waits.
        stack.restart_webmail(webmail_args=["--relay", secure.url(), "--relay-auth", auth] + RETRY)
        send(["safe@example.test"], message("Safe 0"))
        wait_for(lambda: re.search(r"deferred <safe@example\.test>: .*certificate", stack.webmail.output()), 20,
                 "a deferral for the unknown certificate")
        self.assertEqual(secure.delivered("safe@example.test"), [])
        for n, url in enumerate((secure.url(), secure.url(tls_from_the_start=True)), 1):
            with self.subTest(url):
                stack.restart_webmail(webmail_args=["--relay", url, "--relay-auth", auth, "--relay-ca",
                                                    secure.ca_file, "--relay-trace"] + RETRY)
                if n == 1:
                    secure.wait_delivered("safe@example.test", b"Subject: Safe 0", 20)
                send(["safe@example.test"], message("Safe %d" % n))
                (mail,) = secure.wait_delivered("safe@example.test", b"Subject: Safe %d" % n, 20)
                # Postfix's trace field: ESMTPSA is ESMTP with TLS and a log-in.
                self.assertRegex(mail, rb"\(Authenticated sender: relayuser@example\.test\)\n"
                                       rb"\tby mx\.example\.test \(Postfix\) with ESMTPSA")
        self.assertIn("> AUTH ...", stack.webmail.output())
        self.assertNotIn("s3cret", stack.webmail.output())
        logins = re.findall(r"sasl_method=(PLAIN|LOGIN), sasl_username=relayuser@example\.test", secure.log())
        self.assertEqual(len(logins), 3)
        wait_for(lambda: stack.store.folder_messages("sam", "Outbox") == [], 10, "the Outbox to empty")


if __name__ == "__main__":
    unittest.main()
