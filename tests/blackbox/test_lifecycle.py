"""Command line and lifecycle: usage, bad options, the banner, the ready
marker, the descriptor limit, the OOM score, stop signals writing the registry
back, a start without any name resolution, a detached start (-d), and a
start-up that fails."""
import os
import pathlib
import re
import signal
import stat
import subprocess
import time

import pytest

from harness import BIN, DEBUG_LOG, OK, READY_MARKER, REGISTRY_FILE, free_port, register, wait_for

USAGE_HEAD = b"manager_svc 1.0.0\nusage : manager_svc [OPTION]... \n\nOPTION: \n"


def illegal(getopt_line, letter):
    return BIN.encode() + b": " + getopt_line + b"\nIllegal option:-" + letter + b"\n"


@pytest.mark.parametrize("args, status, text", [
    ([option, value], 1, b"invalid %s:[%s]\nemergency exit.\n" % (name, value.encode()))
    for option, name, value in [("-p", b"port", "0"), ("-t", b"thread_no", "x"),
                                ("-m", b"g_monitor_period", "-1"), ("-v", b"verbose_lv", "3"),
                                ("-i", b"ipaddrs", "10.0.0"), ("-D", b"home_path", "/etc/hostname")]
] + [
    (["-h", "-p", "0"], 0, b""), (["-x"], 0, illegal(b"invalid option -- 'x'", b"x")),
    (["-t", "4", "-D"], 0, illegal(b"option requires an argument -- 'D'", b"D")),
    (["-\x01"], 0, illegal(b"invalid option -- '\x01'", b"#")),
])
def test_command_line(sandbox, args, status, text):
    result = sandbox.run(args)
    assert (result.returncode, result.stdout) == (status, b"")
    expected = text if status else text + USAGE_HEAD
    assert result.stderr[:len(expected)] == expected and (status or b"2= DEBUG\n" in result.stderr)


def test_ready_serves_and_sigint_writes_the_registry_back(sandbox):
    """Under umask 0 the files come with their own modes: the registry's as
    fopen(3) makes it, the rest 0644 in 0755 folders. The default "localhost"
    needs no name resolution (the resolver's files are hidden)."""
    for hidden in ("/etc/hosts", "/etc/resolv.conf", "/etc/nsswitch.conf"):
        os.makedirs(os.path.dirname(sandbox.path(hidden)), exist_ok=True)
        os.mknod(sandbox.path(hidden), stat.S_IFCHR, os.makedev(0, 0))
    started, old_umask = time.asctime(), os.umask(0)
    try:
        daemon = sandbox.start("-t", "3", "-v", "1", nofile=(512, 8192))
    finally:
        os.umask(old_umask)
    limits = pathlib.Path(f"/proc/{daemon.pid}/limits").read_text()
    assert re.search(r"^Max open files +(\d+) ", limits, re.M)[1] == str(256 + 512 + 2 * 3)
    lowered = int(pathlib.Path(f"/proc/{daemon.pid}/oom_score_adj").read_text()) == -900
    assert register(daemon, "svcA") == OK
    modes = {path: stat.S_IMODE(os.stat(sandbox.path(path)).st_mode) for path in
             [REGISTRY_FILE, READY_MARKER, DEBUG_LOG, os.path.dirname(DEBUG_LOG), "/Ombrix"]}
    assert list(modes.values()) == [0o666, 0o644, 0o644, 0o755, 0o755], modes
    sandbox.write(REGISTRY_FILE, "stale\n")
    assert daemon.stop(signal.SIGINT) == 0
    assert sandbox.read(REGISTRY_FILE) == b"svcA,127.0.0.1,80\n"
    # Where the daemon may not lower its OOM score (no CAP_SYS_RESOURCE, a
    # container) it says so once; nothing else but the registration is recorded.
    records = [record.split(": ", 1)[1] for record in sandbox.debug_log().splitlines()]
    assert [r for r in records if not r.startswith("oom_score_adj not lowered to -900 (")] == [
        "ADD : [svcA]=[127.0.0.1:80]"]
    assert len(records) == 1 + (not lowered)
    text = daemon.stderr_text()
    banner = (f"==== execute manager_svc ==== \nis_daemon     : [false]\n"
              f"listen        : [localhost:{daemon.port}]\nthread_no     : [3]\n"
              "verbose_level : [1]\nlog_file      : [/tmp/.manager_svc.debug]\n"
              f"home_path     : [/home/httpd/manager_svc/]\nexecute_time  : [{started[:11]}")
    assert re.match(re.escape(banner) + r"\d\d:\d\d:\d\d \d{4}\]\n", text), text[:1000]
    assert text.endswith("recv sig=2\nmanager_svc exit(EXIT_SUCCESS).\n")


def test_a_detached_daemon_serves_until_sigterm_and_a_second_on_its_port_fails_to_start(sandbox):
    """The daemon left behind (-d) serves, writing back at SIGTERM the registry it loaded; a
    second one started on its port fails, leaving no ready marker (the first one's is removed)."""
    sandbox.write(REGISTRY_FILE, "loaded,127.0.0.2,2\n")
    port = free_port()
    detached = ["-x", "-f", f"{BIN} -p {port} -d -i 127.0.0.1"]
    try:
        daemon = sandbox.start("-d", "-i", "127.0.0.1", port=port)
        assert daemon.proc.wait(10) == 0
        assert "is_daemon     : [true]\nlisten        : [127.0.0.1:" in daemon.stderr_text()
        [pid] = subprocess.run(["pgrep", *detached], capture_output=True).stdout.split()
        assert register(daemon, "svcA") == OK
        os.unlink(sandbox.path(READY_MARKER))
        assert sandbox.run(["-p", port]).returncode == 1
        assert "ssci_server_create failed, ret=[-98] exit." in sandbox.debug_log()
        assert not sandbox.exists(READY_MARKER)
        os.kill(int(pid), signal.SIGTERM)
        assert wait_for(lambda: subprocess.run(["pgrep", *detached]).returncode == 1)
        assert sandbox.read(REGISTRY_FILE) == b"loaded,127.0.0.2,2\nsvcA,127.0.0.1,80\n"
    finally:  # a failed check leaves no daemon behind
        subprocess.run(["pkill", "-KILL", *detached])
