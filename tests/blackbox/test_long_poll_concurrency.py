"""Long polls: a request with a view's current index is held (its connection
suspended) until the view changes or its wait runs out; at most 256 are held, more
are answered at once, and shutdown answers the held ones at once. Runs in the
ThreadSanitizer pass too: the holder thread answers on behalf of the listeners."""
import json
import socket
import threading
import time

from fake_peer import FakePeer, answer
from harness import OK, SVCMON, deadline, reachability, reachability_items, register, wait_for

HELD_MAX = 32


def test_long_poll_answers_on_change_or_after_its_wait(sandbox):
    with FakePeer(answer(200)) as peer:
        daemon = sandbox.start("-m", "1")
        assert register(daemon, "svc", peer.port) == OK
        assert wait_for(lambda: reachability_items(daemon)["svc"]["state"] == "up", 5)
        index = reachability(daemon)["index"]
        started = time.monotonic()
        assert reachability(daemon, f"&index={index}&wait=1")["index"] == index
        assert time.monotonic() - started >= 1
        answered = {}

        def poll():
            answered["reply"] = reachability(daemon, f"&index={index}&wait=60")
            answered["at"] = time.monotonic()
        waiter = threading.Thread(target=poll)
        waiter.start()
        time.sleep(0.2)
        assert waiter.is_alive()
    went_down = time.monotonic()  # the peer is gone: the next round finds it down
    waiter.join(deadline(10))
    assert answered["reply"]["index"] > index
    # A check under way as the peer closed finds "no answer" first.
    assert answered["reply"]["items"][0]["state"] in ("down", "no answer")
    assert answered["at"] - went_down < deadline(1 + 1)  # within a period and the reply
    # Shutdown answers a held request at once.
    index = reachability(daemon)["index"]
    waiter = threading.Thread(target=poll)
    waiter.start()
    time.sleep(0.2)
    assert daemon.stop() == 0
    waiter.join(deadline(5))
    assert answered["reply"]["index"] == index



def test_beyond_the_held_limit_requests_are_answered_at_once(sandbox):
    daemon = sandbox.start()
    index = json.loads(daemon.request("GET", SVCMON + "?method=get_events").body)["index"]
    request = (f"GET {SVCMON}?method=get_events&index={index}&wait=60 HTTP/1.1\r\n"
               "Host: 127.0.0.1\r\n\r\n").encode()
    clients = []
    for _ in range(HELD_MAX + 4):
        client = socket.create_connection(("127.0.0.1", daemon.port))
        client.sendall(request)
        clients.append(client)

    def answered():
        count = 0
        for client in clients:
            client.setblocking(False)
            try:
                count += bool(client.recv(1, socket.MSG_PEEK))
            except BlockingIOError:
                pass
        return count
    assert wait_for(lambda: answered() == 4, 10)
    assert daemon.stop() == 0
    assert answered() == HELD_MAX + 4
    for client in clients:
        client.close()
