"""The service on another machine, on this one: throwaway certificates made with openssl, and nginx from Debian
in front of tarnwick-webmail instances with the packaged example site (packaging/nginx/tarnwick-webmail.conf),
its port, certificate and instances swapped for ours. nginx runs in the foreground with a private prefix and
configuration, on 127.0.0.1 only."""

import os
import re
import shutil
import subprocess

from tarnwick_testing import is_listening, start, stop_process

EXAMPLE_SITE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging", "nginx",
                            "tarnwick-webmail.conf")


def nginx_binary():
    """nginx's path, or None where it is not installed (scripts/setup installs it)."""
    return shutil.which("nginx") or shutil.which("nginx", path="/usr/sbin")


def make_certificates(folder):
    """Two throwaway CAs and a server certificate for localhost and 127.0.0.1 signed by the first; returns the
    paths {"ca", "other_ca", "cert", "key"}."""
    def run(*args):
        subprocess.run(["openssl", *args], check=True, cwd=folder, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)

    for name, subject in (("ca", "/CN=Tarnwick test CA"), ("other-ca", "/CN=Some other CA")):
        run("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", name + ".key", "-out", name + ".pem",
            "-days", "2", "-subj", subject)
    run("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "server.key", "-out", "server.pem", "-days", "2",
        "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1",
        "-addext", "basicConstraints=CA:FALSE", "-CA", "ca.pem", "-CAkey", "ca.key")
    return {name: os.path.join(folder, file) for name, file in
            (("ca", "ca.pem"), ("other_ca", "other-ca.pem"), ("cert", "server.pem"), ("key", "server.key"))}


def make_nonce_key(path):
    """A shared Digest nonce key, readable by its owner only."""
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "wb") as f:
        f.write(os.urandom(32))
    return path


def site_config(listen_port, cert, key, upstream_ports, example=EXAMPLE_SITE):
    """The packaged example site with our port (127.0.0.1 only), certificate and instances."""
    with open(example) as f:
        text = f.read()
    servers = "".join("    server 127.0.0.1:%d max_fails=1 fail_timeout=10s;\n" % p for p in upstream_ports)
    for pattern, replacement in ((r"(    server 127\.0\.0\.1:\d+ [^\n]*\n)+", servers),
                                 (r"    listen 443 ssl;\n    listen \[::\]:443 ssl;\n",
                                  "    listen 127.0.0.1:%d ssl;\n" % listen_port),
                                 (r"ssl_certificate \S+;", "ssl_certificate %s;" % cert),
                                 (r"ssl_certificate_key \S+;", "ssl_certificate_key %s;" % key)):
        text, n = re.subn(pattern, lambda _: replacement, text)
        assert n == 1, "%r is not in %s once" % (pattern, example)
    return text


class Nginx:
    """nginx in the foreground with a private prefix in folder, serving site (the text of a server block and
    what goes with it) on listen_port."""

    def __init__(self, folder, site, listen_port, workers=1):
        self.folder = os.path.join(folder, "nginx")
        os.makedirs(os.path.join(self.folder, "temp"), exist_ok=True)
        site_path = os.path.join(self.folder, "site.conf")
        with open(site_path, "w") as f:
            f.write(site)
        # As root nginx would hand its workers to "nobody", who cannot read this private folder.
        user = "user root;\n" if os.geteuid() == 0 else ""
        temp = os.path.join(self.folder, "temp")
        conf = os.path.join(self.folder, "nginx.conf")
        with open(conf, "w") as f:
            f.write(user + "daemon off;\nworker_processes %d;\npid %s/nginx.pid;\nerror_log %s/error.log warn;\n"
                    "events { worker_connections 1024; }\nhttp {\n    access_log off;\n" % (workers, self.folder,
                                                                                          self.folder))
            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"):
                f.write("    %s_temp_path %s/%s;\n" % (kind, temp, kind))
            f.write("    include %s;\n}\n" % site_path)
        self.port = listen_port
        self.proc = start([nginx_binary(), "-p", self.folder, "-e", self.folder + "/error.log", "-c", conf],
                          os.path.join(self.folder, "error.log"), lambda: is_listening(listen_port), "nginx")

    def stop(self):
        stop_process(self.proc)
