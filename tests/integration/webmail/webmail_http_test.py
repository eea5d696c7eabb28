"""Drives a running tarnwick-webmail on an ephemeral loopback port, with the requests the gateway sends."""
import base64
import hashlib
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
LISTED = ["D:id", "m:subject", "m:to", "m:from", "h:fromaddr", "m:date", "D:getcontentlength", "hm:read",
          "hm:hasattachment"]


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
        self.assertEqual(subprocess.run([BINARY, "--help"], capture_output=True, timeout=10).returncode, 0)
        taken = subprocess.run([BINARY, "--store", self.svc.store, "--listen", "127.0.0.1:%d" % self.svc.port],
                               capture_output=True, timeout=10)
        self.assertEqual(taken.returncode, 1)
        self.assertIn(b"cannot listen", taken.stderr)


class GatewayFlowTest(ServiceCase):
    def test_login_folders_listing_fetch_flag_delete(self):
        addresses = self.login()
        inbox, send, trash, root = addresses[2], addresses[3], addresses[5], addresses[6]
        status, _, body = self.svc.request("PROPFIND", rel(root), FOLDER_INFO)
        self.assertEqual(status, 207)
        names = [text(children(children(children(r)[1])[0])[1]) for r in elements(body, "D:response")]
        self.assertEqual(names[:4], ["Inbox", "Sent Items", "Deleted Items", "Outbox"])

        body = self.listing(inbox)
        responses = elements(body, "D:response")
        self.assertGreaterEqual(len(responses), 5)
        for name in LISTED:
            self.assertEqual(len(elements(body, name)), len(responses), name)
        sizes = [int(text(n)) for n in elements(body, "D:getcontentlength")]
        urls = [text(children(r)[0]) for r in responses]
        ids = [text(n) for n in elements(body, "D:id")]
        self.assertGreaterEqual([text(n) for n in elements(body, "hm:read")].count("0"), 4)
        for url, size in zip(urls, sizes):
            status, headers, message = self.svc.request("GET", rel(url))
            self.assertEqual((status, len(message)), (200, size), url)
            self.assertNotIn(b"\n", message.replace(b"\r\n", b""))
        self.assertTrue(any(b"\r\n.\r\n" in self.svc.request("GET", rel(u))[2] for u in urls))

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
        status, headers, _ = self.svc.request("POST", rel(send), "x", {"Content-Type": "text/plain"})
        self.assertEqual(status, 415)

    def test_posted_message_arrives_byte_for_byte_in_the_recipients_maildir(self):
        send = self.login("ann", "ann-pw")[3]
        original = (b"From: Ann <ann@tarnwick.local>\r\nTo: bob@tarnwick.local\r\nSubject: caf\xc3\xa9\r\n\r\n"
                    b".leading dot\r\nSecond line\r\n.\r\nafter a lone dot\r\n")
        # As the gateway relays it: dot-stuffed text, its own CR LF, then CR LF "." CR LF.
        stuffed = b"\r\n".join(b"." + l if l.startswith(b".") else l for l in original.split(b"\r\n"))
        body = b"MAIL FROM:<ann@tarnwick.local>\r\nRCPT TO:<bob@tarnwick.local> NOTIFY=NEVER\r\n\r\n" + stuffed + b"\r\n.\r\n"
        status, headers, _ = self.svc.request("POST", rel(send), body, {"Content-Type": "message/rfc821"},
                                              user="ann", password="ann-pw")
        self.assertEqual((status, headers["X-Dav-Error"]), (200, "200 No error"))
        new = os.path.join(self.svc.store, "bob", "new")
        delivered = os.listdir(new)
        self.assertEqual(len(delivered), 1)
        with open(os.path.join(new, delivered[0]), "rb") as f:
            stored = f.read()
        # A trace field naming the account that posted it comes first, then the message byte for byte.
        self.assertRegex(stored, TRACE % (b"ann", b"bob@tarnwick\\.local") + re.escape(original) + b"$")
        sent = os.listdir(os.path.join(self.svc.store, "ann", ".Sent Items", "cur"))
        self.assertEqual(len(sent), 1)
        self.assertTrue(sent[0].endswith(":2,S"))
        # Bob's listing shows it, unread, and GET gives the same bytes.
        inbox = self.login("bob", "bob-pw")[2]
        listing = self.listing(inbox, "bob", "bob-pw")
        url = text(children(elements(listing, "D:response")[0])[0])
        self.assertEqual(self.svc.request("GET", rel(url), user="bob", password="bob-pw")[2], stored)
        self.assertEqual(text(elements(listing, "hm:read")[0]), "0")

    def test_mail_for_other_domains_is_queued_in_the_outbox(self):
        send = self.login("ann", "ann-pw")[3]
        body = b"MAIL FROM:<ann@tarnwick.local>\r\nRCPT TO:<x@far.example>\r\n\r\nSubject: out\r\n\r\nhi\r\n\r\n.\r\n"
        self.assertEqual(self.svc.request("POST", rel(send), body, {"Content-Type": "message/rfc821"},
                                          user="ann", password="ann-pw")[0], 200)
        self.assertEqual(len(os.listdir(os.path.join(self.svc.store, "ann", ".Outbox", "new"))), 1)

    def test_message_dropped_into_new_by_another_tool_is_listed_and_keeps_its_id(self):
        new = os.path.join(self.svc.store, "ann", "new", "1234567890.M1P1.othertool")
        with open(new, "wb") as f:
            f.write(b"Subject: dropped\nFrom: x@y.org\n\nunix line ends\n")
        inbox = self.login("ann", "ann-pw")[2]
        listing = self.listing(inbox, "ann", "ann-pw")
        self.assertEqual([text(n) for n in elements(listing, "D:id")], ["1234567890.M1P1.othertool"])
        self.assertEqual(text(elements(listing, "D:getcontentlength")[0]), str(len(b"Subject: dropped\r\nFrom: x@y.org\r\n\r\nunix line ends\r\n")))
        url = text(children(elements(listing, "D:response")[0])[0])
        self.assertEqual(self.svc.request("PROPPATCH", rel(url), MARK_READ, user="ann", password="ann-pw")[0], 207)
        self.assertEqual(os.listdir(os.path.join(self.svc.store, "ann", "cur")), ["1234567890.M1P1.othertool:2,S"])


