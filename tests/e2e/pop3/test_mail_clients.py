"""Real mail readers against the built gateway and tarnwick-webmail: curl's pop3://, fetchmail, getmail6 and
mpop. One webmail and one gateway serve the whole file; each test has its own account."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import messages as M
from gateway_stack import APP_LINE, HOST, TRASH_FOLDER, RawClient, Stack

HERE = os.path.dirname(os.path.abspath(__file__))
stack = None


def setUpModule():
    global stack
    stack = Stack()
    for user in ("curly", "fetcher", "deleter"):
        stack.store.add_user(user, user + "-pw")
        M.deliver_mixed(stack.store, user)
    for user in ("getter", "mpopper", "ider"):
        stack.store.add_user(user, user + "-pw")
        M.deliver_mixed(stack.store, user, M.READER_MAIL)
    stack.start()


def tearDownModule():
    stack.stop()


def run(args, **kwargs):
    stack.wait_pop3_listening()
    return subprocess.run(args, capture_output=True, timeout=120, **kwargs)


def private_home(test):
    """A fresh HOME for one reader, removed after the test, with an empty folder for what it delivers."""
    home = tempfile.mkdtemp(prefix="tarnwick-reader-")
    test.addCleanup(shutil.rmtree, home, ignore_errors=True)
    os.mkdir(os.path.join(home, "delivered"))
    return home


def write_private(path, text):
    """A configuration file holding a password: readers refuse one that others may read (mode 0600)."""
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "w") as f:
        f.write(text)


def delivery_agent(home):
    """The command line of the test's delivery agent, which stores each message in home/delivered."""
    return [sys.executable, os.path.join(HERE, "deliver_to_dir.py"), os.path.join(home, "delivered")]


def delivered(home):
    """The messages the delivery agent stored, in order."""
    out = os.path.join(home, "delivered")
    got = []
    for name in sorted(os.listdir(out)):
        with open(os.path.join(out, name), "rb") as f:
            got.append(f.read())
    return got


def as_delivered(body):
    """A message as a reader hands it to a delivery agent: the gateway's line in front, plain LF line ends."""
    return (APP_LINE.encode() + b"\r\n" + body + b"\r\n").replace(b"\r\n", b"\n")


def check_run(test, result, expected_status=0):
    test.assertEqual(result.returncode, expected_status,
                     result.stdout.decode("latin-1") + result.stderr.decode("latin-1")
                     + stack.gateway_log()[-3000:])


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
        """Runs fetchmail once for `user` with a private HOME and run-control file; returns the messages its
        delivery agent stored, in order."""
        home = private_home(self)
        rc = os.path.join(home, "fetchmailrc")
        # "invisible" keeps fetchmail from adding a Received line; sslproto "" lets it speak plain POP3 (it
        # insists on STLS otherwise), which is what a reader does with the gateway on 127.0.0.1.
        write_private(rc, 'set no syslog\n'
                          'set invisible\n'
                          'poll %s with protocol POP3 port %d auth password timeout 120:\n'
                          '  user "%s" there with password "%s" is "%s" here\n'
                          '  options fetchall %s no rewrite sslproto ""\n'
                          '  mda "%s"\n'
                          % (HOST, stack.pop3_port, user, user + "-pw", user, "keep" if keep else "no keep",
                             " ".join(delivery_agent(home))))
        env = dict(os.environ, HOME=home, FETCHMAILHOME=home)
        check_run(self, run(["fetchmail", "--nodetach", "--verbose", "-f", rc], env=env), expected_status)
        return delivered(home)

    def test_fetch_keeping_the_messages(self):
        got = self.fetch("fetcher", keep=True)
        self.assertEqual(got, [as_delivered(m) for m in M.UNREAD])
        self.assertEqual(len(stack.store.folder_messages("fetcher")), len(M.MIXED))
        self.assertEqual(stack.store.folder_messages("fetcher", TRASH_FOLDER), [])

    def test_fetch_with_deletion_leaves_them_in_the_trash(self):
        got = self.fetch("deleter", keep=False)
        self.assertEqual(got, [as_delivered(m) for m in M.UNREAD])
        self.assertCountEqual(stack.store.folder_messages("deleter", TRASH_FOLDER), M.UNREAD)
        self.assertEqual(stack.store.folder_messages("deleter"), [M.READ])
        # The next fetch finds no mail (fetchmail's status 1).
        self.assertEqual(self.fetch("deleter", keep=False, expected_status=1), [])


