"""Long polls: a request with a view's current index is held (its connection
suspended) until the view changes or its wait runs out; at most 32 are held, more
are answered at once, and shutdown answers the held ones at once. Runs in the
ThreadSanitizer pass too: the holder thread answers on behalf of the listeners."""
import time

from fake_peer import FakePeer, answer, silent
from harness import (OK, SVCMON, answered, connect, deadline, reachability, reachability_items,
                     register, svcmon, wait_for)

HELD_MAX = 32


def test_a_poll_is_woken_by_a_check_that_ends_before_a_hung_one(sandbox):
    """Each check's result counts when that check ends: a service that stops is seen
    down, and wakes the poll, while the hung service's check of the same round, which
    only its 2 s limit ends, still runs; so at a 4 s period the stopped service's
    `checked` is a second or more later than the hung one's last."""
    with FakePeer(silent) as hung:
        daemon = sandbox.start("-m", "4")
        assert register(daemon, "hung", hung.port) == OK
        with FakePeer(answer(200)) as going:
            assert register(daemon, "going", going.port) == OK
            assert wait_for(lambda: all(i["checks"] >= 2 for i in
                                        reachability_items(daemon).values()), 15)
            index = reachability(daemon)["index"]
            started = time.monotonic()
            assert reachability(daemon, f"&index={index}&wait=1")["index"] == index
            assert time.monotonic() - started >= 1
        went_down = time.monotonic()
        for _ in range(3):  # a check caught mid-stop may say "no answer" first
            reply = reachability(daemon, f"&index={index}&wait=30")
            index, items = reply["index"], {i["name"]: i for i in reply["items"]}
            if items["going"]["state"] == "down":
                break
        assert time.monotonic() - went_down < deadline(2 * 4 + 2)  # woken, not timed out
        assert (items["going"]["state"], items["hung"]["state"]) == ("down", "no answer"), items
        assert items["going"]["checked"] > items["hung"]["checked"], items


def test_beyond_the_held_limit_requests_are_answered_at_once_and_stop_answers_the_held(sandbox):
    daemon = sandbox.start()
    index = svcmon(daemon, "get_events")["index"]
    request = (f"GET {SVCMON}?method=get_events&index={index}&wait=60 HTTP/1.1\r\n"
               "Host: 127.0.0.1\r\n\r\n").encode()
    clients = [connect(daemon.port, request) for _ in range(HELD_MAX + 4)]
    assert wait_for(lambda: len(answered(clients)) == 4, 10)
    assert daemon.stop() == 0
    replies = [sock.makefile("rb").read() for sock in clients]
    assert [b'"index": %d,' % index in reply for reply in replies] == [True] * (HELD_MAX + 4), replies