class AuthTest(ServiceCase):
    def test_basic_refusals_carry_a_challenge_and_x_dav_error(self):
        for user, password in (("demo", "wrong"), ("nobody", "demo"), (None, None), ("demo", "")):
            status, headers, _ = self.svc.request("PROPFIND", ENTRY, headers={"PROPFIND": LOGIN_HEADER},
                                                  user=user, password=password)
            self.assertEqual(status, 401, user)
            self.assertIn("X-Dav-Error", headers)
            challenges = " ".join(headers.get_all("WWW-Authenticate"))
            self.assertIn("Basic", challenges)
            self.assertIn("Digest", challenges)


class DigestAuthTest(ServiceCase):
    """Digest is checked with curl, the HTTP client the gateway itself is built on."""
    extra_args = ("--auth", "digest")

    def curl(self, path, password, *extra):
        run = subprocess.run(["curl", "-s", "-i", "--digest", "-u", "demo:" + password, "-X", "PROPFIND", *extra,
                              "http://127.0.0.1:%d%s" % (self.svc.port, path)], capture_output=True, timeout=20)
        head, _, body = run.stdout.rpartition(b"\r\n\r\n")
        return head.decode(errors="replace"), body

    def test_digest_credentials_are_checked(self):
        head, body = self.curl(ENTRY, "demo", "-H", "PROPFIND: " + LOGIN_HEADER)
        self.assertIn("HTTP/1.1 207", head)
        inbox = text(children(children(children(elements(body, "D:response")[0])[1])[0])[2])
        head, body = self.curl(rel(inbox), "demo")
        self.assertIn("X-Dav-Error: 200 No error", head)
        self.assertGreaterEqual(len(elements(body, "D:response")), 5)
        head, body = self.curl(ENTRY, "wrong")
        self.assertNotIn("HTTP/1.1 207", head)
        self.assertIn("HTTP/1.1 401", head)
        self.assertIn("X-Dav-Error", head)
        # Basic credentials are not accepted when only Digest is offered.
        status, headers, _ = self.svc.request("PROPFIND", ENTRY)
        self.assertEqual(status, 401)
        self.assertNotIn("Basic", " ".join(headers.get_all("WWW-Authenticate")))

    def test_one_nonce_serves_every_address_and_the_scheme_in_any_case(self):
        status, headers, _ = self.svc.request("PROPFIND", ENTRY, user=None)
        self.assertEqual(status, 401)
        challenge = dict(re.findall(r'(\w+)="?([^",]*)"?', headers["WWW-Authenticate"]))
        self.assertEqual((challenge["realm"], challenge["qop"], challenge["algorithm"]), ("tarnwick-webmail", "auth", "MD5"))

        def md5(text):
            return hashlib.md5(text.encode()).hexdigest()

        def digest(method, uri, nc, password="demo"):
            ha1 = md5("demo:tarnwick-webmail:" + password)
            response = md5(":".join((ha1, challenge["nonce"], nc, "c0ffee", "auth", md5(method + ":" + uri))))
            return {"Authorization": 'digest username="demo", realm="tarnwick-webmail", nonce="%s", uri="%s", '
                                     'qop=auth, nc=%s, cnonce="c0ffee", opaque="%s", response="%s"'
                                     % (challenge["nonce"], uri, nc, challenge["opaque"], response)}

        for method, uri, nc, expected in (("PROPFIND", ENTRY, "00000001", 207),
                                          ("PROPFIND", "/mail/demo/folders/", "00000002", 207),
                                          ("GET", "/mail/demo/folders/", "00000002", 401),  # nc replayed
                                          ("PROPFIND", "/mail/demo/folders/INBOX/", "00000003", 207)):
            status, headers, _ = self.svc.request(method, uri, headers=digest(method, uri, nc), user=None)
            self.assertEqual(status, expected, (uri, nc))
        self.assertEqual(self.svc.log_text().count(" 401 "), 2)


