"""The black-box tests run where only loopback is reachable: a service that a
test registered outside loopback is seen by the prober as "network
unreachable" (the connect fails on the machine), so nothing is sent to it."""
import json

from harness import OK, SVCMON, register, wait_for

OUTSIDE = "192.0.2.1"  # a documentation address: never a real host


def test_a_registration_outside_loopback_is_unreachable(sandbox):
    daemon = sandbox.start().wait_ready()
    assert register(daemon, "outside", 80, OUTSIDE) == OK

    def prober_error():
        reply = daemon.request("GET", SVCMON + "?method=get_reachability")
        return [(item["ip"], item["error"]) for item in json.loads(reply.body)["items"]]

    assert wait_for(lambda: prober_error() == [(OUTSIDE, "network unreachable")], 5), (
        prober_error())
    assert daemon.stop() == 0
