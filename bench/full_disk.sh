#!/bin/bash
# Run by hand, as root (it mounts an 8 MB tmpfs): a message posted to tarnwick-webmail whose recipient copy
# fits on the full disk but whose Sent Items copy does not. Prints the reply's status and X-Dav-Error, what
# each folder holds afterwards, and the end of the service's log. Loopback only; the service is stopped by pid.
#   bench/full_disk.sh [WEBMAIL-BINARY]
set -u
WEBMAIL=${1:-$(dirname "$0")/../build/webmail/tarnwick-webmail}
M=$(mktemp -d /tmp/tarnwick-full-XXXXXX)
mount -t tmpfs -o size=8m tmpfs "$M" || exit 1
W=$(mktemp -d /tmp/tarnwick-full-work-XXXXXX)
trap 'umount "$M"; rmdir "$M"; rm -rf "$W"' EXIT
S=$M/store
"$WEBMAIL" --store "$S" --add-user ann annpw >/dev/null
"$WEBMAIL" --store "$S" --add-user bob bobpw >/dev/null
"$WEBMAIL" --store "$S" --listen 127.0.0.1:0 >"$W/out" 2>"$W/err" &
P=$!
for _ in $(seq 50); do grep -q listening "$W/out" && break; sleep 0.1; done
PORT=$(grep -o '127.0.0.1:[0-9]*' "$W/out" | cut -d: -f2)
# About 2.6 MB of text; 5.2 MB left free: one copy fits, the second does not.
{ printf 'MAIL FROM:<ann@tarnwick.local>\r\nRCPT TO:<bob@tarnwick.local>\r\n\r\nSubject: big\r\n\r\n'
  head -c 2600000 /dev/zero | tr '\0' 'a' | fold -w 76 | sed 's/$/\r/'
  printf '\n.\r\n'; } >"$W/post"
dd if=/dev/zero of="$M/filler" bs=1k count=$((8192 - 5200)) 2>/dev/null
curl -s -o "$W/body" -D - -u ann:annpw -H 'Content-Type: message/rfc821' --data-binary @"$W/post" \
    "http://127.0.0.1:$PORT/mail/ann/sendmsg" | grep -i '^HTTP/1.1 [0-9]\{3\} \|^X-Dav-Error' | grep -v ' 100 '
echo "reply body: $(cat "$W/body")"
count() { find "$1" -type f | wc -l; }
echo "bob INBOX new/ cur/: $(($(count "$S/bob/new") + $(count "$S/bob/cur"))), bob tmp/: $(count "$S/bob/tmp")," \
     "ann Sent Items: $(($(count "$S/ann/.Sent Items/new") + $(count "$S/ann/.Sent Items/cur")))," \
     "ann Sent Items tmp/: $(count "$S/ann/.Sent Items/tmp")"
kill "$P"; wait "$P" 2>/dev/null
echo "service log:"; tail -3 "$W/err"
