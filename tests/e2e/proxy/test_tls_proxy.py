"""The service on another machine, built here with the real parts: nginx terminates TLS with a throwaway CA's
certificate and spreads the requests over two tarnwick-webmail processes sharing one store and one Digest nonce
key; the built gateway reaches it at https://localhost:PORT with --service-ca. A certificate the gateway cannot
verify is refused before any request reaches the service; with the right CA a reader fetches and sends with Digest
and with Basic, and fetches go on when one instance is killed."""

import os
import poplib
import shutil
import signal
import smtplib
import tempfile
import unittest

from proxy_testing import Nginx, make_certificates, make_nonce_key, nginx_binary, site_config
from tarnwick_testing import APP_LINE, HOST, SERVICE_PATH, Stack, Store, Webmail, fetch, free_port

FIRST = b"Subject: first\r\n\r\nThe first message.\r\n"
SECOND = b"Subject: second\r\n\r\nThe second message.\r\n"


@unittest.skipUnless(nginx_binary(), "nginx is not installed (scripts/setup installs it)")
@unittest.skipUnless(shutil.which("openssl"), "openssl is not installed (scripts/setup installs it)")
class TlsProxyTest(unittest.TestCase):

    def deploy(self, auth):
        """Two instances over a fresh store (account ann: two unread messages) behind nginx, all stopped at the
        test's clean-up; returns the service's address through nginx and the instances."""
        folder = tempfile.mkdtemp(prefix=auth, dir=self.dir)
        store = Store(os.path.join(folder, "store"))
        store.add_user("ann", "ann pw")
        store.deliver("ann", FIRST)
        store.deliver("ann", SECOND)
        args = ["--auth", auth, "--nonce-key-file", self.key, "--trusted-proxy", "127.0.0.1"]
        instances = [Webmail(folder, name, store.root, args) for name in ("one", "two")]
        for instance in instances:
            self.addCleanup(instance.stop)
        port = free_port()
        upstreams = [i.port for i in instances]
        nginx = Nginx(folder, site_config(port, self.certs["cert"], self.certs["key"], upstreams), port)
        self.addCleanup(nginx.stop)
        return "https://localhost:%d%s" % (port, SERVICE_PATH), instances

    def gateway(self, service_url, service_ca):
        """A gateway pointed at the service, trusting the named CA file."""
        stack = Stack(service_url=service_url, gateway_args=["--service-ca", self.certs[service_ca]])
        stack.start()
        self.addCleanup(stack.stop)
        return stack

    def test_through_nginx_to_both_instances_with_digest_and_basic_once_the_certificate_is_verified(self):
        self.dir = self.enterContext(tempfile.TemporaryDirectory(prefix="tarnwick-proxy-"))
        self.certs = make_certificates(self.dir)
        self.key = make_nonce_key(os.path.join(self.dir, "nonce.key"))
        for auth in ("digest", "basic"):
            with self.subTest(auth=auth):
                service_url, instances = self.deploy(auth)
                with self.assertRaises(poplib.error_proto) as refused:
                    fetch(self.gateway(service_url, "other_ca"), "ann", "ann pw")
                self.assertEqual(refused.exception.args[0], b"-ERR A security error occurred")
                self.assertEqual([i.requests() for i in instances], [[], []])

                stack = self.gateway(service_url, "ca")
                self.assertEqual(fetch(stack, "ann", "ann pw"), [APP_LINE + b"\r\n" + m for m in (FIRST, SECOND)],
                                 stack.gateway_log()[-2000:])
                stack.wait_listening(stack.smtp_port)
                with smtplib.SMTP(HOST, stack.smtp_port, timeout=60) as smtp:
                    smtp.sendmail("ann@tarnwick.local", ["ann@tarnwick.local"],
                                  b"Subject: through nginx\r\n\r\nSent with %s.\r\n" % auth.encode())
                texts = fetch(stack, "ann", "ann pw")
                self.assertEqual(len(texts), 3, stack.gateway_log()[-2000:])
                # The client address the instance wrote is the one nginx passed on from the gateway.
                self.assertIn(b"Received: from [127.0.0.1] (authenticated account ann)", texts[2])
                self.assertIn(b"Sent with %s." % auth.encode(), texts[2])
                # nginx spread the session's requests over both instances, and each accepted ann.
                for instance in instances:
                    self.assertTrue(any(line.endswith(" ann") for line in instance.requests()), instance.output())
                if auth == "digest":
                    # The other instance takes over, accepting the nonces the killed one handed out.
                    os.kill(instances[0].proc.pid, signal.SIGKILL)
                    served_before = len(instances[1].requests())
                    for session in range(3):
                        self.assertEqual(len(fetch(stack, "ann", "ann pw")), 3, "session %d" % session)
                    self.assertGreater(len(instances[1].requests()), served_before)


if __name__ == "__main__":
    unittest.main()
