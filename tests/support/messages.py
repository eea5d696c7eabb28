"""The messages the end-to-end tests and benchmarks put into the store, each as the bytes of its file."""

import base64


def attachment_message(size):
    """A MIME message with a text part and a binary attachment whose base64 form is about `size` bytes."""
    raw = bytes((i * 7 + i // 251) & 0xFF for i in range(size * 3 // 4))
    encoded = base64.encodebytes(raw).replace(b"\n", b"\r\n")
    return (b"From: Sam <sam@tarnwick.local>\r\nTo: carl@tarnwick.local\r\nSubject: The big file\r\n"
            b"MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n"
            b"--b1\r\nContent-Type: text/plain\r\n\r\nThe file is attached.\r\n"
            b"--b1\r\nContent-Type: application/octet-stream\r\n"
            b"Content-Disposition: attachment; filename=\"big.bin\"\r\nContent-Transfer-Encoding: base64\r\n\r\n"
            + encoded + b"--b1--\r\n")


def message(sender, subject, *lines, fields=()):
    """A message from `sender` to alice about `subject`, with further header `fields`, whose body is `lines`, each
    ended by CR LF."""
    head = [b"From: " + sender, b"To: alice@example.org", b"Subject: " + subject, *fields]
    return b"".join(line + b"\r\n" for line in head + [b""] + list(lines))


PLAIN = message(b"Ann Example <ann@example.org>", b"Plain text", b"Hello Alice,", b"this is a plain message.",
                fields=[b"Date: Mon, 2 Nov 2026 10:00:00 +0000", b"Message-ID: <plain@example.org>"])
READ = message(b"Old News <old@example.org>", b"Already read in the web interface",
               b"This message was read and must never reach the mail reader.")
# Lines beginning with one and with two full stops, a lone full stop, and a dot in the middle of a line.
DOTS = message(b"Dot Person <dot@example.org>", b"Dots",
               b".", b".hidden line", b"..two dots", b"a line with a . inside", b"...", b"end")
# Bytes above 0x7F: a sender name in raw Latin-1 (the listing must still give it a printable ASCII unique id),
# ISO-8859-1 text in the header and body, then every byte from 0x80 to 0xFF.
EIGHT_BIT = message(b"Fran\xe7ois L\xe9ger <francois@example.org>", b"8-bit \xe9t\xe9 \xc3\xa9t\xc3\xa9",
                    b"Cr\xe8me br\xfbl\xe9e, \xa3 and \xa9.", bytes(range(0x80, 0x100)),
                    fields=[b"MIME-Version: 1.0", b"Content-Type: text/plain; charset=iso-8859-1",
                            b"Content-Transfer-Encoding: 8bit"])
# The last line has no line end.
NO_FINAL_LINE_END = message(b"Terse <terse@example.org>", b"No final line end", b"last line")[:-2]

# What the mail readers fetch, in delivery order; READ is delivered already read and no reader may see it.
MAIL = [PLAIN, READ, DOTS, EIGHT_BIT, NO_FINAL_LINE_END]
UNREAD = [m for m in MAIL if m is not READ]


def big_message(size):
    """A text message of about `size` bytes whose lines now and then begin with a full stop and hold 8-bit bytes."""
    head = (b"From: Big Sender <big@example.org>\r\nTo: dave@example.org\r\nSubject: Twenty megabytes\r\n\r\n")
    line = b"x" * 76 + b"\r\n"
    dotted = b"." + b"\xe9" * 5 + b"y" * 70 + b"\r\n"
    lines = (size - len(head)) // len(line)
    return head + b"".join(dotted if i % 997 == 0 else line for i in range(lines))
