#!/usr/bin/env python3
"""First STAT against its floor: how long the gateway's first STAT of a connection takes, next to a bare
keep-alive HTTP client that sends the same n + 3 requests (log-in, folder listing, inbox listing, one GET per
message) to the same tarnwick-webmail, for 250, 1000 and 4000 messages of 10 KB, with Digest and with Basic.

Run by hand after a build (nothing is installed, nothing asserted):
    bench/first_stat_floor.py [--build build] [--sizes 250,1000,4000] [--auth digest,basic] [--pairs 5]
Each measurement is a pair, gateway then floor, repeated --pairs times in turn; the ratios come last.
"""

import argparse
import base64
import hashlib
import os
import re
import socket
import sys
import xml.etree.ElementTree as ET

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bench_support as B  # noqa: E402

USER_AGENT = "Outlook Express/5.0 (MSIE 5.0; Windows 2000; Tarnwick-POP3 Gateway;)"
FOLDER_URLS_REQUEST = (
    "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:h='http://schemas.tarnwick.invalid/hotmail/' "
    "xmlns:hm='urn:schemas:tarnwick:'><D:prop><h:adbar/><hm:contacts/><hm:inbox/><hm:outbox/><hm:sendmsg/>"
    "<hm:sentitems/><hm:deleteditems/><hm:drafts/><hm:msgfolderroot/><h:maxpoll/><h:sig/></D:prop></D:propfind>")
FOLDER_INFO_REQUEST = (
    "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:prop><D:isfolder/>"
    "<D:displayname/><hm:special/><D:hassubs/><D:nosubs/><hm:unreadcount/><D:visiblecount/><hm:special/></D:prop>"
    "</D:propfind>")
HREF = re.compile(rb"<D:href>([^<]*)</D:href>")


class FloorClient:
    """One keep-alive connection over a bare socket, requests written and replies read by hand; credentials on
    every request (Digest: the last nonce, nc counting up; a challenge is answered once, as any client must)."""

    def __init__(self, port, auth):
        self.sock = socket.create_connection((B.HOST, port))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.host = "%s:%d" % (B.HOST, port)
        self.auth = auth
        self.basic = "Basic " + base64.b64encode(("%s:%s" % (B.USER, B.PASSWORD)).encode()).decode()
        self.nonce = self.realm = self.opaque = None
        self.nc = 0
        self.requests = 0
        self.cnonce = os.urandom(8).hex()
        self.buffer = b""

    def _authorization(self, method, path):
        if self.auth == "basic":
            return self.basic
        if self.nonce is None:
            return None
        self.nc += 1
        nc = "%08x" % self.nc
        ha1 = hashlib.md5(("%s:%s:%s" % (B.USER, self.realm, B.PASSWORD)).encode()).hexdigest()
        ha2 = hashlib.md5(("%s:%s" % (method, path)).encode()).hexdigest()
        response = hashlib.md5(("%s:%s:%s:%s:auth:%s" % (ha1, self.nonce, nc, self.cnonce, ha2)).encode()).hexdigest()
        value = ('Digest username="%s", realm="%s", nonce="%s", uri="%s", cnonce="%s", nc=%s, qop=auth, '
                 'response="%s", algorithm=MD5' % (B.USER, self.realm, self.nonce, path, self.cnonce, nc, response))
        if self.opaque:
            value += ', opaque="%s"' % self.opaque
        return value

    def _read_reply(self):
        while b"\r\n\r\n" not in self.buffer:
            self.buffer += self.sock.recv(65536)
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        lines = head.split(b"\r\n")
        status = int(lines[0].split()[1])
        headers = [tuple(x.strip() for x in line.split(b":", 1)) for line in lines[1:]]
        length = next((int(v) for k, v in headers if k.lower() == b"content-length"), 0)
        while len(self.buffer) < length:
            self.buffer += self.sock.recv(max(65536, length - len(self.buffer)))
        body, self.buffer = self.buffer[:length], self.buffer[length:]
        challenges = [v.decode() for k, v in headers if k.lower() == b"www-authenticate"]
        return status, challenges, body

    def request(self, method, url, body=b"", headers=None):
        path = re.sub(r"^https?://[^/]+", "", url)
        for _ in range(3):
            h = ["%s %s HTTP/1.1" % (method, path), "Host: " + self.host, "User-Agent: " + USER_AGENT]
            a = self._authorization(method, path)
            if a:
                h.append("Authorization: " + a)
            for k, v in (headers or {}).items():
                h.append("%s: %s" % (k, v))
            if body or method not in ("GET",):
                h.append("Content-Length: %d" % len(body))
            self.sock.sendall(("\r\n".join(h) + "\r\n\r\n").encode() + body)
            status, challenges, data = self._read_reply()
            self.requests += 1
            if status == 401 and self.auth == "digest":
                digest = next(c for c in challenges if c.startswith("Digest"))
                params = dict(re.findall(r'(\w+)="?([^",]*)"?', digest))
                self.nonce, self.realm, self.opaque, self.nc = params["nonce"], params["realm"], params.get("opaque"), 0
                continue
            return data
        raise RuntimeError("%s %s: not accepted" % (method, path))

    def first_stat(self, service_url):
        login = self.request("PROPFIND", service_url, headers={"PROPFIND": FOLDER_URLS_REQUEST})
        props = ET.fromstring(login)[0][1][0]
        inbox, root = props[2].text, props[6].text
        self.request("PROPFIND", root, body=FOLDER_INFO_REQUEST.encode())
        listing = self.request("PROPFIND", inbox, body=b"")
        hrefs = HREF.findall(listing)
        for href in hrefs:
            self.request("GET", href.decode())
        return len(hrefs)

    def close(self):
        self.sock.close()


