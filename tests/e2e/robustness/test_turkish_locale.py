"""Command words in lower case under LC_ALL=tr_TR.UTF-8, whose case rules do not map "i" to "I": the gateway
(and tarnwick-webmail) run under the locale, and each word must get the answer its upper-case form gets."""

import os
import subprocess
import unittest

import messages as M
from tarnwick_testing import Stack

LOCALE = "tr_TR.UTF-8"
stack = None


def setUpModule():
    global stack
    if LOCALE.lower().replace("-", "") not in subprocess.run(["locale", "-a"], capture_output=True,
                                                              text=True).stdout.lower().replace("-", "").split():
        raise unittest.SkipTest(LOCALE + " is not generated (scripts/setup generates it)")
    os.environ["LC_ALL"] = LOCALE
    stack = Stack()
    unittest.addModuleCleanup(stack.stop)
    stack.store.add_user("ilkin", "gizli")
    stack.store.deliver("ilkin", M.PLAIN)
    stack.store.deliver("ilkin", M.DOTS)
    stack.start()


class TurkishLocale(unittest.TestCase):

    def same_answers(self, port, greeting, commands):
        c = stack.client(port)
        self.addCleanup(c.close)
        self.assertEqual(c.line(), greeting)
        for lower in commands:
            word, _, rest = lower.partition(" ")
            multiline = lower in ("list", "uidl", "retr 1")
            with self.subTest(lower):
                self.assertEqual(c.command(lower, multiline), c.command(word.upper() + " " + rest, multiline))
        return c

    def test_pop3_words_in_lower_case(self):
        c = self.same_answers(stack.pop3_port, b"+OK Tarnwick/POP3 Gateway Server - Hello\r\n",
                              ["user ilkin", "pass gizli", "stat", "list", "list 2", "uidl", "uidl 1", "retr 1"])
        self.assertEqual(c.command("stat"), b"+OK 2 %d\r\n" % (len(M.PLAIN) + len(M.DOTS)))
        self.assertEqual(c.command("quit"), b"+OK Tarnwick/POP3 Gateway Server - Good-Bye\r\n")

    def test_smtp_words_in_lower_case(self):
        c = self.same_answers(stack.smtp_port, b"220 tarnwick.local\r\n",
                              ["helo client.example", "mail from:<ilkin@tarnwick.local>",
                               "rcpt to:<ilkin@tarnwick.local>"])
        self.assertEqual(c.command("quit"), b"221 tarnwick.local\r\n")


if __name__ == "__main__":
    unittest.main()
