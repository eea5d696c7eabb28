"""tarnwick-webmail off the plain loopback: HTTPS on an IPv6 address (TLS 1.2 or newer only), the warning when
plain HTTP would leave the machine, the reverse proxy whose forwarded headers alone are believed, and the
options' refusals."""
import base64
import os
import re
import select
import signal
import socket
import ssl
import subprocess
import tempfile
import unittest
import warnings
import http.client

from webmail_http_test import BINARY, ENTRY, LOGIN_HEADER, Service

DEMO = {"Authorization": "Basic " + base64.b64encode(b"demo:demo").decode()}


def openssl(folder, *args):
    subprocess.run(["openssl", *args], check=True, cwd=folder, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


class TlsTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory(prefix="tarnwick-tls-")
        d = self.tmp.name
        openssl(d, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out", "ca.pem", "-days",
                "2", "-subj", "/CN=test CA")
        openssl(d, "req", "-newkey", "rsa:2048", "-nodes", "-keyout", "key.pem", "-out", "cert.csr", "-subj",
                "/CN=localhost")
        with open(os.path.join(d, "ext"), "w") as f:
            f.write("subjectAltName=DNS:localhost,IP:::1\n")
        openssl(d, "x509", "-req", "-in", "cert.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-out",
                "cert.pem", "-days", "2", "-extfile", "ext")
        self.proc = subprocess.Popen(
            [BINARY, "--store", os.path.join(d, "store"), "--demo", "--listen", "[::1]:0", "--tls-cert",
             os.path.join(d, "cert.pem"), "--tls-key", os.path.join(d, "key.pem")],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        ready, _, _ = select.select([self.proc.stdout], [], [], 10)
        self.line = self.proc.stdout.readline().decode() if ready else ""

    def tearDown(self):
        if self.proc.poll() is None:
            os.kill(self.proc.pid, signal.SIGTERM)
        self.assertEqual(self.proc.wait(10), 0)
        self.assertNotIn(b"warning", self.proc.stderr.read())
        self.proc.stdout.close()
        self.proc.stderr.close()
        self.tmp.cleanup()

    def context(self, version):
        context = ssl.create_default_context(cafile=os.path.join(self.tmp.name, "ca.pem"))
        # Let the client offer old versions at all, so that only the server's refusal is measured.
        context.set_ciphers("DEFAULT:@SECLEVEL=0")
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", DeprecationWarning)  # TLS 1.0 and 1.1, on purpose
            context.minimum_version = context.maximum_version = version
        return context

    def test_https_on_ipv6_hands_out_https_addresses_and_refuses_tls_older_than_1_2(self):
        m = re.fullmatch(r"listening on \[::1\]:(\d+)\n", self.line)
        self.assertTrue(m, self.line)
        port = int(m.group(1))
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            with self.subTest(version=version):
                conn = http.client.HTTPSConnection("::1", port, timeout=10, context=self.context(version))
                conn.request("PROPFIND", ENTRY, headers=dict(DEMO, PROPFIND=LOGIN_HEADER))
                reply = conn.getresponse()
                body = reply.read().decode()
                self.assertEqual(reply.status, 207)
                self.assertEqual(conn.sock.version(), version.name.replace("v1_", "v1."))
                self.assertIn("<hm:inbox>https://[::1]:%d/mail/demo/folders/INBOX/</hm:inbox>" % port, body)
                conn.close()
        for version in (ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1):
            with self.subTest(version=version):
                with socket.create_connection(("::1", port), timeout=10) as raw:
                    with self.assertRaises(ssl.SSLError):
                        self.context(version).wrap_socket(raw, server_hostname="localhost")


    def test_messages_come_whole_over_https(self):
        port = int(re.fullmatch(r"listening on \[::1\]:(\d+)\n", self.line).group(1))
        check_messages_come_whole(self, os.path.join(self.tmp.name, "store"), lambda: http.client.HTTPSConnection(
            "::1", port, timeout=10, context=self.context(ssl.TLSVersion.TLSv1_3)))


def check_messages_come_whole(test, store, connect):
    """GETs of messages small and large (read whole, sent from the descriptor, read in pieces over TLS), just
    either side of the size up to which a message is read whole, and with bare LF line ends (served as CR LF):
    each arrives byte for byte with its Content-Length."""
    cur = os.path.join(store, "demo", "cur")
    big = b"Subject: big\r\n\r\n" + b"".join(b"line %06d of a long message\r\n" % i for i in range(20000))
    cases = [("1.big.host", big, big), ("2.bare.host", big.replace(b"\r\n", b"\n"), big)]
    for n, size in ((3, 64 * 1024), (4, 64 * 1024 + 1), (5, 20)):
        text = b"Subject: s\r\n\r\n" + b"x" * (size - 17) + b"\r\n"
        cases.append(("%d.sized.host" % n, text, text))
    for name, stored, served in cases:
        with test.subTest(name=name):
            with open(os.path.join(cur, name + ":2,S"), "wb") as f:
                f.write(stored)
            conn = connect()
            conn.request("GET", "/mail/demo/folders/INBOX/" + name, headers=DEMO)
            reply = conn.getresponse()
            body = reply.read()
            test.assertEqual(reply.status, 200)
            test.assertEqual(int(reply.getheader("Content-Length")), len(served))
            test.assertEqual(body, served)
            conn.close()


class PlainServingTest(unittest.TestCase):
    def test_messages_come_whole_over_http(self):
        svc = Service()
        try:
            check_messages_come_whole(self, svc.store,
                                      lambda: http.client.HTTPConnection("127.0.0.1", svc.port, timeout=10))
        finally:
            self.assertEqual(svc.stop(), 0)


class ListenAddressTest(unittest.TestCase):
    def test_plain_http_beyond_the_loopback_is_warned_about_and_bad_options_refused(self):
        tmp = tempfile.TemporaryDirectory(prefix="tarnwick-listen-")
        self.addCleanup(tmp.cleanup)
        store = os.path.join(tmp.name, "store")
        short_key, open_key, good_key = (os.path.join(tmp.name, n) for n in ("short", "open", "good"))
        for path, data, mode in ((short_key, b"x" * 15, 0o600), (open_key, b"x" * 32, 0o644),
                                 (good_key, b"x" * 32, 0o600)):
            with open(path, "wb") as f:
                f.write(data)
            os.chmod(path, mode)
        warning = b"is not a loopback address and there is no TLS"
        # 192.0.2.1 is a documentation address no machine has: the warning comes before the bind fails, so
        # nothing ever listens beyond the loopback.
        rows = [
            (["--listen", "192.0.2.1:0"], 1, warning),
            (["--listen", "[2001:db8::1]:0"], 1, b"[2001:db8::1] " + warning),
            (["--listen", "192.0.2.1:0", "--tls-cert", good_key, "--tls-key", good_key], 1, b"cannot listen"),
            (["--listen", "::1:8110"], 2, b"an IPv6 address goes in brackets"),
            (["--listen", "[nowhere]:0"], 2, b"not an IPv4 or IPv6 address"),
            (["--tls-cert", good_key], 2, b"--tls-cert and --tls-key go together"),
            (["--tls-cert", good_key, "--tls-key", os.path.join(tmp.name, "missing")], 1, b"--tls-key: cannot read"),
            (["--trusted-proxy", "proxy.example"], 2, b"--trusted-proxy: not an IPv4 or IPv6 address"),
            (["--nonce-key-file", short_key], 1, b"holds fewer than 16 bytes"),
            (["--nonce-key-file", open_key], 1, b"must be readable by its owner only"),
        ]
        for args, status, message in rows:
            with self.subTest(args=args):
                run = subprocess.run([BINARY, "--store", store, *args], capture_output=True, timeout=10)
                self.assertEqual(run.returncode, status, run.stderr)
                self.assertIn(message, run.stderr)
                self.assertEqual(run.stdout, b"")
                if message != warning and not message.endswith(warning):
                    self.assertNotIn(warning, run.stderr)


class TrustedProxyTest(unittest.TestCase):
    """Which client address reaches the Received: line and which scheme the addresses carry, by the peer."""

    def test_forwarded_headers_count_only_from_the_trusted_proxy(self):
        forwarded = {"X-Forwarded-For": "198.51.100.1, 192.0.2.7", "X-Forwarded-Proto": "https"}
        rows = [
            ("no proxy trusted", [], forwarded, "[127.0.0.1]", "http"),
            ("another address trusted", ["--trusted-proxy", "127.0.0.2"], forwarded, "[127.0.0.1]", "http"),
            ("the peer trusted: the entry it added", ["--trusted-proxy", "127.0.0.1"], forwarded, "[192.0.2.7]",
             "https"),
            ("the peer trusted, IPv6 client", ["--trusted-proxy", "127.0.0.1"],
             {"X-Forwarded-For": "2001:DB8:0::1", "X-Forwarded-Proto": "http"}, "[IPv6:2001:db8::1]", "http"),
            ("the peer trusted, no usable entry", ["--trusted-proxy", "127.0.0.1"],
             {"X-Forwarded-For": "192.0.2.7, unknown"}, "[127.0.0.1]", "http"),
        ]
        for what, args, headers, client, scheme in rows:
            with self.subTest(what):
                svc = Service(*args)
                try:
                    status, _, body = svc.request("PROPFIND", ENTRY, headers=dict(headers, PROPFIND=LOGIN_HEADER))
                    self.assertEqual(status, 207)
                    self.assertIn("<hm:inbox>%s://127.0.0.1:%d/" % (scheme, svc.port), body.decode())
                    text = "MAIL FROM:<demo@tarnwick.local>\r\nRCPT TO:<demo@tarnwick.local>\r\n\r\nHi\r\n.\r\n"
                    status, _, _ = svc.request("POST", "/mail/demo/sendmsg", text,
                                               dict(headers, **{"Content-Type": "message/rfc821"}))
                    self.assertEqual(status, 200)
                    sent = os.path.join(svc.store, "demo", ".Sent Items", "cur")
                    (name,) = os.listdir(sent)
                    with open(os.path.join(sent, name), "rb") as f:
                        self.assertTrue(f.read().startswith(
                            b"Received: from %s (authenticated account demo)" % client.encode()))
                finally:
                    self.assertEqual(svc.stop(), 0)


if __name__ == "__main__":
    unittest.main()