class RefusalTest(ServiceCase):
    extra_args = ("--max-message-size", "4096")

    def assert_refused(self, statuses, reply, what):
        status, headers, body = reply
        self.assertIn(status, statuses, what)
        self.assertIn("X-Dav-Error", headers, what)
        self.assertNotIn(b"demo:demo", body, what)

    def test_paths_outside_the_account_are_never_served(self):
        for path in ("/mail/demo/folders/INBOX/..%2F..%2F..%2Fpasswd", "/mail/demo/folders/..%2F..%2Fpasswd/",
                     "/mail/demo/../../passwd", "/mail/demo/folders/%2e%2e/%2e%2e/passwd",
                     "/mail/demo/folders/INBOX/%2Fetc%2Fpasswd", "/mail/demo/folders/INBOX/..",
                     "/mail/demo/folders/.Sent%20Items/", "/mail/demo/folders/INBOX/cur/", "/etc/passwd",
                     "/mail/demo/folders/INBOX%00/", "/mail/ann/folders/INBOX/", "/mail/ann/sendmsg",
                     "/mail/..%2Fpasswd/folders/INBOX/", "/passwd"):
            for method in ("GET", "PROPFIND"):
                self.assert_refused({400, 403, 404, 405}, self.svc.request(method, path), path)
        self.assertEqual(self.svc.request("GET", "/mail/ann/folders/INBOX/")[0], 403)

    def test_bad_bodies_methods_and_sizes_are_refused_and_service_keeps_serving(self):
        inbox = rel(self.login()[2])
        cases = [
            ({400}, ("PROPFIND", inbox, "<D:propfind xmlns:D='DAV:'>"), "truncated XML"),
            ({400}, ("PROPFIND", ENTRY, None, {"PROPFIND": "<not xml"}), "malformed log-in header"),
            ({400}, ("PROPPATCH", inbox + "x", "\x00garbage"), "garbage flag body"),
            ({400}, ("BMOVE", inbox, "<D:move", {"Destination": inbox, "Content-Type": "text/xml"}), "bad move"),
            ({400}, ("BMOVE", inbox, "<D:move xmlns:D='DAV:'><D:target/></D:move>",
                     {"Destination": "", "Content-Type": "text/xml"}), "empty Destination"),
            ({405}, ("FROB", inbox, None), "unknown method"),
            ({405}, ("DELETE", inbox, None), "DELETE is not offered"),
            ({413}, ("POST", "/mail/demo/sendmsg", "M" * 10000, {"Content-Type": "message/rfc821"}), "huge body"),
            ({413}, ("PROPFIND", inbox, " " * 5000), "huge listing body"),
            ({415}, ("POST", "/mail/demo/sendmsg", "MAIL FROM:<a>\r\n", {"Content-Type": "text/html"}), "type"),
        ]
        for statuses, args, what in cases:
            method, path, body = args[:3]
            headers = args[3] if len(args) > 3 else None
            self.assert_refused(statuses, self.svc.request(method, path, body, headers), what)
            self.assertEqual(self.svc.request("PROPFIND", inbox)[0], 207, "still serving after " + what)

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