def gateway_first_stat(port):
    pop = B.pop3_login(port)
    elapsed, (count, _) = B.timed(pop.stat)
    pop.quit()
    return elapsed, count


def floor_first_stat(port, auth, service_url):
    """Timed from the connection on: the gateway's first STAT connects to the service too."""
    def run():
        client = FloorClient(port, auth)
        return client, client.first_stat(service_url)
    elapsed, (client, count) = B.timed(run)
    client.close()
    return elapsed, count, client.requests


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    B.add_binary_options(parser)
    parser.add_argument("--sizes", default="250,1000,4000")
    parser.add_argument("--auth", default="digest,basic")
    parser.add_argument("--message-kb", type=int, default=10)
    args = parser.parse_args()
    gateway_bin, webmail_bin = B.binaries(args)
    print("gateway %s\nwebmail %s" % (gateway_bin, webmail_bin))
    ratios = []
    for n in (int(s) for s in args.sizes.split(",")):
        work = B.make_workdir("tarnwick-floor-")
        try:
            store = B.Store(os.path.join(work, "store"), n, args.message_kb * 1024)
            for auth in args.auth.split(","):
                webmail = B.Webmail(webmail_bin, store, work, auth)
                gateway = B.Gateway(gateway_bin, webmail.url(), work)
                try:
                    g_times, f_times = [], []
                    for _ in range(args.pairs):
                        before = len(webmail.request_lines())
                        t, count = gateway_first_stat(gateway.pop3_port)
                        g_requests = len(webmail.request_lines()) - before
                        g_times.append(t)
                        t, fcount, f_requests = floor_first_stat(webmail.port, auth, webmail.url())
                        f_times.append(t)
                        assert count == fcount == n, (count, fcount, n)
                    print("n=%d %s: gateway %s, %d requests; floor %s, %d requests" % (
                        n, auth, B.describe(g_times), g_requests, B.describe(f_times), f_requests))
                    ratios.append(B.ratio_line("first STAT / floor, n=%d, %s" % (n, auth), g_times, f_times, 1.15))
                finally:
                    gateway.stop()
                    webmail.stop()
        finally:
            B.remove_workdir(work)
    B.print_ratios(ratios)


if __name__ == "__main__":
    main()
