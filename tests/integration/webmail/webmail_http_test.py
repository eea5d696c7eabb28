"""tarnwick-webmail's own HTTP server, driven over loopback: what it decides before a request reaches the store
(challenges, the log, the body limit, paths as sent, the trusted reverse proxy), messages served whole over HTTP
and HTTPS, HTTPS on IPv6 with TLS 1.2 or newer only, and the options that keep it from serving unsafely."""

import base64
import http.client
import os
import shutil
import socket
import ssl
import subprocess
import tempfile
import unittest
import warnings

from proxy_testing import make_certificates
from tarnwick_testing import HOST, SERVICE_PATH, Webmail, binary, read_file

BINARY = binary("TARNWICK_WEBMAIL", "webmail/tarnwick-webmail")


def basic(name, password):
    return "Basic " + base64.b64encode(("%s:%s" % (name, password)).encode()).decode()


DEMO = basic("demo", "demo")


class Service(unittest.TestCase):
    """Each test gets one tarnwick-webmail over a fresh store (account demo with sample mail, ann), stopped by
    SIGTERM at its end with status 0."""
    args = ("--max-message-size", "4096", "--trusted-proxy", "127.0.0.1")
    host = HOST

    def setUp(self):
        tmp = tempfile.TemporaryDirectory(prefix="tarnwick-webmail-")
        self.addCleanup(tmp.cleanup)
        self.dir, self.store = tmp.name, os.path.join(tmp.name, "store")
        subprocess.run([BINARY, "--store", self.store, "--add-user", "ann", "ann-pw"], check=True,
                       stdout=subprocess.DEVNULL)
        self.webmail = Webmail(self.dir, "webmail", self.store, ["--demo", *self.args], host=self.host)
        self.port = self.webmail.port

    def tearDown(self):
        self.assertEqual(self.webmail.stop(), 0)

    def connect(self, source=HOST):
        return http.client.HTTPConnection(HOST, self.port, timeout=10, source_address=(source, 0))

    def request(self, method, path, body=None, headers=None, auth=DEMO, conn=None):
        """One request on a connection of its own (or `conn`); returns (status, headers, body bytes)."""
        conn = conn or self.connect()
        headers = dict(headers or {}, **({"Authorization": auth} if auth else {}))
        try:
            conn.request(method, path, body.encode() if isinstance(body, str) else body, headers)
            reply = conn.getresponse()
            return reply.status, reply.headers, reply.read()
        finally:
            conn.close()

    def login(self, auth=DEMO, headers=None, conn=None):
        return self.request("PROPFIND", SERVICE_PATH, None, headers, auth, conn)

    def assert_messages_come_whole(self, connect):
        """GETs of a small message (read whole), a large one (sent from the descriptor) and one with bare LF line
        ends (read in pieces, served with CR LF)."""
        big = b"Subject: big\r\n\r\n" + b"".join(b"line %06d of a long message\r\n" % i for i in range(20000))
        small = b"Subject: small\r\n\r\nshort\r\n"
        for name, stored, served in (("1.big.host", big, big), ("2.bare.host", big.replace(b"\r\n", b"\n"), big),
                                     ("3.small.host", small, small)):
            with self.subTest(name=name):
                with open(os.path.join(self.store, "demo", "cur", name + ":2,S"), "wb") as f:
                    f.write(stored)
                status, headers, body = self.request("GET", "/mail/demo/folders/INBOX/" + name, conn=connect())
                self.assertEqual((status, int(headers["Content-Length"])), (200, len(served)))
                self.assertEqual(body, served)


