"""Many clients changing the registry at once: the registry, its replies and
its file must agree afterwards. Also runs against the ThreadSanitizer build."""
import json
import threading

from harness import REGISTRY_FILE, http_request

SVCMGR = "/managerService/svcmgr"
CLIENTS = 8
ROUNDS = 40


def churn(port, client, failures):
    """Registers its own names and a shared one, unregisters every other own name."""
    for round_no in range(ROUNDS):
        own = f"c{client}-{round_no}"
        for name, target in [(own, f"10.0.{client}.{round_no}"), ("shared", f"10.9.9.{client}")]:
            body = json.dumps({"method": "register", "name": name, "ip": target, "port": round_no})
            if http_request(port, "POST", SVCMGR, body).body != b'{ "return": 0 }':
                failures.append(("register", name))
        if round_no % 2:
            reply = http_request(port, "DELETE", f"{SVCMGR}?method=unregister&name={own}")
            if reply.body != b'{ "return": 0 }':
                failures.append(("unregister", own))


def expected_lines():
    lines = {f"c{c}-{r},10.0.{c}.{r},{r}" for c in range(CLIENTS) for r in range(ROUNDS) if r % 2 == 0}
    return lines


def test_concurrent_changes_leave_registry_and_file_in_agreement(sandbox):
    daemon = sandbox.start("-t", "8").wait_ready()
    failures = []
    clients = [threading.Thread(target=churn, args=(daemon.port, c, failures)) for c in range(CLIENTS)]
    for thread in clients:
        thread.start()
    for thread in clients:
        thread.join(120)
    assert failures == []

    on_disk = sandbox.read(REGISTRY_FILE).decode().splitlines()
    shared = [line for line in on_disk if line.startswith("shared,")]
    assert len(shared) == 1
    assert set(on_disk) - set(shared) == expected_lines()
    assert on_disk == sorted(on_disk, key=lambda line: line.split(",")[0].encode())

    reply = daemon.request("GET", f"{SVCMGR}?method=get_info&name=shared")
    ip, port = shared[0].split(",")[1:]
    assert json.loads(reply.body) == {"return": 0, "name": "shared", "ip": ip, "port": int(port)}
    assert daemon.stop() == 0
    assert sandbox.read(REGISTRY_FILE).decode().splitlines() == on_disk
