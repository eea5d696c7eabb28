"""Drives a running tarnwick-webmail on an ephemeral loopback port, with the requests the gateway sends."""
import base64
import http.client
import os
import re
import select
import signal
import socket
import subprocess
import tempfile
import threading
import unittest
from xml.dom import minidom

BINARY = os.environ.get("TARNWICK_WEBMAIL", "tarnwick-webmail")

LOGIN_HEADER = ("<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:h='http://schemas.tarnwick.invalid/hotmail/' "
                "xmlns:hm='urn:schemas:tarnwick:'><D:prop><h:adbar/><hm:contacts/><hm:inbox/><hm:outbox/><hm:sendmsg/>"
                "<hm:sentitems/><hm:deleteditems/><hm:drafts/><hm:msgfolderroot/><h:maxpoll/><h:sig/></D:prop></D:propfind>")
FOLDER_INFO = ("<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:prop><D:isfolder/>"
               "<D:displayname/><hm:special/><D:hassubs/><D:nosubs/><hm:unreadcount/><D:visiblecount/><hm:special/>"
               "</D:prop></D:propfind>")
MARK_READ = ("<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop>"
             "<hm:read>1</hm:read></D:prop></D:set></D:propertyupdate>")
ENTRY = "/svcs/hotmail/tarnwick.asp"
# The Received: field every delivered copy starts with, for an account and a recipient (regular expressions).
TRACE = (rb"^Received: from \[127\.0\.0\.1\] \(authenticated account %s\)\r\n\tby tarnwick-webmail \(tarnwick\.local\) "
         rb"with HTTP\r\n\tfor <%s>; (Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d{1,2} "
         rb"(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) \d{4} \d\d:\d\d:\d\d \+0000\r\n")


class Service:
    """One tarnwick-webmail process over a fresh store, with accounts demo (sample mail), ann and bob."""

    def __init__(self, *extra):
        self.tmp = tempfile.TemporaryDirectory(prefix="tarnwick-webmail-")
        self.store = self.tmp.name
        for name, password in (("ann", "ann-pw"), ("bob", "bob-pw")):
            subprocess.run([BINARY, "--store", self.store, "--add-user", name, password], check=True,
                           stdout=subprocess.DEVNULL)
        self.log = open(os.path.join(self.tmp.name, "service.log"), "w+b")
        self.proc = subprocess.Popen([BINARY, "--store", self.store, "--demo", "--listen", "127.0.0.1:0", *extra],
                                     stdout=subprocess.PIPE, stderr=self.log)
        ready, _, _ = select.select([self.proc.stdout], [], [], 10)
        line = self.proc.stdout.readline().decode() if ready else ""
        if not line.startswith("listening on 127.0.0.1:"):
            self.proc.kill()
            raise RuntimeError("no startup line, got %r" % line)
        self.port = int(line.strip().rsplit(":", 1)[1])

    def stop(self):
        """Stops the process by its pid with SIGTERM; returns its exit status."""
        if self.proc.poll() is None:
            os.kill(self.proc.pid, signal.SIGTERM)
        status = self.proc.wait(10)
        self.proc.stdout.close()
        self.log.close()
        self.tmp.cleanup()
        return status

    def log_text(self):
        self.log.flush()
        with open(self.log.name, "rb") as f:
            return f.read().decode(errors="replace")

    def request(self, method, path, body=None, headers=None, user="demo", password="demo"):
        """One request with Basic credentials; returns (status, headers, body bytes)."""
        headers = dict(headers or {})
        if user is not None:
            token = base64.b64encode(("%s:%s" % (user, password)).encode()).decode()
            headers["Authorization"] = "Basic " + token
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        try:
            conn.putrequest(method, path, skip_accept_encoding=True)
            for name, value in headers.items():
                conn.putheader(name, value)
            data = body.encode() if isinstance(body, str) else body
            if data is not None:
                conn.putheader("Content-Length", str(len(data)))
            conn.endheaders(data)
            reply = conn.getresponse()
            return reply.status, reply.headers, reply.read()
        finally:
            conn.close()


def rel(url):
    """The path of an absolute address."""
    return "/" + url.split("://", 1)[1].split("/", 1)[1]


def elements(body, name):
    """Elements by qualified name, prefix as written: the way the gateway's patterns match."""
    return minidom.parseString(body).getElementsByTagName(name)


