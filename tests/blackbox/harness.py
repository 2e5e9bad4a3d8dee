"""Black-box harness: runs the real manager_svc in the overlay sandbox
(tests/sandbox/sandbox_run.sh). What it writes at its fixed device paths lands in
the sandbox's upper directory, where the test reads it or puts what it should find."""
import collections
import contextlib
import http.client
import json
import os
import pathlib
import resource
import select
import shutil
import signal
import socket
import stat
import subprocess
import time
import uuid

SANDBOX_RUN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "sandbox",
                           "sandbox_run.sh")
BIN = os.environ.get("MANAGER_SVC_BIN", "")
SANDBOX_ROOT = os.environ.get("MANAGER_SVC_SANDBOX_ROOT", "/tmp/manager_svc-sandbox")
REGISTRY_FILE = "/tmp/.manager_svc.inf"
READY_MARKER = "/var/.mgrsvc_ok"
DEBUG_LOG = "/Ombrix/.mgrsvc_log/.mgrsvc_log"
DEFAULT_PORT = 10182
SVCMGR = "/managerService/svcmgr"
SVCMON = "/managerService/svcmon"
SERVICES = "/managerService/services"
SCRIPTS = ("/etc/init.d/services.sh", "/etc/init.d/fdr_services.sh")
OK = b'{ "return": 0 }'


def deadline(seconds):
    """Sanitizer builds run several times slower: deadlines stretch."""
    return seconds * (4 if os.environ.get("MANAGER_SVC_SANITIZE") else 1)


def wait_for(condition, timeout=5.0, interval=0.01):
    end = time.monotonic() + deadline(timeout)
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(interval)
    return bool(condition())


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def port_answers(port):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=0.2):
            return True
    except OSError:
        return False


def connect(port, request=b""):
    sock = socket.create_connection(("127.0.0.1", port))
    sock.sendall(request)
    return sock


def answered(sockets):
    """The sockets with an answer (or a close) to read."""
    return select.select(sockets, [], [], 0)[0]


Reply = collections.namedtuple("Reply", "status headers body")  # header names lower case


def http_request(port, method, path, body=None, headers=None, timeout=10):
    """One request on a connection of its own (the benchmarks use it too)."""
    with contextlib.closing(http.client.HTTPConnection(
            "127.0.0.1", port, timeout=deadline(timeout))) as conn:
        conn.request(method, path, body=body.encode() if isinstance(body, str) else body,
                     headers=headers or {})
        answer = conn.getresponse()
        return Reply(answer.status, {k.lower(): v for k, v in answer.getheaders()},
                     answer.read())


class Sandbox:
    """A scratch device root for one or more runs of the daemon."""

    def __init__(self, name):
        safe = "".join(c if c.isalnum() or c in "-_" else "_" for c in name)[:60]
        self.root = os.path.join(SANDBOX_ROOT, "blackbox", f"{safe}-{uuid.uuid4().hex[:8]}")
        self.upper = os.path.join(self.root, "upper")
        subprocess.run([SANDBOX_RUN, "--prepare", self.root], check=True)
        self.daemons = []

    def path(self, device_path):
        return os.path.join(self.upper, device_path.lstrip("/"))

    def exists(self, device_path):
        """True unless absent or hidden by the sandbox's whiteout (device 0/0)."""
        try:
            found = os.lstat(self.path(device_path))
        except (FileNotFoundError, NotADirectoryError):
            return False
        return not (stat.S_ISCHR(found.st_mode) and found.st_rdev == 0)

    def write(self, device_path, content, mode=0o644):
        target = self.path(device_path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if os.path.lexists(target) and not self.exists(device_path):
            os.unlink(target)
        pathlib.Path(target).write_bytes(content.encode() if isinstance(content, str) else content)
        os.chmod(target, mode)

    def read(self, device_path):
        return pathlib.Path(self.path(device_path)).read_bytes() if self.exists(device_path) else None

    def debug_log(self):
        return (self.read(DEBUG_LOG) or b"").decode("utf-8", "replace")

    def command(self, args):
        return [SANDBOX_RUN, self.root, BIN, *[str(a) for a in args]]

    def run(self, args, timeout=10):
        return subprocess.run(self.command(args), stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=deadline(timeout))

    def start(self, *args, add_port=True, nofile=None, port=None):
        """Starts the daemon with "-p PORT" (`port`, else a free port) and args, and
        waits until it is ready; `nofile` is its (soft, hard) descriptor limit."""
        port = port or (free_port() if add_port else None)
        self.daemons.append(Daemon(self, args, port, nofile))
        return self.daemons[-1].wait_ready()

    def cleanup(self):
        """Stops the daemons still running: each must end with status 0."""
        failed = []
        for daemon in self.daemons:
            try:
                if daemon.stop() != 0:
                    failed.append(daemon.stderr_text()[-4000:])
            finally:
                daemon.proc.kill()
                daemon.proc.wait()
        shutil.rmtree(self.root, ignore_errors=True)
        assert not failed, failed


class Daemon:
    """One run of the daemon in a sandbox; its console output in a file."""

    def __init__(self, sandbox, args, port, nofile):
        self.sandbox, self.port = sandbox, port or DEFAULT_PORT
        self.stderr_path = os.path.join(sandbox.root, f"stderr-{uuid.uuid4().hex[:6]}.log")
        # A proxy in its environment leads nowhere: the relays must reach the services directly.
        with open(self.stderr_path, "wb") as out:
            self.proc = subprocess.Popen(
                sandbox.command((["-p", port] if port else []) + list(args)), stdin=subprocess.DEVNULL,
                stdout=out, stderr=out, env=dict(os.environ, http_proxy="http://127.0.0.1:1"),
                preexec_fn=lambda: nofile and resource.setrlimit(resource.RLIMIT_NOFILE, nofile))
        self.pid = self.proc.pid

    def alive(self):
        return self.proc.poll() is None

    def stderr_text(self):
        return pathlib.Path(self.stderr_path).read_bytes().decode("utf-8", "replace")

    def wait_ready(self, timeout=10):
        def ready():
            if not self.alive() and self.proc.returncode != 0:
                raise AssertionError(f"daemon exited {self.proc.returncode}:\n{self.stderr_text()}")
            return self.sandbox.exists(READY_MARKER) and port_answers(self.port)
        assert wait_for(ready, timeout), "daemon not ready:\n" + self.stderr_text()
        return self

    def request(self, method, path, body=None, headers=None, timeout=10):
        return http_request(self.port, method, path, body, headers, timeout)

    def stop(self, sig=signal.SIGTERM, timeout=10):
        self.proc.send_signal(sig)
        return self.proc.wait(deadline(timeout))


def device_path_of(daemon, device_path):
    """A device path through the running daemon's own root (seen by its overlay)."""
    return f"/proc/{daemon.pid}/root{device_path}"


def register(daemon, name, port=80, ip="127.0.0.1"):
    body = {"method": "register", "name": name, "ip": ip, "port": port}
    return daemon.request("POST", SVCMGR, json.dumps(body, ensure_ascii=False)).body


def svcmon(daemon, query):
    """The parsed reply of GET svcmon?method=query (a long poll waits up to a minute)."""
    return json.loads(daemon.request("GET", f"{SVCMON}?method={query}", timeout=70).body)


def reachability(daemon, query=""):
    """The get_reachability reply (query: more arguments, "&index=...")."""
    return svcmon(daemon, "get_reachability" + query)


def reachability_items(daemon):
    return {item["name"]: item for item in reachability(daemon)["items"]}
