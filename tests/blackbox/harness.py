"""Black-box harness: runs the real manager_svc the way an operator would.

Every daemon runs chrooted over an overlay of the host's root
(tests/sandbox/sandbox_run.sh), so whatever it writes at its fixed device
paths lands in the sandbox's upper directory, where the test reads it; files
the daemon should find (init-script fakes, pages, a seeded registry file) are
written there before it starts. The host's own copies are never touched.
"""
import http.client
import os
import resource
import shutil
import signal
import socket
import subprocess
import time
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
SANDBOX_RUN = os.path.join(HERE, "..", "sandbox", "sandbox_run.sh")
BIN = os.environ.get("MANAGER_SVC_BIN", "")
SANDBOX_ROOT = os.environ.get("MANAGER_SVC_SANDBOX_ROOT", "/tmp/manager_svc-sandbox")
SANITIZED = bool(os.environ.get("MANAGER_SVC_SANITIZE"))

REGISTRY_FILE = "/tmp/.manager_svc.inf"
READY_MARKER = "/var/.mgrsvc_ok"
DEBUG_LOG = "/Ombrix/.mgrsvc_log/.mgrsvc_log"
DEFAULT_PORT = 10182

# Sanitizer builds start and answer several times slower; deadlines (never
# expectations) stretch with them.
TIME_SCALE = 4 if SANITIZED else 1


def deadline(seconds):
    return seconds * TIME_SCALE


def wait_for(condition, timeout=5.0, interval=0.01):
    """Polls condition() until it is true or the (scaled) timeout passes."""
    end = time.monotonic() + deadline(timeout)
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(interval)
    return bool(condition())


def free_port():
    """A TCP port on loopback that nothing listens on right now."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def port_answers(port, host="127.0.0.1"):
    try:
        with socket.create_connection((host, port), timeout=0.2):
            return True
    except OSError:
        return False


class Reply:
    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers  # names in lower case
        self.body = body

    @property
    def content_type(self):
        return self.headers.get("content-type")

    def text(self):
        return self.body.decode("utf-8", "replace")

    def __repr__(self):
        return f"Reply({self.status}, {self.headers!r}, {self.body[:200]!r})"


def http_request(port, method, path, body=None, headers=None, timeout=10, host="127.0.0.1"):
    """One HTTP request on its own connection; returns a Reply."""
    if isinstance(body, str):
        body = body.encode()
    conn = http.client.HTTPConnection(host, port, timeout=deadline(timeout))
    try:
        conn.request(method, path, body=body, headers=headers or {})
        answer = conn.getresponse()
        data = answer.read()
        found = {name.lower(): value for name, value in answer.getheaders()}
        return Reply(answer.status, found, data)
    finally:
        conn.close()


class Sandbox:
    """A scratch device root for one or more runs of the daemon."""

    def __init__(self, name):
        safe = "".join(c if c.isalnum() or c in "-_" else "_" for c in name)[:60]
        self.root = os.path.join(SANDBOX_ROOT, "blackbox", f"{safe}-{uuid.uuid4().hex[:8]}")
        self.upper = os.path.join(self.root, "upper")
        os.makedirs(self.upper)
        self.daemons = []

    def path(self, device_path):
        """Where a device path written by the daemon shows up on the host."""
        return os.path.join(self.upper, device_path.lstrip("/"))

    def write(self, device_path, content, mode=0o644):
        target = self.path(device_path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, "wb") as out:
            out.write(content.encode() if isinstance(content, str) else content)
        os.chmod(target, mode)

    def read(self, device_path):
        """The bytes of a file at a device path, or None when it is absent."""
        try:
            with open(self.path(device_path), "rb") as src:
                return src.read()
        except (FileNotFoundError, NotADirectoryError, IsADirectoryError):
            return None

    def exists(self, device_path):
        return os.path.lexists(self.path(device_path))

    def debug_log(self):
        data = self.read(DEBUG_LOG)
        return data.decode("utf-8", "replace") if data else ""

    def command(self, args):
        return [SANDBOX_RUN, self.root, BIN, *[str(a) for a in args]]

    def run(self, args, timeout=10):
        """Runs the binary to completion; returns the CompletedProcess."""
        return subprocess.run(self.command(args), stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=deadline(timeout))

    def start(self, *args, port=None, add_port=True, nofile=None):
        """Starts the daemon with "-p PORT" (a free port unless given) and args;
        `nofile` sets its descriptor limit (soft and hard)."""
        if port is None:
            port = free_port() if add_port else DEFAULT_PORT
        full = (["-p", str(port)] if add_port else []) + [str(a) for a in args]
        daemon = Daemon(self, full, port, nofile)
        self.daemons.append(daemon)
        return daemon

    def cleanup(self):
        for daemon in self.daemons:
            daemon.kill()
        shutil.rmtree(self.root, ignore_errors=True)


class Daemon:
    """One run of the daemon in a sandbox."""

    def __init__(self, sandbox, args, port, nofile=None):
        self.sandbox = sandbox
        self.args = args
        self.port = port
        self.stderr_path = os.path.join(sandbox.root, f"stderr-{uuid.uuid4().hex[:6]}.log")
        self._stderr = open(self.stderr_path, "wb")

        def limit_descriptors():
            resource.setrlimit(resource.RLIMIT_NOFILE, (nofile, nofile))
        self.proc = subprocess.Popen(sandbox.command(args), stdin=subprocess.DEVNULL,
                                     stdout=self._stderr, stderr=self._stderr,
                                     preexec_fn=limit_descriptors if nofile else None)

    @property
    def pid(self):
        return self.proc.pid

    def alive(self):
        return self.proc.poll() is None

    def stderr_text(self):
        with open(self.stderr_path, "rb") as src:
            return src.read().decode("utf-8", "replace")

    def wait_stderr(self, text, timeout=5):
        return wait_for(lambda: text in self.stderr_text(), timeout)

    def wait_ready(self, timeout=10):
        """Waits for the ready marker and an answering port; fails early if
        the process ends first (unless it detached with -d)."""
        def ready():
            if not self.alive() and self.proc.returncode != 0:
                raise AssertionError(f"daemon exited with {self.proc.returncode}:\n"
                                     + self.stderr_text())
            return self.sandbox.exists(READY_MARKER) and port_answers(self.port)
        if not wait_for(ready, timeout):
            raise AssertionError("daemon not ready:\n" + self.stderr_text())
        return self

    def request(self, method, path, body=None, headers=None, timeout=10):
        return http_request(self.port, method, path, body, headers, timeout)

    def stop(self, sig=signal.SIGTERM, timeout=10):
        """Sends sig and waits for the exit status (an exited process is fine)."""
        if self.alive():
            self.proc.send_signal(sig)
        try:
            return self.proc.wait(deadline(timeout))
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"daemon did not stop after signal {sig}")

    def kill(self):
        if self.alive():
            self.proc.kill()
            self.proc.wait()
        self._stderr.close()


def proc_status(pid, field):
    """A number from /proc/PID/status (VmRSS and VmHWM in KiB, Threads)."""
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            name, _, value = line.partition(":")
            if name == field:
                return int(value.split()[0])
    raise KeyError(field)


def open_fds(pid):
    """How many file descriptors a process holds open."""
    return len(os.listdir(f"/proc/{pid}/fd"))


def device_path_of(daemon, device_path):
    """A device path as the running daemon sees it (through its own root):
    changes made here go through its overlay mount, unlike changes made
    behind it in the sandbox's upper directory."""
    return f"/proc/{daemon.pid}/root{device_path}"