def text(node):
    return "".join(c.data for c in node.childNodes if c.nodeType == c.TEXT_NODE)


def children(node):
    return [c for c in node.childNodes if c.nodeType == c.ELEMENT_NODE]


class ServiceCase(unittest.TestCase):
    extra_args = ()

    def setUp(self):
        self.svc = Service(*self.extra_args)

    def tearDown(self):
        self.assertEqual(self.svc.stop(), 0)

    def login(self, user="demo", password="demo"):
        status, headers, body = self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER},
                                                 user=user, password=password)
        self.assertEqual(status, 207)
        self.assertEqual(headers["X-Dav-Error"], "200 No error")
        entry = children(minidom.parseString(body).documentElement)[0]
        prop = children(children(entry)[1])[0]
        return [text(p) for p in children(prop)]

    def listing(self, url, user="demo", password="demo"):
        status, headers, body = self.svc.request("PROPFIND", rel(url), user=user, password=password)
        self.assertEqual(status, 207)
        self.assertIn("X-Dav-Error", headers)
        return body


class StartupTest(ServiceCase):
    def test_prints_bound_port_logs_each_request_without_password_and_stops_on_sigterm(self):
        self.assertNotEqual(self.svc.port, 0)
        self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER}, password="not-the-password")
        self.login()
        log = self.svc.log_text()
        self.assertIn("PROPFIND /svcs/hotmail/tarnwick.asp 401", log)
        self.assertRegex(log, r"PROPFIND /svcs/hotmail/tarnwick.asp 207 \d+ demo")
        self.assertNotIn("not-the-password", log)

    def test_bad_command_lines_fail_clearly(self):
        for args in (["--listen", "127.0.0.1:99999"], ["--auth", "ntlm"], ["--frobnicate"],
                     ["--max-message-size", "lots"], ["--add-user", "../x", "pw"], ["--listen", "nowhere:0"]):
            run = subprocess.run([BINARY, "--store", self.svc.store, *args], capture_output=True, timeout=10)
            self.assertNotEqual(run.returncode, 0, args)
            self.assertIn(b"tarnwick-webmail:", run.stderr, args)
        self.assertIn(b"--store", subprocess.run([BINARY], capture_output=True, timeout=10).stderr)
        taken = subprocess.run([BINARY, "--store", self.svc.store, "--listen", "127.0.0.1:%d" % self.svc.port],
                               capture_output=True, timeout=10)
        self.assertEqual(taken.returncode, 1)
        self.assertIn(b"cannot listen", taken.stderr)


