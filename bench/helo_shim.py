"""A TCP relay on 127.0.0.1 in front of the gateway's SMTP port that turns a client's "EHLO name" into
"HELO name" and passes everything else through unchanged, both ways. The gateway knows HELO only, and postal
greets with EHLO alone. The gateway serves one SMTP client at a time and listens again only once the last
one's close is handled, so the shim tries to connect for up to 10 s before it gives a client up. One thread
per connection; nothing else is changed or kept."""

import socket
import threading
import time


class HeloShim:

    def __init__(self, target_port):
        self._target = target_port
        self._listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(16)
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self._listener.close()

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        server = None
        deadline = time.monotonic() + 10
        while server is None:
            try:
                server = socket.create_connection(("127.0.0.1", self._target), timeout=120)
            except OSError:
                if time.monotonic() > deadline:
                    client.close()
                    return
                time.sleep(0.02)
        threading.Thread(target=self._pipe, args=(server, client, False), daemon=True).start()
        self._pipe(client, server, True)

    @staticmethod
    def _pipe(src, dst, rewrite):
        first = rewrite
        try:
            while True:
                data = src.recv(65536)
                if not data:
                    break
                if first and data[:5].upper() == b"EHLO ":
                    data = b"HELO " + data[5:]
                first = False
                dst.sendall(data)
        except OSError:
            pass
        finally:
            for s in (src, dst):
                try:
                    s.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
                s.close()
