"""Fake peers: small HTTP servers on loopback whose behaviour a test sets.

    with FakePeer(answer(200, b'{"a": 1}')) as peer:
        ... peer.port ... peer.requests ...

A behaviour is a function (peer, connection, request) that writes whatever
it likes to the connection; `answer`, `silent`, `trickle` and `flood` are
the usual ones, and `delayed` puts a pause before any of them. Each
connection is served on its own thread; the peer stops (and closes every
connection) when the with-block ends.
"""
import socket
import threading
import time


class Request:
    def __init__(self, method, target, headers, body):
        self.method = method
        self.target = target          # path and query as sent
        self.headers = headers        # names in lower case
        self.body = body

    @property
    def path(self):
        return self.target.split("?", 1)[0]

    @property
    def query(self):
        return self.target.split("?", 1)[1] if "?" in self.target else ""


def answer(status, body=b"", content_type="application/json", reason="X"):
    """Replies once with this status and body, then closes."""
    def behave(peer, conn, request):
        head = (f"HTTP/1.1 {status} {reason}\r\nContent-Type: {content_type}\r\n"
                f"Content-Length: {len(body)}\r\nConnection: close\r\n\r\n")
        conn.sendall(head.encode() + body)
    return behave


def silent(peer, conn, request):
    """Accepts the request and never answers (until the peer stops)."""
    peer.stopping.wait()


def trickle(interval=1.0):
    """Sends a valid head promising a body, then one byte per interval."""
    def behave(peer, conn, request):
        conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n")
        while not peer.stopping.wait(interval):
            conn.sendall(b"x")
    return behave


def delayed(seconds, behaviour):
    """Waits `seconds` (or until the peer stops), then behaves as given."""
    def behave(peer, conn, request):
        if not peer.stopping.wait(seconds):
            behaviour(peer, conn, request)
    return behave


def flood(peer, conn, request):
    """A 200 head without length, then bytes as fast as they are taken."""
    conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n")
    chunk = b"x" * 65536
    while not peer.stopping.is_set():
        conn.sendall(chunk)


class FakePeer:
    def __init__(self, behaviour, host="127.0.0.1", port=0):
        self.behaviour = behaviour
        self.requests = []
        self.stopping = threading.Event()
        self._listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind((host, port))
        self._listener.listen(64)
        self._listener.settimeout(0.1)
        self.port = self._listener.getsockname()[1]
        self._threads = []
        self._accepter = threading.Thread(target=self._accept_loop, daemon=True)

    def __enter__(self):
        self._accepter.start()
        return self

    def __exit__(self, *exc):
        self.stop()

    def stop(self):
        self.stopping.set()
        self._accepter.join(5)
        self._listener.close()
        for thread in self._threads:
            thread.join(5)

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
            except OSError:
                return
            thread = threading.Thread(target=self._serve, args=(conn,), daemon=True)
            # Only live threads are kept, so a long run does not pile them up.
            self._threads = [t for t in self._threads if t.is_alive()]
            self._threads.append(thread)
            thread.start()

    def _serve(self, conn):
        with conn:
            conn.settimeout(5)
            try:
                request = _read_request(conn)
                if request is None:
                    return
                self.requests.append(request)
                self.behaviour(self, conn, request)
            except OSError:
                pass


def _read_request(conn):
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = conn.recv(4096)
        if not chunk:
            return None
        data += chunk
    head, _, body = data.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    method, target, _ = (lines[0].split(" ", 2) + ["", ""])[:3]
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(":")
        headers[name.strip().lower()] = value.strip()
    length = int(headers.get("content-length", "0") or 0)
    while len(body) < length:
        chunk = conn.recv(65536)
        if not chunk:
            break
        body += chunk
    return Request(method, target, headers, body)
