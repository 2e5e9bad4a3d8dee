"""While history requests wait on a silent service, other clients of the
daemon are answered at once: no lock is held across the network call."""
import json
import threading

from fake_peer import FakePeer, silent
from harness import http_request

SVCMON = "/managerService/svcmon"


def test_other_clients_are_answered_while_a_service_is_silent(sandbox):
    daemon = sandbox.start("-v", "2", "-t", "4").wait_ready()
    with FakePeer(silent) as peer:
        body = json.dumps({"method": "register", "name": "quiet", "ip": "127.0.0.1",
                           "port": peer.port})
        assert daemon.request("POST", "/managerService/svcmgr", body).status == 200
        histories = []

        def ask_history():
            reply = http_request(daemon.port, "GET",
                                 f"{SVCMON}?method=get_history&name=quiet")
            histories.append(reply.body)

        # One at a time: a listener thread serves the connections it accepted
        # in turn, so two requests sent together could queue on one thread.
        waiting = [threading.Thread(target=ask_history) for _ in range(2)]
        for count, thread in enumerate(waiting, start=1):
            thread.start()
            assert peer.wait_requests(count), "a history request never reached the service"

        register = json.dumps({"method": "register", "name": "other", "ip": "10.0.0.2",
                               "port": 7})
        assert daemon.request("POST", "/managerService/svcmgr", register).body == \
            b'{ "return": 0 }'
        info = daemon.request("GET", "/managerService/svcmgr?method=get_info&name=quiet")
        assert json.loads(info.body)["return"] == 0
        health = daemon.request("GET", f"{SVCMON}?method=get_health_status")
        assert [item["name"] for item in json.loads(health.body)["items"]] == \
            ["other", "quiet"]
        # Every answer above came while both history requests still waited.
        assert all(thread.is_alive() for thread in waiting)
        assert histories == []

        for thread in waiting:
            thread.join()
    assert histories == [b'{ "return": -5 }'] * 2
    # Sanitizer builds report races through the exit status.
    assert daemon.stop() == 0
