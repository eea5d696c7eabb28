"""Two tarnwick-webmail processes over one store, driven at once the way two instances behind one proxy are:
each message is moved to the trash by one instance while the other flips its read flag at the same moment,
both list the folder meanwhile and both deliver mail into one inbox. Afterwards every file is counted: nothing
lost, nothing doubled, every move done."""

import base64
import http.client
import os
import re
import tempfile
import threading
import unittest
from concurrent.futures import ThreadPoolExecutor

from tarnwick_testing import HOST, Store, Webmail, read_file

COUNT = 200
SENT_EACH = 100
INBOX = "/mail/ann/folders/INBOX/"
MARK = ("<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop>"
        "<hm:read>%d</hm:read></D:prop></D:set></D:propertyupdate>")
MOVE = "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>%s</D:href></D:target></D:move>"
AUTH = "Basic " + base64.b64encode(b"ann:ann-pw").decode()


def files(folder):
    """{unique part of the name: content} of one Maildir's new/ and cur/, failing on a unique part seen twice."""
    out = {}
    for sub in ("new", "cur"):
        for name in os.listdir(os.path.join(folder, sub)):
            unique = name.split(":2,")[0]
            assert unique not in out, "%s is in %s twice" % (unique, folder)
            out[unique] = read_file(os.path.join(folder, sub, name))
    return out


def text(i):
    return b"Subject: race %d\r\n\r\nbody of message %d\r\n" % (i, i)


class TwoInstancesRaceTest(unittest.TestCase):

    def test_moves_flags_listings_and_deliveries_of_two_processes_lose_and_double_nothing(self):
        tmp = tempfile.TemporaryDirectory(prefix="tarnwick-race-")
        self.addCleanup(tmp.cleanup)
        store = Store(os.path.join(tmp.name, "store"))
        store.add_user("ann", "ann-pw")
        store.add_user("bob", "bob-pw")
        ids = [store.deliver("ann", text(i)) for i in range(COUNT)]
        ports = []
        for name in ("one", "two"):
            instance = Webmail(tmp.name, name, store.root)
            self.addCleanup(lambda i=instance: self.assertEqual(i.stop(), 0))
            ports.append(instance.port)
        done = threading.Event()

        def request(conn, method, path, body="", headers=None):
            conn.request(method, path, body.encode(), dict(headers or {}, Authorization=AUTH))
            reply = conn.getresponse()
            return reply.status, reply.read()

        # Message i is moved by instance i % 2 while the other instance flips its flag: both start together.
        def mover(which):
            conn = http.client.HTTPConnection(HOST, ports[which], timeout=30)
            for i in range(which, COUNT, 2):
                barriers[i].wait()
                status, body = request(conn, "BMOVE", INBOX, MOVE % ids[i], {
                    "Destination": "/mail/ann/folders/Deleted%20Items/", "Content-Type": "text/xml"})
                # The move succeeds although a flag change renames the same file at the same moment.
                assert status == 207 and b"201 Created" in body, (status, body)

        def flagger(which):
            conn = http.client.HTTPConnection(HOST, ports[which], timeout=30)
            for i in range(1 - which, COUNT, 2):
                barriers[i].wait()
                for read in (1, 0, 1, 0):
                    status, _ = request(conn, "PROPPATCH", INBOX + ids[i], MARK % read)
                    assert status in (207, 404), status  # 404: moved away already

        def lister(which):
            conn = http.client.HTTPConnection(HOST, ports[which], timeout=30)
            while not done.is_set():
                status, body = request(conn, "PROPFIND", INBOX)
                assert status == 207, status
                listed = re.findall(rb"<D:id>([^<]*)</D:id>", body)
                assert len(listed) == len(set(listed)), sorted(listed)

        def sender(which):
            conn = http.client.HTTPConnection(HOST, ports[which], timeout=30)
            for n in range(SENT_EACH):
                status, _ = request(conn, "POST", "/mail/ann/sendmsg", "MAIL FROM:<ann@tarnwick.local>\r\n"
                                    "RCPT TO:<bob@tarnwick.local>\r\n\r\nSubject: sent %d-%d\r\n\r\nfrom %d\r\n.\r\n"
                                    % (which, n, which), {"Content-Type": "message/rfc821"})
                assert status == 200, status

        barriers = [threading.Barrier(2, timeout=30) for _ in ids]
        with ThreadPoolExecutor(8) as pool:
            listers = [pool.submit(lister, which) for which in (0, 1)]
            try:
                for work in [pool.submit(work, which) for work in (mover, flagger, sender) for which in (0, 1)]:
                    work.result(120)  # raises what the worker raised
            finally:
                done.set()  # the listers stop
            for work in listers:
                work.result(30)

        ann = os.path.join(store.root, "ann")
        self.assertEqual(files(ann), {})
        self.assertEqual(files(os.path.join(ann, ".Deleted Items")), {unique: text(i) for i, unique in enumerate(ids)})
        # Every posted message arrived once in bob's inbox and once in ann's Sent Items.
        for folder in (os.path.join(store.root, "bob"), os.path.join(ann, ".Sent Items")):
            subjects = sorted(re.search(rb"Subject: sent (\d+-\d+)", m).group(1).decode()
                              for m in files(folder).values())
            self.assertEqual(subjects, sorted("%d-%d" % (w, n) for w in (0, 1) for n in range(SENT_EACH)), folder)
        for folder in (ann, os.path.join(ann, ".Deleted Items"), os.path.join(ann, ".Sent Items"),
                       os.path.join(store.root, "bob")):
            self.assertEqual(os.listdir(os.path.join(folder, "tmp")), [])

