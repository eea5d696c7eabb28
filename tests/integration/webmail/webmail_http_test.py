"""Drives a running tarnwick-webmail on an ephemeral loopback port: what only the HTTP server decides (start-up,
log, challenges, body limits, paths as sent, connection limits). Bytes as served, Digest and concurrent clients
are proved with the gateway against it in tests/e2e."""
import base64
import http.client
import os
import select
import signal
import socket
import subprocess
import tempfile
import unittest
from xml.dom import minidom

BINARY = os.environ.get("TARNWICK_WEBMAIL", "tarnwick-webmail")
ENTRY = "/svcs/hotmail/tarnwick.asp"
LOGIN_HEADER = ("<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:h='http://schemas.tarnwick.invalid/hotmail/' "
                "xmlns:hm='urn:schemas:tarnwick:'><D:prop><h:adbar/><hm:contacts/><hm:inbox/><hm:outbox/><hm:sendmsg/>"
                "<hm:sentitems/><hm:deleteditems/><hm:drafts/><hm:msgfolderroot/><h:maxpoll/><h:sig/></D:prop></D:propfind>")


class Service:
    """One tarnwick-webmail process over a fresh store, with accounts demo (sample mail), ann and bob."""

    def __init__(self, *extra):
        self.tmp = tempfile.TemporaryDirectory(prefix="tarnwick-webmail-")
        self.store = self.tmp.name
        for name in ("ann", "bob"):
            subprocess.run([BINARY, "--store", self.store, "--add-user", name, name + "-pw"], check=True,
                           stdout=subprocess.DEVNULL)
        self.log = open(os.path.join(self.tmp.name, "service.log"), "w+b")
        self.proc = subprocess.Popen([BINARY, "--store", self.store, "--demo", "--listen", "127.0.0.1:0", *extra],
                                     stdout=subprocess.PIPE, stderr=self.log)
        ready, _, _ = select.select([self.proc.stdout], [], [], 10)
        line = self.proc.stdout.readline().decode() if ready else ""
        if not line.startswith("listening on 127.0.0.1:"):
            self.proc.kill()
            raise RuntimeError("no startup line, got %r" % line)
        self.port = int(line.strip().rsplit(":", 1)[1])

    def stop(self):
        """Stops the process by its pid with SIGTERM; returns its exit status."""
        if self.proc.poll() is None:
            os.kill(self.proc.pid, signal.SIGTERM)
        status = self.proc.wait(10)
        self.proc.stdout.close()
        self.log.close()
        self.tmp.cleanup()
        return status

    def request(self, method, path, body=None, headers=None, user="demo"):
        """One request with Basic credentials (password: "demo" for demo, NAME-pw for the others, or
        user=(name, password)); returns (status, headers, body bytes)."""
        headers = dict(headers or {})
        if user is not None:
            name, password = user if isinstance(user, tuple) else (user, "demo" if user == "demo" else user + "-pw")
            headers["Authorization"] = "Basic " + base64.b64encode(("%s:%s" % (name, password)).encode()).decode()
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        try:
            conn.putrequest(method, path, skip_accept_encoding=True)
            for name, value in headers.items():
                conn.putheader(name, value)
            data = body.encode() if isinstance(body, str) else body
            if data is not None:
                conn.putheader("Content-Length", str(len(data)))
            conn.endheaders(data)
            reply = conn.getresponse()
            return reply.status, reply.headers, reply.read()
        finally:
            conn.close()

    def served(self, user, folder="INBOX"):
        """The listed sizes and the GET bodies of every message of one folder."""
        status, _, body = self.request("PROPFIND", "/mail/%s/folders/%s/" % (user, folder), user=user)
        assert status == 207, status
        doc = minidom.parseString(body)
        sizes = [int(n.firstChild.data) for n in doc.getElementsByTagName("D:getcontentlength")]
        ids = [n.firstChild.data for n in doc.getElementsByTagName("D:id")]
        return sizes, [self.request("GET", "/mail/%s/folders/%s/%s" % (user, folder, i), user=user)[2] for i in ids]


class ServiceCase(unittest.TestCase):
    extra_args = ()

    def setUp(self):
        self.svc = Service(*self.extra_args)

    def tearDown(self):
        self.assertEqual(self.svc.stop(), 0)

    def post(self, user, text):
        return self.svc.request("POST", "/mail/%s/sendmsg" % user, text, {"Content-Type": "message/rfc821"}, user)


class StartupTest(ServiceCase):
    def test_prints_bound_port_logs_each_request_without_password_and_stops_on_sigterm(self):
        self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER}, user=("demo", "not-the-password"))
        self.assertEqual(self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER})[0], 207)
        with open(self.svc.log.name, "rb") as f:
            log = f.read().decode(errors="replace")
        self.assertIn("PROPFIND /svcs/hotmail/tarnwick.asp 401", log)
        self.assertRegex(log, r"PROPFIND /svcs/hotmail/tarnwick.asp 207 \d+ demo")
        self.assertNotIn("not-the-password", log)


class AuthTest(ServiceCase):
    def test_refusals_carry_both_challenges_and_x_dav_error(self):
        for user in (("demo", "wrong"), ("nobody", "demo"), None, ("demo", "")):
            status, headers, _ = self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER}, user=user)
            self.assertEqual((status, headers["X-Dav-Error"]), (401, "401 Authentication required"), user)
            self.assertEqual([c.split()[0] for c in headers.get_all("WWW-Authenticate")], ["Basic", "Digest"])


