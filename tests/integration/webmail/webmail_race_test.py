"""Two tarnwick-webmail processes over one store, driven at once the way two instances behind one proxy are:
each message is moved to the trash by one instance while the other flips its read flag at the same moment,
both list the folder meanwhile and both deliver mail into one inbox. Afterwards every file is counted: nothing
lost, nothing doubled, every move done."""
import base64
import http.client
import os
import re
import select
import signal
import subprocess
import tempfile
import threading
import unittest

BINARY = os.environ.get("TARNWICK_WEBMAIL", "tarnwick-webmail")
COUNT = 200
SENT_EACH = 100
INBOX = "/mail/ann/folders/INBOX/"
TRASH = "/mail/ann/folders/Deleted%20Items/"
MARK = ("<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop>"
        "<hm:read>%d</hm:read></D:prop></D:set></D:propertyupdate>")
MOVE = "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>%s</D:href></D:target></D:move>"
AUTH = "Basic " + base64.b64encode(b"ann:ann-pw").decode()


def start(store):
    proc = subprocess.Popen([BINARY, "--store", store, "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL)
    ready, _, _ = select.select([proc.stdout], [], [], 10)
    line = proc.stdout.readline().decode() if ready else ""
    if not line.startswith("listening on 127.0.0.1:"):
        proc.kill()
        raise RuntimeError("no startup line, got %r" % line)
    return proc, int(line.strip().rsplit(":", 1)[1])


class Client:
    """One keep-alive connection to one instance."""

    def __init__(self, port):
        self.conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)

    def request(self, method, path, body="", headers=None):
        self.conn.request(method, path, body.encode(), dict(headers or {}, Authorization=AUTH))
        reply = self.conn.getresponse()
        return reply.status, reply.getheader("X-Dav-Error"), reply.read()


def files(folder):
    """{unique part of the name: content} of one Maildir's new/ and cur/, failing on a unique part seen twice."""
    out = {}
    for sub in ("new", "cur"):
        for name in os.listdir(os.path.join(folder, sub)):
            unique = name.split(":2,")[0]
            assert unique not in out, "%s is in %s twice" % (unique, folder)
            with open(os.path.join(folder, sub, name), "rb") as f:
                out[unique] = f.read()
    return out


class TwoInstancesRaceTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory(prefix="tarnwick-race-")
        self.store = self.tmp.name
        for name in ("ann", "bob"):
            subprocess.run([BINARY, "--store", self.store, "--add-user", name, name + "-pw"], check=True,
                           stdout=subprocess.DEVNULL)
        self.ids = ["race-%03d" % i for i in range(COUNT)]
        for i, unique in enumerate(self.ids):
            tmp = os.path.join(self.store, "ann", "tmp", unique)
            with open(tmp, "wb") as f:
                f.write(b"Subject: race %d\r\n\r\nbody of message %d\r\n" % (i, i))
            os.rename(tmp, os.path.join(self.store, "ann", "new", unique))
        self.procs = []
        self.ports = []
        for _ in range(2):
            proc, port = start(self.store)
            self.procs.append(proc)
            self.ports.append(port)

    def tearDown(self):
        for proc in self.procs:
            if proc.poll() is None:
                os.kill(proc.pid, signal.SIGTERM)
            self.assertEqual(proc.wait(10), 0)
            proc.stdout.close()
        self.tmp.cleanup()

    def test_moves_flags_listings_and_deliveries_of_two_processes_lose_and_double_nothing(self):
        moved = [[], []]  # ids each instance answered 201 for
        listed_twice = []
        errors = []
        done = threading.Event()

        def guarded(work):
            def run():
                try:
                    work()
                except Exception as e:  # reported by the main thread
                    errors.append(repr(e))
            return run

        # Message i is moved by instance i % 2 while the other instance flips its flag: both start together.
        barriers = [threading.Barrier(2, timeout=30) for _ in self.ids]

        def mover(which):
            client = Client(self.ports[which])
            for i in range(which, COUNT, 2):
                barriers[i].wait()
                status, _, body = client.request("BMOVE", INBOX, MOVE % self.ids[i],
                                                 {"Destination": TRASH, "Content-Type": "text/xml"})
                assert status == 207, status
                if b"201 Created" in body:
                    moved[which].append(self.ids[i])

        def flagger(which):
            client = Client(self.ports[which])
            for i in range(1 - which, COUNT, 2):
                barriers[i].wait()
                for read in (1, 0, 1, 0):
                    status, _, _ = client.request("PROPPATCH", INBOX + self.ids[i], MARK % read)
                    assert status in (207, 404), status  # 404: moved away already

        def lister(which):
            client = Client(self.ports[which])
            while not done.is_set():
                status, _, body = client.request("PROPFIND", INBOX)
                assert status == 207, status
                ids = re.findall(rb"<D:id>([^<]*)</D:id>", body)
                if len(ids) != len(set(ids)):
                    listed_twice.append(sorted(ids))

        def sender(which):
            client = Client(self.ports[which])
            for n in range(SENT_EACH):
                text = ("MAIL FROM:<ann@tarnwick.local>\r\nRCPT TO:<bob@tarnwick.local>\r\n\r\n"
                        "Subject: sent %d-%d\r\n\r\nfrom instance %d\r\n.\r\n" % (which, n, which))
                status, _, _ = client.request("POST", "/mail/ann/sendmsg", text,
                                              {"Content-Type": "message/rfc821"})
                assert status == 200, status

        workers = [
            threading.Thread(target=guarded(lambda: mover(0))),
            threading.Thread(target=guarded(lambda: mover(1))),
            threading.Thread(target=guarded(lambda: flagger(0))),
            threading.Thread(target=guarded(lambda: flagger(1))),
            threading.Thread(target=guarded(lambda: sender(0))),
            threading.Thread(target=guarded(lambda: sender(1))),
        ]
        listers = [threading.Thread(target=guarded(lambda w=w: lister(w))) for w in (0, 1)]
        for t in workers + listers:
            t.start()
        for t in workers:
            t.join(120)
        done.set()
        for t in listers:
            t.join(30)

        self.assertEqual(errors, [])
        self.assertEqual(listed_twice, [])
        # Every move succeeded although a flag change renamed the same file at the same moment.
        self.assertEqual(sorted(moved[0] + moved[1]), self.ids)
        ann = os.path.join(self.store, "ann")
        self.assertEqual(files(ann), {})
        trash = files(os.path.join(ann, ".Deleted Items"))
        self.assertEqual(sorted(trash), self.ids)
        for i, unique in enumerate(self.ids):
            self.assertEqual(trash[unique], b"Subject: race %d\r\n\r\nbody of message %d\r\n" % (i, i))
        # Every posted message arrived once in bob's inbox and once in ann's Sent Items.
        for folder in (os.path.join(self.store, "bob"), os.path.join(ann, ".Sent Items")):
            subjects = sorted(re.search(rb"Subject: sent (\d+-\d+)", m).group(1).decode()
                              for m in files(folder).values())
            self.assertEqual(subjects, sorted("%d-%d" % (w, n) for w in (0, 1) for n in range(SENT_EACH)), folder)
        for folder in ("", ".Deleted Items", ".Sent Items"):
            self.assertEqual(os.listdir(os.path.join(ann, folder, "tmp")), [])
        self.assertEqual(os.listdir(os.path.join(self.store, "bob", "tmp")), [])


if __name__ == "__main__":
    unittest.main()
