"""Real mail readers fetch through the built gateway from tarnwick-webmail, each with its own account: Python's
poplib, curl's pop3://, fetchmail, getmail6 and mpop. Every inbox holds one message of each kind in messages.py
and one already read in the web interface, which no reader may see; curl's also holds a 20 MB message."""

import os
import subprocess
import tempfile
import unittest

import messages as M
from tarnwick_testing import APP_LINE, HOST, TRASH_FOLDER, Stack, read_file

BIG = M.big_message(20 * 1024 * 1024)
stack = None


def setUpModule():
    global stack
    stack = Stack()
    unittest.addModuleCleanup(stack.stop)
    for user in ("poppy", "curly", "fetcher", "getter", "mpopper"):
        stack.store.add_user(user, user + " pw")  # a password with a space in it
        for message in M.MAIL:
            stack.store.deliver(user, message, seen=message is M.READ)
    stack.store.deliver("curly", BIG)
    stack.start()


def as_delivered(body):
    """A message as a reader hands it to a delivery agent: the gateway's line in front, plain LF line ends."""
    return (APP_LINE + b"\r\n" + body + b"\r\n").replace(b"\r\n", b"\n")


class Readers(unittest.TestCase):

    def run_reader(self, args, **kwargs):
        stack.wait_listening(stack.pop3_port)
        result = subprocess.run(args, capture_output=True, timeout=120, **kwargs)
        self.assertEqual(result.returncode, 0, (result.stdout + result.stderr).decode("latin-1")
                         + stack.gateway_log()[-3000:])
        return result.stdout.decode("latin-1")

    def home(self, rc_name, rc_text):
        """A fresh HOME holding the reader's configuration rc_text(HOME, agent) (mode 0600, as readers demand);
        agent is a shell command that stores standard input as the next numbered file in HOME/delivered."""
        home = self.enterContext(tempfile.TemporaryDirectory(prefix="tarnwick-reader-"))
        out = os.path.join(home, "delivered")
        os.mkdir(out)
        agent = "n=$(ls %s | wc -l); cat > %s/$((n + 100)).eml" % (out, out)
        rc = os.path.join(home, rc_name)
        with open(os.open(rc, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "w") as f:
            f.write(rc_text(home, agent))
        return home, rc

    @staticmethod
    def delivered(home):
        out = os.path.join(home, "delivered")
        return [read_file(os.path.join(out, name)) for name in sorted(os.listdir(out))]

    def test_poplib_deletes_one_and_the_next_connection_lists_the_rest_by_the_same_ids(self):
        pop = stack.pop3("poppy", "poppy pw")
        self.assertEqual(pop.stat(), (len(M.UNREAD), sum(map(len, M.UNREAD))))
        uids = [line.split(b" ")[1] for line in pop.uidl()[1]]
        self.assertEqual(pop.dele(1), b"+OK msg deleted")
        pop.quit()
        pop = stack.pop3("poppy", "poppy pw")
        self.assertEqual(pop.uidl()[1], [b"%d %s" % (i, uid) for i, uid in enumerate(uids[1:], start=1)])
        pop.quit()

    def test_curl_lists_and_retrieves_every_message(self):
        mail = M.UNREAD + [BIG]

        def curl(path):
            return self.run_reader(["curl", "--silent", "--show-error", "--noproxy", "*", "--user", "curly:curly pw",
                                    "pop3://%s:%d/%s" % (HOST, stack.pop3_port, path)]).encode("latin-1")

        self.assertEqual(curl(""), b"".join(b"%d %d\r\n" % (i, len(m)) for i, m in enumerate(mail, start=1)))
        for i, body in enumerate(mail, start=1):
            self.assertTrue(curl(str(i)) == APP_LINE + b"\r\n" + body + b"\r\n", "message %d differs" % i)

    def test_fetchmail_fetches_and_deletes(self):
        # "invisible": no Received line of fetchmail's own; sslproto "": plain POP3 as on 127.0.0.1.
        home, rc = self.home("fetchmailrc", lambda home, agent: (
            'set no syslog\nset invisible\npoll %s with protocol POP3 port %d auth password timeout 120:\n'
            '  user "fetcher" there with password "fetcher pw" is "fetcher" here\n'
            '  options fetchall no keep no rewrite sslproto ""\n  mda "%s"\n' % (HOST, stack.pop3_port, agent)))
        self.run_reader(["fetchmail", "--nodetach", "--verbose", "-f", rc],
                        env=dict(os.environ, HOME=home, FETCHMAILHOME=home))
        self.assertEqual(self.delivered(home), [as_delivered(m) for m in M.UNREAD])
        # Each went to the trash folder at once; the read one stays where it was, never shown.
        self.assertCountEqual(stack.store.folder_messages("fetcher", TRASH_FOLDER), M.UNREAD)
        self.assertEqual(stack.store.folder_messages("fetcher"), [M.READ])

    def fetch_twice(self, home, args, top_lines, second_run_says):
        """A reader that remembers fetched mail by unique id (printable ASCII ids only), run twice: the first run
        delivers every unread message whole below the reader's own `top_lines`; the second says it knows them all."""
        env = dict(os.environ, HOME=home)
        self.run_reader(args, env=env)
        self.assertEqual(self.delivered(home), [top_lines + as_delivered(m) for m in M.UNREAD])
        self.assertIn(second_run_says, self.run_reader(args, env=env))

    def test_getmail_fetches_and_remembers_by_unique_id(self):
        # An agent instead of getmail's own Maildir writer, which refuses to run as root.
        home, rc = self.home("getmailrc", lambda home, agent: (
            "[retriever]\ntype = SimplePOP3Retriever\nserver = %s\nport = %d\nusername = getter\n"
            "password = getter pw\n\n[destination]\ntype = MDA_external\npath = /bin/sh\narguments = ('-c', %r)\n"
            "allow_root_commands = true\n\n[options]\nread_all = false\ndelete = false\ndelivered_to = false\n"
            "received = false\n" % (HOST, stack.pop3_port, agent)))
        # getmail always writes the envelope sender on top; the gateway gives none.
        self.fetch_twice(home, ["getmail", "--getmaildir", home, "--rcfile", rc], b"Return-Path: <unknown>\n",
                         "0 messages (0 bytes) retrieved, %d skipped" % len(M.UNREAD))

    def test_mpop_fetches_and_remembers_by_unique_id(self):
        # "auth user": no password without TLS unless told the method; "keep on": the second run must tell old
        # from new by the unique ids.
        home, rc = self.home("mpoprc", lambda home, agent: (
            "account default\nhost %s\nport %d\nuser mpopper\npassword mpopper pw\nauth user\ntls off\nkeep on\n"
            "received_header off\nuidls_file %s/uidls\ndelivery mda \"%s\"\n" % (HOST, stack.pop3_port, home, agent)))
        self.fetch_twice(home, ["mpop", "-C", rc], b"", "new: no messages, total: %d messages" % len(M.UNREAD))


if __name__ == "__main__":
    unittest.main()
