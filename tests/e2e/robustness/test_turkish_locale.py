"""Command words in lower case under LC_ALL=tr_TR.UTF-8, whose case rules do not map "i" to "I": the gateway
(and tarnwick-webmail) run under the locale, and each word must get the answer its upper-case form gets."""

import os
import poplib
import smtplib
import subprocess
import unittest

import messages as M
from tarnwick_testing import HOST, Stack, answer

LOCALE = "tr_TR.UTF-8"


class TurkishLocale(unittest.TestCase):

    def same_answers(self, ask, commands):
        for lower in commands:
            word, _, rest = lower.partition(" ")
            with self.subTest(lower):
                self.assertEqual(ask(lower), ask(word.upper() + " " + rest))

    def test_pop3_and_smtp_words_in_lower_case(self):
        if LOCALE.lower().replace("-", "") not in subprocess.run(["locale", "-a"], capture_output=True,
                                                                  text=True).stdout.lower().replace("-", "").split():
            self.skipTest(LOCALE + " is not generated (scripts/setup generates it)")
        os.environ["LC_ALL"] = LOCALE
        stack = Stack()
        self.addCleanup(stack.stop)
        stack.store.add_user("ilkin", "gizli")
        stack.store.deliver("ilkin", M.PLAIN)
        stack.store.deliver("ilkin", M.DOTS)
        stack.start()

        stack.wait_listening(stack.pop3_port)
        pop = poplib.POP3(HOST, stack.pop3_port, timeout=60)
        self.addCleanup(pop.close)

        def ask(command):
            return answer(pop, command, multiline=command.lower().strip() in ("list", "uidl", "retr 1"))

        self.same_answers(ask, ["user ilkin", "pass gizli", "stat", "list", "list 2", "uidl", "uidl 1", "retr 1"])
        self.assertEqual(answer(pop, "stat"), b"+OK 2 %d" % (len(M.PLAIN) + len(M.DOTS)))
        self.assertEqual(answer(pop, "quit"), b"+OK Tarnwick/POP3 Gateway Server - Good-Bye")

        stack.wait_listening(stack.smtp_port)
        smtp = smtplib.SMTP(HOST, stack.smtp_port, timeout=60)
        self.addCleanup(smtp.close)
        self.same_answers(smtp.docmd, ["helo client.example", "mail from:<ilkin@tarnwick.local>",
                                       "rcpt to:<ilkin@tarnwick.local>"])
        self.assertEqual(smtp.docmd("quit"), (221, b"tarnwick.local"))


if __name__ == "__main__":
    unittest.main()
