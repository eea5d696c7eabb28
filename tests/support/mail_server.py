"""A real mail server for the tests: a private Postfix instance (configuration, queue and log in a folder of
its own, the master in the foreground, stopped by its pid) on a free 127.0.0.1 port, delivering into Maildirs.
It needs root (the master switches to the "postfix" user) and the postfix package (scripts/setup)."""

import os
import shutil
import subprocess

from proxy_testing import make_certificates
from tarnwick_testing import HOST, free_port, is_listening, read_file, start, stop_process, wait_for

MASTER = "/usr/lib/postfix/sbin/master"
NOBODY = 65534  # owns the Maildirs: Postfix will not deliver as root
# The services a private instance needs, none in a chroot (Debian's own master.cf assumes one).
SERVICES = """\
cleanup   unix  n       -       n       -       0       cleanup
qmgr      unix  n       -       n       300     1       qmgr
rewrite   unix  -       -       n       -       -       trivial-rewrite
proxymap  unix  -       -       n       -       -       proxymap
bounce    unix  -       -       n       -       0       bounce
defer     unix  -       -       n       -       0       bounce
trace     unix  -       -       n       -       0       bounce
virtual   unix  -       n       n       -       -       virtual
anvil     unix  -       -       n       -       1       anvil
postlog   unix-dgram n  -       n       -       1       postlogd
tlsmgr    unix  -       -       n       1000?   1       tlsmgr
"""


def unavailable():
    if os.geteuid() != 0:
        return "a private Postfix instance needs root (its master switches to the postfix user)"
    if not os.path.exists(MASTER) or not shutil.which("postfix"):
        return "Postfix is not installed (scripts/setup installs the postfix package)"
    return None


