"""Fault injection: what a bad day does to the registry file and to the
services the monitor asks, with the real daemon in its sandbox."""
import http.client
import json
import os
import random
import re
import threading
import time

from fake_peer import FakePeer, flood, silent, trickle
from harness import (REGISTRY_FILE, deadline, device_path_of, http_request, proc_status,
                     wait_for)

SVCMGR = "/managerService/svcmgr"
SVCMON = "/managerService/svcmon"
OK = b'{ "return": 0 }'
EISDIR = 21
# What the daemon may grow by while misbehaving services are asked; the
# history reply is capped at 1 MiB per request, so this is generous.
MEMORY_GROWTH_LIMIT_KIB = 64 * 1024
# SIGKILL at a random moment of registration churn, this many times; the
# seeded services must all be in the file afterwards nearly every time.
KILL_ROUNDS = 20
KILL_ROUNDS_KEPT = 19
KILL_DELAY_MAX = 0.3
CHURN_CLIENTS = 4
CHURN_SEED = 200


def register(port, name, ip="10.0.0.1", service_port=80):
    body = json.dumps({"method": "register", "name": name, "ip": ip, "port": service_port})
    return http_request(port, "POST", SVCMGR, body).body


def unregister(port, name):
    return http_request(port, "DELETE", f"{SVCMGR}?method=unregister&name={name}").body


def get_info(port, name):
    return json.loads(http_request(port, "GET", f"{SVCMGR}?method=get_info&name={name}").body)


def health_names(port):
    reply = json.loads(http_request(port, "GET", f"{SVCMON}?method=get_health_status").body)
    assert reply["return"] == 0
    return [item["name"] for item in reply["items"]]


def test_unwritable_registry_file_then_writable_again(sandbox):
    daemon = sandbox.start("-v", "2").wait_ready()
    for name in ("a", "b"):
        assert register(daemon.port, name) == OK
    assert sandbox.read(REGISTRY_FILE) == b"a,10.0.0.1,80\nb,10.0.0.1,80\n"

    # A directory where the file belongs makes every rewrite fail (EISDIR).
    # It is made through the daemon's own root, so that its overlay sees it.
    in_daemon = device_path_of(daemon, REGISTRY_FILE)
    os.unlink(in_daemon)
    os.mkdir(in_daemon)
    assert register(daemon.port, "c", service_port=81) == OK
    assert register(daemon.port, "b", service_port=82) == OK
    assert unregister(daemon.port, "a") == OK
    assert get_info(daemon.port, "c") == {"return": 0, "name": "c", "ip": "10.0.0.1",
                                           "port": 81}
    assert health_names(daemon.port) == ["b", "c"]
    assert wait_for(lambda: f"fopen({REGISTRY_FILE}) error({EISDIR})." in sandbox.debug_log())
    assert os.path.isdir(in_daemon)

    os.rmdir(in_daemon)
    assert register(daemon.port, "d") == OK
    whole = b"b,10.0.0.1,82\nc,10.0.0.1,81\nd,10.0.0.1,80\n"
    assert sandbox.read(REGISTRY_FILE) == whole
    assert daemon.stop() == 0
    assert sandbox.read(REGISTRY_FILE) == whole


def churn(port, client, stop):
    """Registers fresh names and unregisters every other one until told to
    stop or the daemon is gone."""
    round_no = 0
    while not stop.is_set():
        name = f"k{client}-{round_no}"
        try:
            register(port, name, f"10.1.{client}.{round_no % 250}", round_no)
            if round_no % 2:
                unregister(port, name)
        except (OSError, http.client.HTTPException):
            return
        round_no += 1


def kill_during_churn(sandbox, delay):
    """One run: starts, churns, and is killed with SIGKILL `delay` seconds
    after the churn first reached the registry file."""
    daemon = sandbox.start("-t", "4").wait_ready()
    stop = threading.Event()
    clients = [threading.Thread(target=churn, args=(daemon.port, c, stop))
               for c in range(CHURN_CLIENTS)]
    for thread in clients:
        thread.start()
    churning = wait_for(lambda: b"\nk" in (sandbox.read(REGISTRY_FILE) or b""), 10)
    time.sleep(delay)
    daemon.proc.kill()
    daemon.proc.wait()
    stop.set()
    for thread in clients:
        thread.join(deadline(10))
    assert churning, "the churn never reached the registry file"