class HttpTest(Service):

    def test_refusals_carry_both_challenges_and_the_log_names_the_user_but_no_password(self):
        for auth in (basic("demo", "not-the-password"), basic("nobody", "demo"), None, basic("demo", "")):
            status, headers, _ = self.login(auth)
            self.assertEqual((status, headers["X-Dav-Error"]), (401, "401 Authentication required"), auth)
            self.assertEqual([c.split()[0] for c in headers.get_all("WWW-Authenticate")], ["Basic", "Digest"])
        self.assertEqual(self.login()[0], 207)
        log = self.webmail.output()
        self.assertIn("PROPFIND /svcs/hotmail/tarnwick.asp 401", log)
        self.assertRegex(log, r"PROPFIND /svcs/hotmail/tarnwick.asp 207 \d+ demo")
        self.assertNotIn("not-the-password", log)

    def test_paths_outside_the_account_are_never_served(self):
        # Sent as they are: the server must not decode an escaped slash or dot before the router sees the path.
        # (Which escapes a path may not hold is the path parser's own rule; another account's folder is the router's.)
        for path in ("/mail/demo/folders/INBOX/..%2F..%2F..%2Fpasswd", "/mail/demo/../../passwd",
                     "/mail/demo/folders/%2e%2e/%2e%2e/passwd", "/mail/ann/folders/INBOX/"):
            status, headers, body = self.request("GET", path)
            self.assertIn(status, (403, 404, 405), path)
            self.assertIn("X-Dav-Error", headers, path)
            self.assertNotIn(b"demo:demo", body, path)

    def test_bodies_over_the_size_limit_are_refused_and_clients_that_vanish_do_no_harm(self):
        for method, path, body in (("POST", "/mail/demo/sendmsg", "M" * 10000), ("PROPFIND", SERVICE_PATH, " " * 5000)):
            status, headers, _ = self.request(method, path, body, {"Content-Type": "message/rfc821"})
            self.assertEqual((status, headers["X-Dav-Error"]), (413, "413 Request body too large"), method)
        for declared, sent in ((3000, 100), (100000, 10), (50, 0)):
            with socket.create_connection((HOST, self.port), timeout=5) as s:
                s.sendall(b"POST /mail/demo/sendmsg HTTP/1.1\r\nHost: x\r\nContent-Type: message/rfc821\r\n"
                          b"Authorization: %s\r\nContent-Length: %d\r\n\r\n" % (DEMO.encode(), declared) + b"M" * sent)
        with socket.create_connection((HOST, self.port), timeout=5) as s:
            s.sendall(b"PROPFIND /mail/demo/folders/INBOX/ HTTP/1.1\r\nHo")  # cut off inside the header
        self.assertEqual(self.login()[0], 207)
        self.assertEqual(os.listdir(os.path.join(self.store, "demo", ".Sent Items", "cur")), [])

    def test_forwarded_headers_count_only_from_the_trusted_proxy(self):
        """Which client address reaches the Received: field and which scheme the addresses carry."""
        rows = [
            ("an untrusted peer", "127.0.0.2", "198.51.100.1, 192.0.2.7", "https", "[127.0.0.2]", "http"),
            ("the trusted peer: the entry it added", HOST, "198.51.100.1, 192.0.2.7", "https", "[192.0.2.7]", "https"),
            ("the trusted peer, an IPv6 client", HOST, "2001:DB8:0::1", "http", "[IPv6:2001:db8::1]", "http"),
        ]
        for n, (what, source, forwarded_for, proto, client, scheme) in enumerate(rows):
            with self.subTest(what):
                headers = dict({"X-Forwarded-For": forwarded_for}, **({"X-Forwarded-Proto": proto} if proto else {}))
                status, _, body = self.login(headers=headers, conn=self.connect(source))
                self.assertEqual(status, 207)
                self.assertIn("<hm:inbox>%s://127.0.0.1:%d/" % (scheme, self.port), body.decode())
                text = "MAIL FROM:<demo@tarnwick.local>\r\nRCPT TO:<demo@tarnwick.local>\r\n\r\nSubject: %d\r\n.\r\n" \
                    % n
                self.assertEqual(self.request("POST", "/mail/demo/sendmsg", text, dict(
                    headers, **{"Content-Type": "message/rfc821"}), conn=self.connect(source))[0], 200)
                sent = os.path.join(self.store, "demo", ".Sent Items", "cur")
                (copy,) = [m for m in (read_file(os.path.join(sent, f)) for f in os.listdir(sent))
                           if b"Subject: %d\r\n" % n in m]
                self.assertTrue(copy.startswith(b"Received: from %s (authenticated account demo)" % client.encode()))

    def test_messages_come_whole_over_http(self):
        self.assert_messages_come_whole(self.connect)


