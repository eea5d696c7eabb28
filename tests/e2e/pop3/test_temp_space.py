"""The gateway keeps the fetched messages' texts in a file in the temp folder. When that file cannot take them
(here a file size limit on the gateway, which needs no privileges and fails the write as a full disk does),
real readers get an error at their first mailbox command, never a message cut short, and the mail stays
unread on the service; the gateway goes on serving."""

import poplib
import resource
import subprocess
import unittest

import messages as M
from tarnwick_testing import HOST, Stack

LIMIT = 1024 * 1024


class TempSpace(unittest.TestCase):

    def test_a_temp_file_that_cannot_grow_is_an_error_for_the_reader(self):
        stack = Stack(gateway_limits={resource.RLIMIT_FSIZE: LIMIT})
        stack.store.add_user("full", "full pw")
        big = M.big_message(3 * LIMIT)
        stack.store.deliver("full", M.MAIL[0])
        stack.store.deliver("full", big)
        stack.start()
        self.addCleanup(stack.stop)

        pop = poplib.POP3(HOST, stack.pop3_port, timeout=60)
        pop.user("full")
        pop.pass_("full pw")
        with self.assertRaises(poplib.error_proto) as failure:
            pop.stat()
        self.assertEqual(failure.exception.args[0], b"-ERR Disk full")
        with self.assertRaises(poplib.error_proto) as failure:
            pop.retr(2)
        self.assertEqual(failure.exception.args[0], b"-ERR Disk full")
        pop.quit()

        stack.wait_listening(stack.pop3_port)
        curl = subprocess.run(["curl", "--silent", "--show-error", "--noproxy", "*", "--user", "full:full pw",
                               "pop3://%s:%d/2" % (HOST, stack.pop3_port)], capture_output=True, timeout=60)
        self.assertNotEqual(curl.returncode, 0, curl.stdout[:200])
        self.assertEqual(curl.stdout, b"", "no part of the message may reach the reader")
        self.assertIsNone(stack.gateway.poll(), "the gateway goes on running")
        self.assertEqual(len(stack.store.folder_messages("full")), 2)
        self.assertIn(big, stack.store.folder_messages("full"))


if __name__ == "__main__":
    unittest.main()