class GatewayFlowTest(ServiceCase):
    def test_login_folders_listing_fetch_flag_delete(self):
        addresses = self.login()
        inbox, trash, root = addresses[2], addresses[5], addresses[6]
        status, _, body = self.svc.request("PROPFIND", rel(root), FOLDER_INFO)
        self.assertEqual(status, 207)
        self.assertEqual([text(n) for n in elements(body, "D:displayname")][:4],
                         ["Inbox", "Sent Items", "Deleted Items", "Outbox"])

        body = self.listing(inbox)
        sizes = [int(text(n)) for n in elements(body, "D:getcontentlength")]
        urls = [text(children(r)[0]) for r in elements(body, "D:response")]
        ids = [text(n) for n in elements(body, "D:id")]
        self.assertEqual(len(urls), 6)
        for url, size in zip(urls, sizes):
            status, headers, message = self.svc.request("GET", rel(url))
            self.assertEqual((status, len(message), headers["Content-Type"]), (200, size, "message/rfc822"), url)

        status, headers, _ = self.svc.request("PROPPATCH", rel(urls[0]), MARK_READ)
        self.assertEqual((status, headers["X-Dav-Error"]), (207, "200 No error"))
        self.assertEqual(text(elements(self.listing(inbox), "hm:read")[0]), "1")

        move = ("<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>%s</D:href><D:href>%s</D:href>"
                "</D:target></D:move>" % (ids[0], ids[1]))
        status, headers, _ = self.svc.request("BMOVE", rel(inbox), move,
                                              {"Destination": trash, "Content-Type": "text/xml"})
        self.assertEqual((status, headers["X-Dav-Error"]), (207, "200 No error"))
        self.assertEqual([text(n) for n in elements(self.listing(trash), "D:id")], ids[:2])
        self.assertEqual([text(n) for n in elements(self.listing(inbox), "D:id")], ids[2:])

    def test_posted_message_arrives_byte_for_byte_and_is_listed_and_served_as_stored(self):
        send = self.login("ann", "ann-pw")[3]
        original = (b"From: Ann <ann@tarnwick.local>\r\nTo: bob@tarnwick.local\r\nSubject: caf\xc3\xa9\r\n\r\n"
                    b".leading dot\r\nSecond line\r\n.\r\nafter a lone dot\r\n")
        # As the gateway relays it: dot-stuffed text, its own CR LF, then CR LF "." CR LF.
        stuffed = b"\r\n".join(b"." + l if l.startswith(b".") else l for l in original.split(b"\r\n"))
        body = b"MAIL FROM:<ann@tarnwick.local>\r\nRCPT TO:<bob@tarnwick.local>\r\n\r\n" + stuffed + b"\r\n.\r\n"
        status, headers, reply = self.svc.request("POST", rel(send), body, {"Content-Type": "message/rfc821"},
                                                  user="ann", password="ann-pw")
        self.assertEqual((status, headers["X-Dav-Error"], reply), (200, "200 No error", b"delivered 1, queued 0\n"))
        new = os.path.join(self.svc.store, "bob", "new")
        delivered = os.listdir(new)
        self.assertEqual(len(delivered), 1)
        with open(os.path.join(new, delivered[0]), "rb") as f:
            stored = f.read()
        self.assertRegex(stored, TRACE % (b"ann", b"bob@tarnwick\\.local") + re.escape(original) + b"$")
        # A message another tool dropped with bare LF line ends is listed and served with CR LF, at its listed size.
        with open(os.path.join(self.svc.store, "bob", "new", "1234567890.M1P1.othertool"), "wb") as f:
            f.write(b"Subject: dropped\nFrom: x@y.org\n\nunix line ends\n")
        bob = {"user": "bob", "password": "bob-pw"}
        listing = self.listing(self.login(**bob)[2], **bob)
        served = [self.svc.request("GET", rel(text(children(r)[0])), **bob)[2] for r in elements(listing, "D:response")]
        self.assertEqual(sorted(served), sorted([stored, b"Subject: dropped\r\nFrom: x@y.org\r\n\r\nunix line ends\r\n"]))
        self.assertEqual(sorted(int(text(n)) for n in elements(listing, "D:getcontentlength")),
                         sorted(len(m) for m in served))


class AuthTest(ServiceCase):
    def test_refusals_carry_both_challenges_and_x_dav_error(self):
        for user, password in (("demo", "wrong"), ("nobody", "demo"), (None, None), ("demo", "")):
            status, headers, _ = self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER},
                                                  user=user, password=password)
            self.assertEqual((status, headers["X-Dav-Error"]), (401, "401 Authentication required"), user)
            challenges = headers.get_all("WWW-Authenticate")
            self.assertEqual([c.split()[0] for c in challenges], ["Basic", "Digest"])


class DigestAuthTest(ServiceCase):
    """Digest is checked with curl, the HTTP client the gateway itself is built on."""
    extra_args = ("--auth", "digest")

    def curl(self, path, password, *extra):
        run = subprocess.run(["curl", "-s", "-i", "--digest", "-u", "demo:" + password, "-X", "PROPFIND", *extra,
                              "http://127.0.0.1:%d%s" % (self.svc.port, path)], capture_output=True, timeout=20)
        head, _, body = run.stdout.rpartition(b"\r\n\r\n")
        return head.decode(errors="replace"), body

    def test_digest_credentials_are_checked_and_basic_is_not_offered(self):
        head, body = self.curl(ENTRY, "demo", "-H", "PROPFIND: " + LOGIN_HEADER)
        self.assertIn("HTTP/1.1 207", head)
        inbox = text(children(children(children(children(minidom.parseString(body).documentElement)[0])[1])[0])[2])
        head, body = self.curl(rel(inbox), "demo")
        self.assertIn("HTTP/1.1 207", head)
        self.assertEqual(len(elements(body, "D:response")), 6)
        head, _ = self.curl(ENTRY, "wrong")
        self.assertIn("HTTP/1.1 401", head)
        self.assertNotIn("HTTP/1.1 207", head)
        status, headers, _ = self.svc.request("PROPFIND", ENTRY)
        self.assertEqual(status, 401)
        self.assertNotIn("Basic", " ".join(headers.get_all("WWW-Authenticate")))