class TlsTest(Service):
    host = "[::1]"

    def setUp(self):
        certificates = tempfile.mkdtemp(prefix="tarnwick-tls-")
        self.certs = make_certificates(certificates)
        self.args = ("--tls-cert", self.certs["cert"], "--tls-key", self.certs["key"])
        super().setUp()
        self.addCleanup(shutil.rmtree, certificates, ignore_errors=True)

    def context(self, version):
        context = ssl.create_default_context(cafile=self.certs["ca"])
        context.set_ciphers("DEFAULT:@SECLEVEL=0")  # the client offers old versions: only the server refuses
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", DeprecationWarning)
            context.minimum_version = context.maximum_version = version
        return context

    def connect_tls(self, version=ssl.TLSVersion.TLSv1_3):
        return http.client.HTTPSConnection("::1", self.port, timeout=10, context=self.context(version))

    def test_https_on_ipv6_hands_out_https_addresses_and_refuses_tls_older_than_1_2(self):
        self.assertIn("listening on [::1]:%d\n" % self.port, self.webmail.output())
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            with self.subTest(version=version):
                conn = self.connect_tls(version)
                conn.request("PROPFIND", SERVICE_PATH, headers={"Authorization": DEMO})
                reply = conn.getresponse()
                self.assertEqual(reply.status, 207)
                self.assertEqual(conn.sock.version(), version.name.replace("v1_", "v1."))
                self.assertIn("<hm:inbox>https://[::1]:%d/mail/demo/folders/INBOX/</hm:inbox>" % self.port,
                              reply.read().decode())
                conn.close()
        for version in (ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1):
            with self.subTest(version=version):
                with socket.create_connection(("::1", self.port), timeout=10) as raw:
                    with self.assertRaises(ssl.SSLError):
                        self.context(version).wrap_socket(raw, server_hostname="localhost")
        self.assertNotIn("warning", self.webmail.output())

    def test_messages_come_whole_over_https(self):
        self.assert_messages_come_whole(self.connect_tls)


class OptionsTest(unittest.TestCase):

    def test_plain_http_beyond_the_loopback_is_warned_about_and_weak_nonce_keys_refused(self):
        tmp = tempfile.TemporaryDirectory(prefix="tarnwick-listen-")
        self.addCleanup(tmp.cleanup)
        short_key, open_key = os.path.join(tmp.name, "short"), os.path.join(tmp.name, "open")
        for path, data, mode in ((short_key, b"x" * 15, 0o600), (open_key, b"x" * 32, 0o644)):
            with open(path, "wb") as f:
                f.write(data)
            os.chmod(path, mode)
        warning = b"is not a loopback address and there is no TLS"
        # 192.0.2.1 is a documentation address no machine has: the warning comes before the bind fails, so
        # nothing ever listens beyond the loopback.
        rows = [(["--listen", "192.0.2.1:0"], b"192.0.2.1 " + warning),
                (["--listen", "[2001:db8::1]:0"], b"[2001:db8::1] " + warning),
                (["--nonce-key-file", short_key], b"holds fewer than 16 bytes"),
                (["--nonce-key-file", open_key], b"must be readable by its owner only")]
        for args, message in rows:
            with self.subTest(args=args):
                run = subprocess.run([BINARY, "--store", os.path.join(tmp.name, "store"), *args],
                                     capture_output=True, timeout=10)
                self.assertEqual((run.returncode, run.stdout), (1, b""), run.stderr)
                self.assertIn(message, run.stderr)

