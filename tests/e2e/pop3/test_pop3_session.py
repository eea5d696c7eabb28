"""POP3 sessions against the built gateway and tarnwick-webmail: a poplib transcript, exact response bytes,
the lazy log-in and a 20 MB message. One webmail and one gateway serve the whole file; each test uses its own
account so that the tests do not depend on each other's order."""

import poplib
import unittest

import messages as M
from gateway_stack import APP_LINE, HOST, TRASH_FOLDER, RawClient, Stack

GREETING = b"+OK Tarnwick/POP3 Gateway Server - Hello"
FAREWELL = b"+OK Tarnwick/POP3 Gateway Server - Good-Bye"
BIG_SIZE = 20 * 1024 * 1024

stack = None
alice_ids = []


def setUpModule():
    global stack, alice_ids
    stack = Stack()
    s = stack.store
    s.add_user("alice", "open sesame")  # a password with a space in it
    alice_ids = M.deliver_mixed(s, "alice")
    s.add_user("carol", "carolpw")
    M.deliver_mixed(s, "carol")
    s.add_user("bob", "bobpw")
    s.deliver("bob", M.PLAIN)
    s.deliver("bob", M.DOTS)
    s.add_user("erin", "erinpw")
    s.add_user("dave", "davepw")
    s.deliver("dave", M.big_message(BIG_SIZE))
    stack.start()


def tearDownModule():
    stack.stop()