class UniqueIds(unittest.TestCase):

    def test_every_unique_id_is_printable_ascii(self):
        # Readers that remember fetched mail by unique id (mpop, getmail6) accept only characters 33 to 126.
        stack.wait_pop3_listening()
        pop = RawClient(stack.pop3_port)
        self.addCleanup(pop.close)
        pop.line()
        pop.command("USER ider")
        pop.command("PASS ider-pw")
        lines = pop.command("UIDL", multiline=True).split(b"\r\n")[1:-2]
        pop.command("QUIT")
        self.assertEqual(len(lines), len(M.READER_UNREAD))
        for line in lines:
            number, unique_id = line.split(b" ")
            self.assertTrue(all(0x21 <= c <= 0x7E for c in unique_id), line)
            self.assertLessEqual(len(unique_id), 69, line)
        self.assertIn(b"=?UTF-8?Q?Fran=C3=A7ois_L=C3=A9ger?=", lines[-2])


def fetch_twice(test, home, args, top_lines, second_run_says):
    """Runs a reader that remembers fetched mail by unique id twice with HOME=home: the first run must
    deliver every unread message whole (below the reader's own `top_lines`), the second none."""
    env = dict(os.environ, HOME=home)
    check_run(test, run(args, env=env))
    test.assertEqual(delivered(home), [top_lines + as_delivered(m) for m in M.READER_UNREAD])
    second = run(args, env=env)
    check_run(test, second)
    test.assertIn(second_run_says, second.stdout.decode("latin-1"))
    test.assertEqual(len(delivered(home)), len(M.READER_UNREAD))


class Getmail(unittest.TestCase):

    def test_fetches_every_message_whole_and_remembers_them(self):
        home = private_home(self)
        rc = os.path.join(home, "getmailrc")
        # A delivery agent instead of getmail's own Maildir writer, which refuses to run as root (as CI does);
        # delivered_to and received off keep the message as the gateway sent it.
        write_private(rc, "[retriever]\ntype = SimplePOP3Retriever\nserver = %s\nport = %d\n"
                          "username = getter\npassword = getter-pw\n\n"
                          "[destination]\ntype = MDA_external\npath = %s\narguments = (%r, %r)\n"
                          "allow_root_commands = true\n\n"
                          "[options]\nread_all = false\ndelete = false\ndelivered_to = false\nreceived = false\n"
                          % ((HOST, stack.pop3_port) + tuple(delivery_agent(home))))
        # getmail always writes the envelope sender on top; the gateway gives none.
        fetch_twice(self, home, ["getmail", "--getmaildir", home, "--rcfile", rc], b"Return-Path: <unknown>\n",
                    "0 messages (0 bytes) retrieved, %d skipped" % len(M.READER_UNREAD))


class Mpop(unittest.TestCase):

    def test_accepts_the_unique_ids_and_fetches_every_message_whole(self):
        home = private_home(self)
        rc = os.path.join(home, "mpoprc")
        # "auth user": mpop refuses to send a password without TLS unless told which method to use. "keep on"
        # leaves the mail on the server, so the second run must tell old from new by the unique ids.
        write_private(rc, "account default\nhost %s\nport %d\nuser mpopper\npassword mpopper-pw\n"
                          "auth user\ntls off\nkeep on\nreceived_header off\nuidls_file %s\n"
                          "delivery mda \"%s\"\n"
                          % (HOST, stack.pop3_port, os.path.join(home, "uidls"), " ".join(delivery_agent(home))))
        fetch_twice(self, home, ["mpop", "-C", rc], b"",
                    "new: no messages, total: %d messages" % len(M.READER_UNREAD))


if __name__ == "__main__":
    unittest.main()