class RefusalTest(ServiceCase):
    extra_args = ("--max-message-size", "4096")

    def test_paths_outside_the_account_are_never_served(self):
        # Sent as they are: the server must not decode an escaped slash or dot before the router sees the path.
        for path in ("/mail/demo/folders/INBOX/..%2F..%2F..%2Fpasswd", "/mail/demo/folders/..%2F..%2Fpasswd/",
                     "/mail/demo/../../passwd", "/mail/demo/folders/%2e%2e/%2e%2e/passwd",
                     "/mail/demo/folders/INBOX/%2Fetc%2Fpasswd", "/mail/demo/folders/.Sent%20Items/",
                     "/mail/demo/folders/INBOX/cur/", "/mail/demo/folders/INBOX%00/", "/mail/ann/folders/INBOX/",
                     "/mail/..%2Fpasswd/folders/INBOX/", "/passwd"):
            status, headers, body = self.svc.request("GET", path)
            self.assertIn(status, (403, 404, 405), path)
            self.assertIn("X-Dav-Error", headers, path)
            self.assertNotIn(b"demo:demo", body, path)

    def test_bodies_over_the_size_limit_are_refused_and_service_keeps_serving(self):
        inbox = rel(self.login()[2])
        for method, path, body in (("POST", "/mail/demo/sendmsg", "M" * 10000), ("PROPFIND", inbox, " " * 5000)):
            status, headers, _ = self.svc.request(method, path, body, {"Content-Type": "message/rfc821"})
            self.assertEqual((status, headers["X-Dav-Error"]), (413, "413 Request body too large"), method)
            self.assertEqual(self.svc.request("PROPFIND", inbox)[0], 207, "still serving after " + method)

    def test_client_vanishing_mid_request_does_not_hurt_the_service(self):
        for declared, sent in ((3000, 100), (100000, 10), (50, 0)):
            with socket.create_connection(("127.0.0.1", self.svc.port), timeout=5) as s:
                s.sendall(("POST /mail/demo/sendmsg HTTP/1.1\r\nHost: x\r\nContent-Type: message/rfc821\r\n"
                           "Authorization: Basic ZGVtbzpkZW1v\r\nContent-Length: %d\r\n\r\n" % declared).encode()
                          + b"M" * sent)
        with socket.create_connection(("127.0.0.1", self.svc.port), timeout=5) as s:
            s.sendall(b"PROPFIND /mail/demo/folders/INBOX/ HTTP/1.1\r\nHo")  # cut off inside the header
        self.login()
        self.assertEqual(os.listdir(os.path.join(self.svc.store, "demo", ".Sent Items", "cur")), [])


class LoadTest(ServiceCase):
    def test_concurrent_clients_list_fetch_and_send_safely(self):
        addresses = self.login()
        inbox, send = addresses[2], addresses[3]
        failures = []
        posts_per_thread, threads = 5, 8

        def client(n):
            try:
                for i in range(posts_per_thread):
                    for url in [text(children(r)[0]) for r in elements(self.listing(inbox), "D:response")][:2]:
                        if self.svc.request("GET", rel(url))[0] != 200:
                            failures.append("GET " + url)
                    message = ("MAIL FROM:<demo@tarnwick.local>\r\nRCPT TO:<ann@tarnwick.local>\r\n\r\n"
                               "Subject: %d-%d\r\n\r\nbody\r\n\r\n.\r\n" % (n, i))
                    if self.svc.request("POST", rel(send), message, {"Content-Type": "message/rfc821"})[0] != 200:
                        failures.append("POST %d-%d" % (n, i))
            except Exception as e:  # reported below, with the thread's other failures
                failures.append(repr(e))

        workers = [threading.Thread(target=client, args=(n,)) for n in range(threads)]
        for w in workers:
            w.start()
        for w in workers:
            w.join(60)
        self.assertEqual(failures, [])
        listing = self.listing(self.login("ann", "ann-pw")[2], "ann", "ann-pw")
        subjects = sorted(text(n) for n in elements(listing, "m:subject"))
        self.assertEqual(subjects, sorted("%d-%d" % (n, i) for n in range(threads) for i in range(posts_per_thread)))


if __name__ == "__main__":
    unittest.main()