class Pop3Session(unittest.TestCase):

    def connect(self):
        stack.wait_pop3_listening()
        pop = poplib.POP3(HOST, stack.pop3_port, timeout=120)
        self.addCleanup(pop.close)
        return pop

    def raw(self):
        stack.wait_pop3_listening()
        client = RawClient(stack.pop3_port)
        self.addCleanup(client.close)
        self.assertEqual(client.line(), GREETING + b"\r\n")
        return client

    def log_in(self, user, password):
        pop = self.connect()
        self.assertEqual(pop.getwelcome(), GREETING)
        self.assertEqual(pop.user(user), b"+OK send password")
        self.assertEqual(pop.pass_(password), b"+OK send stat")
        return pop

    def test_transcript_of_a_whole_fetch_with_deletion(self):
        pop = self.log_in("alice", "open sesame")
        sizes = [len(m) for m in M.UNREAD]
        total = sum(sizes)
        self.assertEqual(pop._shortcmd("STAT"), b"+OK %d %d" % (len(sizes), total))

        resp, lines, _ = pop.list()
        self.assertEqual(resp, b"+OK %d messages (%d octets)" % (len(sizes), total))
        self.assertEqual(lines, [b"%d %d" % (i + 1, n) for i, n in enumerate(sizes)])
        self.assertEqual(pop.list(3), b"+OK 3 %d" % sizes[2])
        self.assertEqual(pop._shortcmd("LIST 02"), b"+OK 02 %d" % sizes[1])
        self.assertEqual(pop._shortcmd("LIST  1"), b"+OK  1 %d" % sizes[0])
        for refused in ("LIST 0", "LIST 32768", "LIST 6", "RETR 0"):
            with self.assertRaises(poplib.error_proto, msg=refused) as caught:
                pop._shortcmd(refused)
            self.assertTrue(caught.exception.args[0].startswith(b"-ERR "), caught.exception.args[0])

        resp, uid_lines, _ = pop.uidl()
        self.assertEqual(resp, b"+OK ")
        uids = [line.split(b" ", 1) for line in uid_lines]
        self.assertEqual([n for n, _ in uids], [b"%d" % (i + 1) for i in range(len(sizes))])
        for n, uid in uids:
            self.assertLessEqual(len(uid), 69)
            self.assertNotIn(b"@", uid)
            self.assertNotIn(b" ", uid)
            self.assertEqual(pop.uidl(int(n)), b"+OK " + n + b" " + uid)
        self.assertEqual(len({uid for _, uid in uids}), len(uids))
        # The service's id of the message, ":", and the sender with "@" and spaces made ":".
        self.assertEqual(uids[0][1], (alice_ids[0] + ":Ann:Example:<ann:example.org>").encode()[:69])
        self.assertEqual(uids[1][1], (alice_ids[2] + ":Dot:Person:<dot:example.org>").encode()[:69])

        for i, body in enumerate(M.UNREAD, start=1):
            resp, lines, _ = pop.retr(i)
            self.assertEqual(resp, b"+OK %d octets" % len(body))
            self.assertEqual(lines, [APP_LINE.encode()] + body.split(b"\r\n"), "message %d" % i)

        self.assertEqual(pop.dele(1), b"+OK msg deleted")
        # The loaded list stays as it was for the rest of the connection.
        self.assertEqual(pop.retr(1)[1][1:], M.UNREAD[0].split(b"\r\n"))
        self.assertEqual(pop._shortcmd("STAT"), b"+OK %d %d" % (len(sizes), total))
        self.assertEqual(pop.quit(), FAREWELL)

        # The deletion happened on the service at once: the message sits in the trash folder, and the next
        # connection loads an inbox without it. The read message stays where it was, never shown.
        self.assertEqual(stack.store.folder_messages("alice", TRASH_FOLDER), [M.PLAIN])
        self.assertCountEqual(stack.store.folder_messages("alice"), [m for m in M.MIXED if m is not M.PLAIN])
        pop = self.log_in("alice", "open sesame")
        self.assertEqual(pop._shortcmd("STAT"), b"+OK %d %d" % (len(sizes) - 1, total - sizes[0]))
        self.assertEqual(pop.uidl()[1], [b"%d %s" % (i, uid) for i, (_, uid) in enumerate(uids[1:], start=1)])
        pop.quit()

    def test_responses_byte_for_byte(self):
        client = self.raw()
        self.assertEqual(client.command("USER carol"), b"+OK send password\r\n")
        self.assertEqual(client.command("PASS carolpw"), b"+OK send stat\r\n")
        for i, body in enumerate(M.UNREAD, start=1):
            expected = (b"+OK %d octets\r\n" % len(body) + APP_LINE.encode() + b"\r\n"
                        + M.stuffed(body) + b"\r\n.\r\n")
            self.assertEqual(client.command("RETR %d" % i, multiline=True), expected, "message %d" % i)
        # A body that already ends in CR LF is followed by an empty line before the terminating line.
        self.assertTrue(client.command("RETR 1", multiline=True).endswith(b"plain message.\r\n\r\n.\r\n"))
        self.assertEqual(client.command("DELE 0"), b"-ERR No such message\r\n")
        self.assertEqual(client.command("RETR abc"), b"-ERR Invalid message number\r\n")
        self.assertEqual(client.command("QUIT"), FAREWELL + b"\r\n")
        self.assertEqual(len(stack.store.folder_messages("carol")), len(M.MIXED))

    def test_empty_mailbox(self):
        client = self.raw()
        client.command("USER erin")
        client.command("PASS erinpw")
        self.assertEqual(client.command("STAT"), b"+OK 0 0\r\n")
        self.assertEqual(client.command("LIST", multiline=True), b"+OK 0 messages (0 octets)\r\n.\r\n")
        self.assertEqual(client.command("UIDL", multiline=True), b"+OK \r\n.\r\n")
        self.assertEqual(client.command("RETR 1"), b"-ERR No such message\r\n")

    def test_log_in_is_lazy_and_once_per_connection(self):
        before = stack.service_requests()
        pop = self.log_in("bob", "bobpw")
        self.assertEqual(stack.service_requests(), before, "USER and PASS must not reach the service")

        self.assertEqual(pop.stat(), (2, len(M.PLAIN) + len(M.DOTS)))
        after_load = stack.service_requests()
        # Log-in, folder listing, inbox listing and one fetch per message at the least.
        self.assertGreaterEqual(after_load - before, 3 + 2)

        pop.stat()
        pop.list()
        pop.uidl()
        pop.retr(2)
        self.assertEqual(stack.service_requests(), after_load, "the mailbox is loaded once per connection")
        pop.quit()

        pop = self.log_in("bob", "bobpw")
        self.assertEqual(stack.service_requests(), after_load)
        self.assertEqual(pop.stat()[0], 2)
        self.assertGreaterEqual(stack.service_requests() - after_load, 3 + 2, "a new connection loads afresh")
        pop.quit()

    def test_wrong_password_fails_at_every_mailbox_command(self):
        pop = self.log_in("bob", "not the password")
        for command in ("STAT", "LIST", "UIDL", "RETR 1", "DELE 1", "STAT"):
            with self.assertRaises(poplib.error_proto, msg=command) as caught:
                pop._shortcmd(command)
            self.assertTrue(caught.exception.args[0].startswith(b"-ERR "), caught.exception.args[0])
        self.assertEqual(pop.quit(), FAREWELL)
        self.assertEqual(len(stack.store.folder_messages("bob")), 2)
        self.assertEqual(stack.store.folder_messages("bob", TRASH_FOLDER), [])

    def test_twenty_megabyte_message_in_one_response(self):
        body = M.big_message(BIG_SIZE)
        client = self.raw()
        client.command("USER dave")
        client.command("PASS davepw")
        self.assertEqual(client.command("LIST 1"), b"+OK 1 %d\r\n" % len(body))
        response = client.command("RETR 1", multiline=True)
        expected = (b"+OK %d octets\r\n" % len(body) + APP_LINE.encode() + b"\r\n"
                    + M.stuffed(body) + b"\r\n.\r\n")
        self.assertEqual(len(response), len(expected))
        self.assertTrue(response == expected, "the 20 MB message differs from what the store holds")


if __name__ == "__main__":
    unittest.main()