class Postfix:
    """One private Postfix. `mailboxes` maps each address it accepts to a Maildir under `mail_base` (default: a
    folder of its own), written as NOBODY. `refused` maps addresses to the reply that refuses them at RCPT;
    `data_pause` delays the answer to DATA. `login` (user, password) asks for TLS (STARTTLS, and TLS from the
    start on `tls_port`, signed by the authority in `ca_file`) and SASL as that user. The postfix user must be
    able to pass through the folders above `folder`."""

    def __init__(self, folder, domains=("example.test",), mailboxes=None, refused=None, data_pause=0,
                 mail_base=None, login=None):
        self.dir = folder
        self.domains = domains
        self.mailboxes = dict(mailboxes or {"someone@example.test": "someone/"})
        self.refused = dict(refused or {})
        self.data_pause = data_pause
        self.login = login
        self.port = self.tls_port = self.master = None
        self.etc = os.path.join(folder, "etc")
        self.ca_file = None
        self.mail = mail_base or os.path.join(folder, "mail")
        self._own_mail = mail_base is None

    def _configure(self):
        for d in (self.etc, self.mail, os.path.join(self.dir, "queue"), os.path.join(self.dir, "data")):
            os.makedirs(d, exist_ok=True)
        os.chmod(self.dir, 0o711)
        if self._own_mail:
            os.chown(self.mail, NOBODY, NOBODY)
        shutil.chown(os.path.join(self.dir, "data"), "postfix")
        for name, table in (("mailboxes", self.mailboxes), ("refused", self.refused)):
            with open(os.path.join(self.etc, name), "w") as f:
                f.writelines("%s %s\n" % row for row in sorted(table.items()))
        settings = {
            "compatibility_level": "3.6",
            "config_directory": self.etc,
            "queue_directory": os.path.join(self.dir, "queue"),
            "data_directory": os.path.join(self.dir, "data"),
            "maillog_file": "/dev/stdout",
            "myhostname": "mx." + self.domains[0],
            "mydestination": "",
            "inet_interfaces": HOST,
            "inet_protocols": "ipv4",
            "mynetworks": "127.0.0.0/8",
            "alias_maps": "",
            "virtual_mailbox_domains": " ".join(self.domains),
            "virtual_mailbox_base": self.mail,
            "virtual_mailbox_maps": "texthash:" + os.path.join(self.etc, "mailboxes"),
            "virtual_uid_maps": "static:%d" % NOBODY,
            "virtual_gid_maps": "static:%d" % NOBODY,
            "smtpd_recipient_restrictions": "check_recipient_access texthash:%s, permit_mynetworks, "
                                            "reject_unauth_destination" % os.path.join(self.etc, "refused"),
            "smtpd_data_restrictions": "sleep %d" % self.data_pause if self.data_pause else "",
        }
        if self.login:
            certificates = make_certificates(self.etc)
            self.ca_file = certificates["ca"]
            sasldb = os.path.join(self.etc, "sasldb2")
            made = subprocess.run(["saslpasswd2", "-f", sasldb, "-p", "-c", "-u", self.domains[0], self.login[0]],
                                  input=self.login[1].encode(), capture_output=True, timeout=60)
            if made.returncode != 0:
                raise AssertionError("saslpasswd2 failed: %r" % made.stderr)
            shutil.chown(sasldb, "postfix")
            # Debian's Postfix reads CONFIG/sasl/smtpd.conf.
            os.makedirs(os.path.join(self.etc, "sasl"), exist_ok=True)
            with open(os.path.join(self.etc, "sasl", "smtpd.conf"), "w") as f:
                f.write("pwcheck_method: auxprop\nauxprop_plugin: sasldb\nmech_list: PLAIN LOGIN\n"
                        "sasldb_path: %s\n" % sasldb)
            settings.update({"smtpd_tls_cert_file": certificates["cert"], "smtpd_tls_key_file": certificates["key"],
                             "smtpd_tls_security_level": "may", "smtpd_sasl_auth_enable": "yes",
                             "smtpd_sasl_type": "cyrus", "smtpd_sasl_path": "smtpd", "cyrus_sasl_config_path": self.etc,
                             "smtpd_sasl_local_domain": self.domains[0], "smtpd_tls_auth_only": "yes",
                             "smtpd_sasl_authenticated_header": "yes",
                             "smtpd_recipient_restrictions": "permit_sasl_authenticated, reject"})
        with open(os.path.join(self.etc, "main.cf"), "w") as f:
            for key, value in settings.items():
                f.write("%s = %s\n" % (key, value))
        with open(os.path.join(self.etc, "master.cf"), "w") as f:
            f.write("%s:%d inet n - n - - smtpd\n" % (HOST, self.port))
            if self.login:
                f.write("%s:%d inet n - n - - smtpd -o smtpd_tls_wrappermode=yes\n" % (HOST, self.tls_port))
            f.write(SERVICES)
        check = subprocess.run(["postfix", "-c", self.etc, "check"], capture_output=True, timeout=60)
        if check.returncode != 0:
            raise AssertionError("postfix check failed: %r" % (check.stdout + check.stderr))

    def start(self):
        if self.port is None:
            self.port = free_port()
        if self.login and self.tls_port is None:
            self.tls_port = free_port()
        self._configure()
        # A session of its own: on SIGTERM the master stops its process group, its services with it.
        self.master = start([MASTER, "-c", self.etc, "-d"], os.path.join(self.dir, "maillog"),
                            lambda: is_listening(self.port) and (self.tls_port is None or is_listening(self.tls_port)),
                            "postfix", start_new_session=True)

    def stop(self):
        if self.port is None:
            return
        stop_process(self.master)
        # The port is free once its services have left too.
        wait_for(lambda: not is_listening(self.port), 10, "postfix to close port %d" % self.port)

    def log(self):
        return read_file(os.path.join(self.dir, "maillog")).decode("latin-1")

    def url(self, tls_from_the_start=False):
        if tls_from_the_start:
            return "smtps://%s:%d" % (HOST, self.tls_port)
        return "smtp://%s:%d" % (HOST, self.port)

    def delivered(self, address):
        folders = [os.path.join(self.mail, self.mailboxes[address], sub) for sub in ("new", "cur")]
        return [read_file(os.path.join(d, name)) for d in folders if os.path.isdir(d) for name in sorted(os.listdir(d))]

    def wait_delivered(self, address, marker, timeout):
        """The messages for address that hold the bytes `marker`, once there is at least one."""
        def found():
            return [m for m in self.delivered(address) if marker in m]
        try:
            wait_for(found, timeout, "a message holding %r for %s" % (marker, address))
        except AssertionError as e:
            raise AssertionError("%s; the mail server's log:\n%s" % (e, self.log()[-3000:])) from None
        return found()