def loadable_names(content):
    """Names of the lines that load as entries: three non-empty fields."""
    names = []
    for line in content.decode("utf-8", "replace").split("\n"):
        fields = [field for field in re.split(r"[,\n]", line) if field]
        if len(fields) == 3:
            names.append(fields[0])
    return names


def test_killed_during_registration_churn_keeps_the_seeded_registry(sandbox):
    seeded = [f"s{index:03d}" for index in range(CHURN_SEED)]
    seed = "".join(f"{name},10.2.0.{index % 250},{index}\n" for index, name in enumerate(seeded))
    lost = []  # (kill delay, bytes left, seeded names left) of each bad round
    for _ in range(KILL_ROUNDS):
        sandbox.write(REGISTRY_FILE, seed)
        delay = random.uniform(0, KILL_DELAY_MAX)
        kill_during_churn(sandbox, delay)
        left = sandbox.read(REGISTRY_FILE) or b""
        kept = set(seeded) & set(loadable_names(left))
        if len(kept) < CHURN_SEED:
            lost.append((round(delay, 3), len(left), len(kept)))
    print(f"seeded registry whole after {KILL_ROUNDS - len(lost)} of {KILL_ROUNDS} kills")
    assert KILL_ROUNDS - len(lost) >= KILL_ROUNDS_KEPT, f"rounds that lost some: {lost}"
    # A restart loads whatever the last kill left.
    daemon = sandbox.start().wait_ready()
    assert health_names(daemon.port) == sorted(set(loadable_names(left)))
    assert daemon.stop() == 0


def history_status(port, name, replies):
    reply = http_request(port, "GET", f"{SVCMON}?method=get_history&name={name}")
    replies.append((name, reply.body))


def start_one_by_one(askers, peer):
    """Starts each asker once the previous one's request reached the peer, so
    that every one of them is known to be under way."""
    for count, thread in enumerate(askers, start=1):
        thread.start()
        assert peer.wait_requests(count, deadline(5)), "a history request never arrived"


def test_misbehaving_history_services_leave_the_daemon_answering(sandbox):
    daemon = sandbox.start("-t", "8").wait_ready()
    before = proc_status(daemon.pid, "VmHWM")
    with FakePeer(silent) as quiet, FakePeer(trickle(1.0)) as slow, FakePeer(flood) as loud:
        for name, peer in (("quiet", quiet), ("slow", slow), ("loud", loud)):
            assert register(daemon.port, name, "127.0.0.1", peer.port) == OK
        replies = []
        askers = {name: [threading.Thread(target=history_status,
                                          args=(daemon.port, name, replies))
                         for _ in range(2)] for name in ("quiet", "slow", "loud")}
        # Others are answered while the silent service holds its requests
        # (for its 2-second limit)...
        start_one_by_one(askers["quiet"], quiet)
        assert register(daemon.port, "other") == OK
        assert get_info(daemon.port, "other")["return"] == 0
        assert all(thread.is_alive() for thread in askers["quiet"])
        # ...and while the slow and the flooding ones hold theirs.
        start_one_by_one(askers["slow"], slow)
        start_one_by_one(askers["loud"], loud)
        for index in range(20):
            assert register(daemon.port, f"other{index}") == OK
        for thread in sum(askers.values(), []):
            thread.join(deadline(15))
    assert sorted(replies) == sorted((name, b'{ "return": -5 }')
                                     for name in ("quiet", "slow", "loud") for _ in range(2))
    assert proc_status(daemon.pid, "VmHWM") - before < MEMORY_GROWTH_LIMIT_KIB
    assert len(health_names(daemon.port)) == 24
    assert daemon.stop() == 0
