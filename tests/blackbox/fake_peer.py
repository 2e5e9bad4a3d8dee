"""A fake service on loopback: answers as its behaviour (`answer(status, body)`, `silent`) says,
one thread per connection, and notes the request heads (the daemon's reachability checks apart,
in `checks`; a behaviour notes how they end in `endings`); stops with its with-block."""
import socketserver
import threading


def answer(status, body=b"", content_type="application/json"):
    def behave(peer, conn):
        conn.sendall(f"HTTP/1.1 {status} X\r\nContent-Type: {content_type}\r\nContent-Length: "
                     f"{len(body)}\r\nConnection: close\r\n\r\n".encode() + body)
    return behave


def silent(peer, conn):
    peer.stopping.wait()


class FakePeer(socketserver.ThreadingTCPServer):
    allow_reuse_address, daemon_threads, request_queue_size = True, True, 512

    def __init__(self, behaviour, port=0):
        self.behaviour, self.requests, self.stopping = behaviour, [], threading.Event()
        self.checks, self.endings = [], []
        super().__init__(("127.0.0.1", port), PeerConnection)
        self.port = self.server_address[1]

    def __enter__(self):
        threading.Thread(target=self.serve_forever, daemon=True).start()
        return self

    def __exit__(self, *_):
        self.stopping.set()
        self.shutdown()
        self.server_close()


class PeerConnection(socketserver.BaseRequestHandler):
    def handle(self):
        data = b""
        try:
            while b"\r\n\r\n" not in data:
                chunk = self.request.recv(4096)
                if not chunk:
                    return
                data += chunk
            head = data.partition(b"\r\n\r\n")[0].decode("latin-1")
            is_check = head.startswith("OPTIONS * HTTP/1.0")
            (self.server.checks if is_check else self.server.requests).append(head)
            self.server.behaviour(self.server, self.request)
        except OSError:  # a client that went away mid-request
            pass
