"""Real mail readers against the built gateway and tarnwick-webmail: curl's pop3:// and fetchmail. One
webmail and one gateway serve the whole file; each test has its own account."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import messages as M
from gateway_stack import APP_LINE, HOST, TRASH_FOLDER, Stack

HERE = os.path.dirname(os.path.abspath(__file__))
stack = None


def setUpModule():
    global stack
    stack = Stack()
    for user in ("curly", "fetcher", "deleter"):
        stack.store.add_user(user, user + "-pw")
        M.deliver_mixed(stack.store, user)
    stack.start()


def tearDownModule():
    stack.stop()


def run(args, **kwargs):
    stack.wait_pop3_listening()
    return subprocess.run(args, capture_output=True, timeout=120, **kwargs)


class Curl(unittest.TestCase):

    def curl(self, path):
        result = run(["curl", "--silent", "--show-error", "--noproxy", "*", "--user", "curly:curly-pw",
                      "pop3://%s:%d/%s" % (HOST, stack.pop3_port, path)])
        self.assertEqual(result.returncode, 0, result.stderr.decode("latin-1") + stack.gateway_log()[-2000:])
        return result.stdout

    def test_list(self):
        expected = b"".join(b"%d %d\r\n" % (i, len(m)) for i, m in enumerate(M.UNREAD, start=1))
        self.assertEqual(self.curl(""), expected)

    def test_retrieve_each_message(self):
        for i, body in enumerate(M.UNREAD, start=1):
            self.assertEqual(self.curl(str(i)), APP_LINE.encode() + b"\r\n" + body + b"\r\n", "message %d" % i)


class Fetchmail(unittest.TestCase):

    def fetch(self, user, keep, expected_status=0):
        """Runs fetchmail once for `user` with a private HOME and run-control file (mode 0600); returns the
        messages its delivery agent stored, in order."""
        home = tempfile.mkdtemp(prefix="tarnwick-fetchmail-")
        self.addCleanup(shutil.rmtree, home, ignore_errors=True)
        out = os.path.join(home, "delivered")
        os.mkdir(out)
        rc = os.path.join(home, "fetchmailrc")
        # "invisible" keeps fetchmail from adding a Received line; sslproto "" lets it speak plain POP3 (it
        # insists on STLS otherwise), which is what a reader does with the gateway on 127.0.0.1.
        with open(os.open(rc, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "w") as f:
            f.write('set no syslog\n'
                    'set invisible\n'
                    'poll %s with protocol POP3 port %d auth password timeout 120:\n'
                    '  user "%s" there with password "%s" is "%s" here\n'
                    '  options fetchall %s no rewrite sslproto ""\n'
                    '  mda "%s %s %s"\n'
                    % (HOST, stack.pop3_port, user, user + "-pw", user, "keep" if keep else "no keep",
                       sys.executable, os.path.join(HERE, "deliver_to_dir.py"), out))
        env = dict(os.environ, HOME=home, FETCHMAILHOME=home)
        result = run(["fetchmail", "--nodetach", "--verbose", "-f", rc], env=env)
        self.assertEqual(result.returncode, expected_status,
                         result.stdout.decode("latin-1") + result.stderr.decode("latin-1")
                         + stack.gateway_log()[-3000:])
        delivered = []
        for name in sorted(os.listdir(out)):
            with open(os.path.join(out, name), "rb") as f:
                delivered.append(f.read())
        return delivered

    @staticmethod
    def as_delivered(body):
        # fetchmail hands messages to a delivery agent with plain LF line ends.
        return (APP_LINE.encode() + b"\r\n" + body + b"\r\n").replace(b"\r\n", b"\n")

    def test_fetch_keeping_the_messages(self):
        got = self.fetch("fetcher", keep=True)
        self.assertEqual(got, [self.as_delivered(m) for m in M.UNREAD])
        self.assertEqual(len(stack.store.folder_messages("fetcher")), len(M.MIXED))
        self.assertEqual(stack.store.folder_messages("fetcher", TRASH_FOLDER), [])

    def test_fetch_with_deletion_leaves_them_in_the_trash(self):
        got = self.fetch("deleter", keep=False)
        self.assertEqual(got, [self.as_delivered(m) for m in M.UNREAD])
        self.assertCountEqual(stack.store.folder_messages("deleter", TRASH_FOLDER), M.UNREAD)
        self.assertEqual(stack.store.folder_messages("deleter"), [M.READ])
        # The next fetch finds no mail (fetchmail's status 1).
        self.assertEqual(self.fetch("deleter", keep=False, expected_status=1), [])


if __name__ == "__main__":
    unittest.main()
