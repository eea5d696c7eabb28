"""A scripted stand-in for the web mail service on 127.0.0.1, in a thread of the test process: it answers the
gateway's log-in, folder listing, inbox listing and message fetches with fixed, well-formed replies, except where
a failure is scripted for the next request of one kind."""

import http.server
import socket
import threading
import time

ERROR_PAGE = b"<html><body><h1>500 Internal Server Error</h1></body></html>\r\n"
INBOX = [
    ("msg-1", b"From: Ann <ann@example.org>\r\nSubject: one\r\n\r\nThe first message.\r\n"),
    ("msg-2", b"From: Bob <bob@example.org>\r\nSubject: two\r\n\r\n.A line that begins with a dot.\r\n"),
]

# Failures for the next request of a kind ("login", "folders", "inbox", "get", "bmove", "post").
ERROR_500_NO_DAV = "500 no header"   # status 500, an HTML page, no X-Dav-Error header
SILENT = "silent"                    # reads the request, then says nothing and keeps the connection open
STALL_MID_BODY = "stall mid-body"    # reply headers and half the body, then nothing, the connection kept open
ENDLESS = "endless"                  # reply headers, then body bytes for ever (chunked, no end)
SLOW_READ = "slow read"              # reads a few bytes of the posted body slowly, then reads nothing more


class ScriptedService:

    def __init__(self):
        self._failures = {}
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self.endless_sent = 0  # body bytes the endless replies have sent so far
        service = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *args):
                pass

            def do_PROPFIND(self):
                service._answer(self)

            do_GET = do_BMOVE = do_POST = do_PROPFIND

        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._server.daemon_threads = True
        self.base = "http://127.0.0.1:%d" % self._server.server_address[1]
        threading.Thread(target=self._server.serve_forever, daemon=True).start()

    def stop(self):
        self._stop.set()
        self._server.shutdown()
        self._server.server_close()

    def fail_next(self, kind, failure):
        with self._lock:
            self._failures[kind] = failure

    def _hold(self, h):
        """Keeps the connection open and silent until the service stops."""
        h.close_connection = True
        self._stop.wait()

    def _answer(self, h):
        kind = h.command.lower()
        if h.command == "PROPFIND":
            kind = {"/svcs/hotmail/tarnwick.asp": "login", "/folders/": "folders"}.get(h.path, "inbox")
        with self._lock:
            failure = self._failures.pop(kind, None)
        if failure == SLOW_READ:
            # A few bytes a second while the client keeps sending, then nothing: the client's send stalls.
            h.connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            for _ in range(3):
                h.rfile.read(16)
                time.sleep(0.5)
            return self._hold(h)
        h.rfile.read(int(h.headers.get("Content-Length") or 0))
        if failure == SILENT:
            return self._hold(h)
        body = ERROR_PAGE if failure == ERROR_500_NO_DAV else self._body(kind, h.path)
        h.send_response(500 if failure == ERROR_500_NO_DAV else 200)
        if failure != ERROR_500_NO_DAV:
            h.send_header("X-Dav-Error", "200 No error")
        if failure == ENDLESS:
            h.send_header("Transfer-Encoding", "chunked")
        else:
            h.send_header("Content-Length", str(len(body)))
        h.end_headers()
        if failure == ENDLESS:
            h.close_connection = True
            while not self._stop.is_set():
                try:
                    h.wfile.write(b"%x\r\n%s\r\n" % (1 << 16, b"x" * (1 << 16)))
                except OSError:
                    return
                with self._lock:
                    self.endless_sent += 1 << 16
        elif failure == STALL_MID_BODY:
            h.wfile.write(body[: len(body) // 2])
            h.wfile.flush()
            self._hold(h)
        else:
            h.wfile.write(body)

    def _body(self, kind, path):
        b = self.base
        if kind == "login":
            paths = ["/adpane", "/contacts", "/inbox/", "/sendmsg", "/sent/", "/trash/", "/folders/"]
            props = "".join("<q:p%d>%s%s</q:p%d>" % (i, b, path, i) for i, path in enumerate(paths))
            return ('<?xml version="1.0"?><D:multistatus xmlns:D="DAV:" xmlns:q="urn:q"><D:response>'
                    '<D:href>%s/svcs/hotmail/tarnwick.asp</D:href><D:propstat><D:prop>%s</D:prop>'
                    '<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response></D:multistatus>'
                    % (b, props)).encode()
        if kind == "folders":  # no folders besides the inbox: POP3 reads only the inbox
            return b'<?xml version="1.0"?><D:multistatus xmlns:D="DAV:"/>'
        if kind == "inbox":  # the fields the gateway's POP3 server needs: address, id, size, read flag
            entries = "".join(
                '<D:response><D:href>%s/inbox/%s</D:href><D:propstat><D:prop><D:id>%s</D:id><D:getcontentlength>%d'
                '</D:getcontentlength><hm:read>0</hm:read></D:prop></D:propstat></D:response>' % (b, i, i, len(text))
                for i, text in INBOX)
            return ('<?xml version="1.0"?><D:multistatus xmlns:D="DAV:" xmlns:hm="urn:schemas:tarnwick:">%s'
                    '</D:multistatus>' % entries).encode()
        # GET, and a BMOVE or POST the tests only ever answer with a failure.
        return dict(("/inbox/" + i, text) for i, text in INBOX).get(path, b"not found\r\n")