class TrustRulesTest(ServiceCase):
    """Each case sends the request that once showed a way out of an account's own tree or past its checks."""

    def post(self, body, user="ann", password="ann-pw"):
        return self.svc.request("POST", "/mail/%s/sendmsg" % user, body, {"Content-Type": "message/rfc821"},
                                user=user, password=password)

    def files(self, user, folder=""):
        base = os.path.join(self.svc.store, user, ("." + folder) if folder else "")
        return [os.path.join(base, sub, n) for sub in ("new", "cur") for n in sorted(os.listdir(os.path.join(base, sub)))]

    def test_symbolic_links_to_files_or_folders_are_never_followed(self):
        store = self.svc.store
        elsewhere = tempfile.TemporaryDirectory(prefix="tarnwick-outside-")
        self.addCleanup(elsewhere.cleanup)
        outside = os.path.join(elsewhere.name, "secret")
        with open(outside, "wb") as f:
            f.write(b"Subject: outside the store\r\n\r\nsecret\r\n")
        bob_message = os.path.join(store, "bob", "cur", "1.bob.only:2,")
        with open(bob_message, "wb") as f:
            f.write(b"Subject: for bob only\r\n\r\nprivate\r\n")
        os.symlink(outside, os.path.join(store, "ann", "cur", "2.outside.link:2,"))
        os.symlink(bob_message, os.path.join(store, "ann", "new", "3.bobs.link"))
        linked = os.path.join(store, "ann", ".Linked")  # a folder whose cur/ is bob's
        os.makedirs(os.path.join(linked, "new"))
        os.makedirs(os.path.join(linked, "tmp"))
        os.symlink(os.path.join(store, "bob", "cur"), os.path.join(linked, "cur"))
        os.symlink(os.path.join(store, "bob"), os.path.join(store, "ann", ".Bob"))  # a folder that is a link
        ann = {"user": "ann", "password": "ann-pw"}
        self.assertEqual(elements(self.listing(self.login(**ann)[2], **ann), "D:response"), [])
        for path in ("/mail/ann/folders/INBOX/2.outside.link", "/mail/ann/folders/INBOX/3.bobs.link",
                     "/mail/ann/folders/Linked/1.bob.only", "/mail/ann/folders/Bob/1.bob.only"):
            status, headers, body = self.svc.request("GET", path, **ann)
            self.assertEqual(status, 404, path)
            self.assertNotIn(b"private", body)
            self.assertNotIn(b"secret", body)
        for path in ("/mail/ann/folders/Linked/", "/mail/ann/folders/Bob/"):
            self.assertEqual(self.svc.request("PROPFIND", path, **ann)[0], 404, path)
        _, _, body = self.svc.request("PROPFIND", "/mail/ann/folders/", FOLDER_INFO, **ann)
        self.assertNotIn(b"Linked", body)
        self.assertNotIn(b"Bob", body)

    def test_envelope_control_characters_are_refused_with_a_reason(self):
        for body, reason in (
                (b"MAIL FROM:<ann@tarnwick.local>\r\nRCPT TO:<far@x.example\rBcc: spy@y.example>\r\n\r\nhi\r\n.\r\n",
                 "400 Message refused: control character in the RCPT TO line"),
                (b"MAIL FROM:<ann@tarnwick.local>\r\nRCPT TO:<far@x.example>\rBcc: spy@y.example\r\n\r\nhi\r\n.\r\n",
                 "400 Message refused: control character in the RCPT TO line"),
                (b"MAIL FROM:<ann@tarnwick.local\x00>\r\nRCPT TO:<bob@tarnwick.local>\r\n\r\nhi\r\n.\r\n",
                 "400 Message refused: control character in the MAIL FROM line")):
            status, headers, _ = self.post(body)
            self.assertEqual((status, headers["X-Dav-Error"]), (400, reason))
        self.assertEqual(self.files("ann", "Outbox") + self.files("ann", "Sent Items") + self.files("bob"), [])

    def test_recipients_are_kept_once_each_and_capped(self):
        same = b"".join(b"RCPT TO:<bob@%s>\r\n" % d for d in (b"tarnwick.local", b"TARNWICK.local") * 5000)
        status, headers, body = self.post(b"MAIL FROM:<ann@tarnwick.local>\r\n" + same + b"\r\nhi\r\n.\r\n")
        self.assertEqual((status, body), (200, b"delivered 1, queued 0\n"))
        self.assertEqual(len(self.files("bob")), 1)
        many = b"".join(b"RCPT TO:<r%d@far.example>\r\n" % i for i in range(101))
        status, headers, _ = self.post(b"MAIL FROM:<ann@tarnwick.local>\r\n" + many + b"\r\nhi\r\n.\r\n")
        self.assertEqual((status, headers["X-Dav-Error"]), (400, "400 Message refused: more than 100 recipients"))
        self.assertEqual(self.files("ann", "Outbox"), [])
        self.assertEqual(len(self.files("ann", "Sent Items")), 1)

    def test_every_copy_names_the_account_that_posted_it(self):
        # Ann posts with Demo's address as sender: the copies say who really sent them.
        status, _, _ = self.post(b"MAIL FROM:<demo@tarnwick.local>\r\nRCPT TO:<bob@tarnwick.local>\r\n\r\n"
                                 b"From: demo@tarnwick.local\r\n\r\nhi\r\n\r\n.\r\n")
        self.assertEqual(status, 200)
        status, _, _ = self.post(b"MAIL FROM:<ann@tarnwick.local>\r\nRCPT TO:<far@x.example>\r\n\r\nhi\r\n\r\n.\r\n")
        self.assertEqual(status, 200)
        def read(path):
            with open(path, "rb") as f:
                return f.read()

        self.assertRegex(read(self.files("bob")[0]), TRACE % (b"ann", b"bob@tarnwick\\.local"))
        self.assertRegex(read(self.files("ann", "Outbox")[0]), TRACE % (b"ann", b"far@x\\.example"))
        # Both posts left a copy in Sent Items; their file names need not sort in the order they were posted.
        sent = [read(path) for path in self.files("ann", "Sent Items")]
        self.assertEqual(len(sent), 2)
        for recipient in (b"bob@tarnwick\\.local", b"far@x\\.example"):
            self.assertEqual(sum(bool(re.match(TRACE % (b"ann", recipient), copy)) for copy in sent), 1, recipient)

    def test_basic_credentials_are_read_strictly_and_the_scheme_in_any_case(self):
        for scheme, credentials, status in (("basic", b"demo:demo", 207), ("BASIC", b"demo:demo", 207),
                                            ("Basic", b"demo:demo\x00junk", 401), ("Basic", b"demo:demo\r", 401),
                                            ("Basic", b"demo\n:demo", 401)):
            header = {"Authorization": scheme + " " + base64.b64encode(credentials).decode(), "PROPFIND": LOGIN_HEADER}
            self.assertEqual(self.svc.request("PROPFIND", ENTRY, headers=header, user=None)[0], status,
                             (scheme, credentials))

    def test_ids_are_short_distinct_and_stable_so_unique_ids_never_collide(self):
        common = "1700000000.M123456P4242Q1." + "x" * 60
        for n, name in enumerate((common + ".one.example.org", common + ".two.example.org")):
            with open(os.path.join(self.svc.store, "ann", "new", name), "wb") as f:
                f.write(b"From: same@sender.example\r\nSubject: %d\r\n\r\nbody %d\r\n" % (n, n))
        ann = {"user": "ann", "password": "ann-pw"}
        inbox = self.login(**ann)[2]
        listing = self.listing(inbox, **ann)
        ids = [text(n) for n in elements(listing, "D:id")]
        self.assertEqual(len(ids), 2)
        # The gateway's unique id: the id, ":" and the sender with "@" as ":", cut at 69 characters.
        unique = [(i + ":same:sender.example")[:69] for i in ids]
        self.assertNotEqual(unique[0], unique[1])
        for n, (i, response) in enumerate(zip(ids, elements(listing, "D:response"))):
            self.assertLessEqual(len(i), 40)
            self.assertRegex(i, r"^[!-~]+$")
            self.assertEqual(self.svc.request("GET", rel(text(children(response)[0])), **ann)[2],
                             b"From: same@sender.example\r\nSubject: %d\r\n\r\nbody %d\r\n" % (n, n))
        self.assertEqual(self.svc.request("PROPPATCH", "/mail/ann/folders/INBOX/" + ids[0], MARK_READ, **ann)[0], 207)
        self.assertEqual([text(n) for n in elements(self.listing(inbox, **ann), "D:id")], ids)


class LoadTest(ServiceCase):
    def test_concurrent_clients_list_fetch_and_send_safely(self):
        inbox, send = self.login()[2], self.login()[3]
        failures = []
        posts_per_thread, threads = 5, 8

        def client(n):
            try:
                for i in range(posts_per_thread):
                    body = self.listing(inbox)
                    for url in [text(children(r)[0]) for r in elements(body, "D:response")][:2]:
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
