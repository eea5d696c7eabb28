"""Command words in lower case under LC_ALL=tr_TR.UTF-8. That locale's case rules upper-case "i" to a dotted
capital (or leave it alone in a single byte), so any locale-dependent case mapping of a command word turns
"quit" into something that is not QUIT. The gateway and tarnwick-webmail both run under the locale; the
mail reader's words must be read exactly as their upper-case forms are."""

import os
import subprocess
import unittest

import messages as M
from gateway_stack import APP_LINE, RawClient, Stack

LOCALE = "tr_TR.UTF-8"
GREETING = b"+OK Tarnwick/POP3 Gateway Server - Hello\r\n"
FAREWELL = b"+OK Tarnwick/POP3 Gateway Server - Good-Bye\r\n"

stack = None


def locale_available():
    out = subprocess.run(["locale", "-a"], capture_output=True, text=True).stdout.lower().split()
    return "tr_tr.utf8" in out or "tr_tr.utf-8" in out


def setUpModule():
    global stack
    if not locale_available():
        raise unittest.SkipTest(LOCALE + " is not generated (scripts/setup generates it)")
    os.environ["LC_ALL"] = LOCALE
    stack = Stack()
    stack.store.add_user("ilkin", "gizli")
    stack.store.deliver("ilkin", M.PLAIN)
    stack.store.deliver("ilkin", M.DOTS)
    stack.start()


def tearDownModule():
    if stack:
        stack.stop()


class TurkishLocale(unittest.TestCase):

    def test_pop3_session_in_lower_case(self):
        stack.wait_pop3_listening()
        c = RawClient(stack.pop3_port)
        self.addCleanup(c.close)
        self.assertEqual(c.line(), GREETING)
        self.assertEqual(c.command("user ilkin"), b"+OK send password\r\n")
        self.assertEqual(c.command("pass gizli"), b"+OK send stat\r\n")
        sizes = [len(M.PLAIN), len(M.DOTS)]
        total = sum(sizes)
        self.assertEqual(c.command("stat"), b"+OK 2 %d\r\n" % total)
        self.assertEqual(c.command("list", multiline=True),
                         b"+OK 2 messages (%d octets)\r\n1 %d\r\n2 %d\r\n.\r\n" % (total, *sizes))
        self.assertEqual(c.command("list 2"), b"+OK 2 %d\r\n" % sizes[1])
        uidl = c.command("uidl", multiline=True)
        self.assertTrue(uidl.startswith(b"+OK \r\n1 ") and uidl.endswith(b"\r\n.\r\n"), uidl)
        self.assertEqual(c.command("uidl 1"), b"+OK 1 " + uidl.split(b"\r\n")[1][2:] + b"\r\n")
        retr = c.command("retr 1", multiline=True)
        self.assertEqual(retr, b"+OK %d octets\r\n%s\r\n%s\r\n.\r\n"
                         % (sizes[0], APP_LINE.encode(), M.PLAIN))
        self.assertEqual(c.command("quit"), FAREWELL)
        # The log names the word as it came, and the dispatch read it as QUIT.
        self.assertIn("CLIENT_REQUEST: quit\r\n", stack.gateway_log())
        self.assertNotIn("does not understand", stack.gateway_log())

    def test_smtp_words_in_lower_case_are_read_as_in_upper_case(self):
        c = RawClient(stack.smtp_port)
        self.addCleanup(c.close)
        self.assertEqual(c.line(), b"220 tarnwick.local\r\n")
        for lower, upper in (("helo client.example", "HELO client.example"),
                             ("mail from:<ilkin@tarnwick.local>", "MAIL FROM:<ilkin@tarnwick.local>"),
                             ("rcpt to:<ilkin@tarnwick.local>", "RCPT TO:<ilkin@tarnwick.local>"),
                             ("quit", "QUIT")):
            with self.subTest(lower):
                self.assertEqual(c.command(lower), c.command(upper))
        self.assertEqual(c.command("quit"), b"221 tarnwick.local\r\n")
        self.assertEqual(c.command("eHlO x"), b"500 Tarnwick/SMTP Gateway Server does not understand the "
                                               b"command: EHLO\r\n")


if __name__ == "__main__":
    unittest.main()
