"""A fake service on loopback: answers each request as its behaviour says
(`answer(status, body)` or `silent`), one thread per connection, and notes
the requests it got; everything stops when the with-block ends."""
import socket
import threading
import time


def answer(status, body=b"", content_type="application/json"):
    def behave(peer, conn):
        conn.sendall(f"HTTP/1.1 {status} X\r\nContent-Type: {content_type}\r\nContent-Length: "
                     f"{len(body)}\r\nConnection: close\r\n\r\n".encode() + body)
    return behave


def silent(peer, conn):
    peer.stopping.wait()


class FakePeer:
    def __init__(self, behaviour, port=0):
        self.behaviour, self.requests = behaviour, []  # request heads as text
        self.stopping = threading.Event()
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(("127.0.0.1", port))
        self._listener.listen(512)
        self._listener.settimeout(0.1)
        self.port = self._listener.getsockname()[1]
        self._threads = [threading.Thread(target=self._accept_loop, daemon=True)]

    def __enter__(self):
        self._threads[0].start()
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        self.stopping.set()
        for thread in list(self._threads):
            thread.join(5)
        self._listener.close()

    def wait_requests(self, count, timeout=5):
        end = time.monotonic() + timeout
        while len(self.requests) < count and time.monotonic() < end:
            time.sleep(0.01)
        return len(self.requests) >= count

    def _accept_loop(self):
        while not self.stopping.is_set():
            try:
                conn, _ = self._listener.accept()
            except socket.timeout:
                continue
            thread = threading.Thread(target=self._serve, args=(conn,), daemon=True)
            self._threads = [t for t in self._threads if t.is_alive()] + [thread]
            thread.start()

    def _serve(self, conn):
        with conn:
            data = b""
            try:
                while b"\r\n\r\n" not in data:
                    chunk = conn.recv(4096)
                    if not chunk:
                        return
                    data += chunk
                self.requests.append(data.partition(b"\r\n\r\n")[0].decode("latin-1"))
                self.behaviour(self, conn)
            except OSError:  # the prober's checks reset their connections
                pass