class RefusalTest(ServiceCase):
    extra_args = ("--max-message-size", "4096")

    def test_paths_outside_the_account_are_never_served(self):
        # Sent as they are: the server must not decode an escaped slash or dot before the router sees the path.
        for path in ("/mail/demo/folders/INBOX/..%2F..%2F..%2Fpasswd", "/mail/demo/folders/..%2F..%2Fpasswd/",
                     "/mail/demo/../../passwd", "/mail/demo/folders/%2e%2e/%2e%2e/passwd",
                     "/mail/demo/folders/INBOX/%2Fetc%2Fpasswd", "/mail/demo/folders/.Sent%20Items/",
                     "/mail/demo/folders/INBOX/cur/", "/mail/demo/folders/INBOX%00/", "/mail/ann/folders/INBOX/",
                     "/mail/..%2Fpasswd/folders/INBOX/", "/passwd"):
            status, headers, body = self.svc.request("GET", path)
            self.assertIn(status, (403, 404, 405), path)
            self.assertIn("X-Dav-Error", headers, path)
            self.assertNotIn(b"demo:demo", body, path)

    def test_bodies_over_the_size_limit_are_refused_and_clients_that_vanish_do_no_harm(self):
        for method, path, body in (("POST", "/mail/demo/sendmsg", "M" * 10000), ("PROPFIND", ENTRY, " " * 5000)):
            status, headers, _ = self.svc.request(method, path, body, {"Content-Type": "message/rfc821"})
            self.assertEqual((status, headers["X-Dav-Error"]), (413, "413 Request body too large"), method)
        for declared, sent in ((3000, 100), (100000, 10), (50, 0)):
            with socket.create_connection(("127.0.0.1", self.svc.port), timeout=5) as s:
                s.sendall(("POST /mail/demo/sendmsg HTTP/1.1\r\nHost: x\r\nContent-Type: message/rfc821\r\n"
                           "Authorization: Basic ZGVtbzpkZW1v\r\nContent-Length: %d\r\n\r\n" % declared).encode()
                          + b"M" * sent)
        with socket.create_connection(("127.0.0.1", self.svc.port), timeout=5) as s:
            s.sendall(b"PROPFIND /mail/demo/folders/INBOX/ HTTP/1.1\r\nHo")  # cut off inside the header
        self.assertEqual(self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER})[0], 207)
        self.assertEqual(os.listdir(os.path.join(self.svc.store, "demo", ".Sent Items", "cur")), [])

    def test_a_post_the_store_cannot_take_leaves_no_copy_and_names_no_path(self):
        sent_items = os.path.join(self.svc.store, "demo", ".Sent Items")
        os.rename(sent_items, sent_items + ".away")
        with open(sent_items, "w") as f:
            f.write("in the way\n")  # the folder cannot be made again: the Sent Items copy fails
        text = "MAIL FROM:<demo@tarnwick.local>\r\nRCPT TO:<ann@tarnwick.local>\r\n\r\nSubject: once\r\n\r\nx\r\n.\r\n"
        status, headers, body = self.post("demo", text)
        self.assertEqual((status, headers["X-Dav-Error"]), (500, "500 Store error"))
        self.assertNotIn(self.svc.store.encode(), body + headers.as_bytes())
        with open(self.svc.log.name, "rb") as f:
            self.assertIn(b"store error on POST /mail/demo/sendmsg: ", f.read())
        self.assertEqual(self.svc.served("ann"), ([], []))
        os.remove(sent_items)
        os.rename(sent_items + ".away", sent_items)
        self.assertEqual(self.post("demo", text)[0], 200)  # tried again: delivered once
        self.assertEqual(len(self.svc.served("ann")[1]), 1)


class ConnectionLimitTest(ServiceCase):
    extra_args = ("--idle-timeout", "3", "--max-connections", "4", "--max-connections-per-address", "3")

    def connect(self, source="127.0.0.1"):
        s = socket.create_connection(("127.0.0.1", self.svc.port), timeout=10, source_address=(source, 0))
        self.addCleanup(s.close)
        return s

    def closed_within(self, s, seconds):
        """Whether the service closes `s` (nothing to read, or a reset) within `seconds`."""
        s.settimeout(seconds)
        try:
            return s.recv(4096) == b""
        except ConnectionResetError:
            return True
        except socket.timeout:
            return False

    def test_silent_and_stalled_clients_are_dropped_and_no_one_takes_every_slot(self):
        silent = self.connect()
        stalled = self.connect()
        stalled.sendall(b"PROPFIND /mail/demo/folders/INBOX/ HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\nab")
        third = self.connect()
        # All three slots of 127.0.0.1 are taken: a fourth connection from it is closed as soon as the service
        # takes it, well before the idle time-out frees a slot (a loaded machine may take a moment to get there).
        self.assertTrue(self.closed_within(self.connect(), 2))
        # Another address still gets in, up to the limit in all; beyond it a client waits for a free slot.
        other = self.connect("127.0.0.2")
        waiting = self.connect("127.0.0.3")
        waiting.sendall(b"PROPFIND /mail/demo/folders/ HTTP/1.1\r\nHost: x\r\nAuthorization: Basic ZGVtbzpkZW1v\r\n"
                        b"Connection: close\r\n\r\n")
        waiting.settimeout(0.5)
        self.assertRaises(socket.timeout, waiting.recv, 100)
        for s in (silent, stalled, third, other):
            self.assertTrue(self.closed_within(s, 5))
        waiting.settimeout(5)
        self.assertTrue(waiting.recv(100).startswith(b"HTTP/1.1 207 "))
        self.assertEqual(self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER})[0], 207)


if __name__ == "__main__":
    unittest.main()
