"""The service on another machine, built here with the real parts: nginx terminates TLS with a throwaway CA's
certificate and spreads the requests over two tarnwick-webmail processes sharing one store and one Digest nonce
key; the built gateway reaches it at https://localhost:PORT with --service-ca. A reader fetches and sends with
Digest and with Basic, fetches go on when one instance is killed, and a certificate from another CA is refused
before any request reaches the service."""

import os
import poplib
import shutil
import signal
import smtplib
import subprocess
import tempfile
import unittest

from proxy_testing import Nginx, make_certificates, make_nonce_key, nginx_binary, site_config
from tarnwick_testing import APP_LINE, HOST, SERVICE_PATH, Stack, Store, Webmail, binary, fetch, free_port

FIRST = b"Subject: first\r\n\r\nThe first message.\r\n"
SECOND = b"Subject: second\r\n\r\nThe second message.\r\n"


@unittest.skipUnless(nginx_binary(), "nginx is not installed (scripts/setup installs it)")
@unittest.skipUnless(shutil.which("openssl"), "openssl is not installed (scripts/setup installs it)")
class TlsProxyTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="tarnwick-proxy-")
        cls.certs = make_certificates(cls.dir)
        cls.key = make_nonce_key(os.path.join(cls.dir, "nonce.key"))

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, ignore_errors=True)

    def deploy(self, auth="any", service_ca="ca"):
        """Two instances over a fresh store (account ann: two unread messages), nginx in front, the gateway
        pointed at nginx; everything is stopped at the test's clean-up."""
        folder = tempfile.mkdtemp(prefix="run-", dir=self.dir)
        store = Store(os.path.join(folder, "store"))
        store.add_user("ann", "ann pw")
        store.deliver("ann", FIRST)
        store.deliver("ann", SECOND)
        args = ["--auth", auth, "--nonce-key-file", self.key, "--trusted-proxy", "127.0.0.1"]
        self.instances = [Webmail(folder, name, store.root, args) for name in ("one", "two")]
        for instance in self.instances:
            self.addCleanup(instance.stop)
        port = free_port()
        nginx = Nginx(folder, site_config(port, self.certs["cert"], self.certs["key"],
                                          [i.port for i in self.instances]), port)
        self.addCleanup(nginx.stop)
        gateway_args = ["--service-ca", self.certs[service_ca]] if service_ca else []
        self.stack = Stack(service_url="https://localhost:%d%s" % (port, SERVICE_PATH), gateway_args=gateway_args)
        self.stack.start()
        self.addCleanup(self.stack.stop)

    def test_fetch_and_send_through_nginx_to_both_instances_with_digest_and_basic(self):
        for auth in ("digest", "basic"):
            with self.subTest(auth=auth):
                self.deploy(auth)
                self.assertEqual(fetch(self.stack, "ann", "ann pw"), [APP_LINE + b"\r\n" + m for m in (FIRST, SECOND)],
                                 self.stack.gateway_log()[-2000:])
                self.stack.wait_listening(self.stack.smtp_port)
                with smtplib.SMTP(HOST, self.stack.smtp_port, timeout=60) as smtp:
                    smtp.sendmail("ann@tarnwick.local", ["ann@tarnwick.local"],
                                  b"Subject: through nginx\r\n\r\nSent with %s.\r\n" % auth.encode())
                texts = fetch(self.stack, "ann", "ann pw")
                self.assertEqual(len(texts), 3, self.stack.gateway_log()[-2000:])
                # The client address the instance wrote is the one nginx passed on from the gateway.
                self.assertIn(b"Received: from [127.0.0.1] (authenticated account ann)", texts[2])
                self.assertIn(b"Sent with %s." % auth.encode(), texts[2])
                # nginx spread the session's requests over both instances, and each accepted ann.
                for instance in self.instances:
                    self.assertTrue(any(line.endswith(" ann") for line in instance.requests()), instance.output())
                if auth == "digest":
                    # The other instance takes over, accepting the nonces the killed one handed out.
                    os.kill(self.instances[0].proc.pid, signal.SIGKILL)
                    served_before = len(self.instances[1].requests())
                    for session in range(3):
                        self.assertEqual(len(fetch(self.stack, "ann", "ann pw")), 3, "session %d" % session)
                    self.assertGreater(len(self.instances[1].requests()), served_before)
                self.doCleanups()

    def test_a_certificate_the_gateway_cannot_verify_is_refused_before_any_request(self):
        for service_ca in ("other_ca", None):  # another CA's file; the system's store
            with self.subTest(service_ca=service_ca):
                self.deploy(service_ca=service_ca)
                with self.assertRaises(poplib.error_proto) as refused:
                    fetch(self.stack, "ann", "ann pw")
                self.assertEqual(refused.exception.args[0], b"-ERR A security error occurred")
                self.assertEqual([i.requests() for i in self.instances], [[], []])
                self.doCleanups()
        # A CA file that cannot be read is a command-line error, before anything starts.
        missing = os.path.join(self.dir, "no-such-ca.pem")
        run = subprocess.run([binary("TARNWICK_GATEWAY", "app/tarnwick-gateway"), "--headless", "--service-ca",
                              missing], capture_output=True, timeout=30,
                             env=dict(os.environ, XDG_RUNTIME_DIR=self.dir, QT_QPA_PLATFORM="offscreen"))
        self.assertEqual(run.returncode, 2)
        self.assertIn(b"--service-ca: cannot read " + missing.encode(), run.stderr)


if __name__ == "__main__":
    unittest.main()
