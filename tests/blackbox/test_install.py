"""Install layout, Debian package and init script.

`cmake --install` into a scratch DESTDIR must lay out exactly the device's
files with their modes. The package built by CPack is installed with dpkg
inside the overlay sandbox (the host's dpkg database and /etc stay
untouched), and its init script then drives the real daemon there, once
with Debian's tools and once with BusyBox's applets first in PATH (as on
the device): every LSB action with its exit code, a registration kept
across a restart, a start that must fail; then the package is purged and
none of the daemon's files may be left.
"""
import os
import stat
import subprocess
import tempfile

import pytest

from harness import (BIN, DEBUG_LOG, REGISTRY_FILE, READY_MARKER, SANDBOX_ROOT, SANDBOX_RUN, SANITIZED,
                     deadline, free_port)

BUILD_DIR = os.path.dirname(os.path.abspath(BIN)) if BIN else ""
SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
WEB_DIR = os.path.join(SOURCE_DIR, "web")
HOME_DIR = "home/httpd/manager_svc"
INIT_SCRIPT = "/etc/init.d/manager_svc"
# What the daemon, its init script and the package leave on the device;
# purging the package removes them all.
DAEMON_FILES = (REGISTRY_FILE, READY_MARKER, os.path.dirname(DEBUG_LOG), "/var/run/manager_svc.pid",
                "/usr/sbin/manager_svc", INIT_SCRIPT, "/etc/rc2.d/S01manager_svc", "/" + HOME_DIR)
RUNTIME_DEPENDS = ("libmicrohttpd12", "libjson-c5", "libcurl4")

pytestmark = pytest.mark.skipif(not BIN, reason="MANAGER_SVC_BIN not set")


def web_files():
    """The monitor pages in the source tree, relative to web/."""
    found = []
    for top, _, files in os.walk(WEB_DIR):
        found += [os.path.relpath(os.path.join(top, f), WEB_DIR) for f in files]
    return found


def tree(root):
    """{relative path: (kind, permission bits)} for everything below root."""
    entries = {}
    for top, dirs, files in os.walk(root):
        for name in dirs + files:
            full = os.path.join(top, name)
            mode = os.lstat(full).st_mode
            kind = "dir" if stat.S_ISDIR(mode) else "file"
            entries[os.path.relpath(full, root)] = (kind, stat.S_IMODE(mode))
    return entries


@pytest.fixture(scope="module")
def scratch():
    os.makedirs(SANDBOX_ROOT, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=SANDBOX_ROOT, prefix="install-") as path:
        yield path


def test_destdir_install_lays_out_the_device_files(scratch):
    destdir = os.path.join(scratch, "destdir")
    subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/usr", "--strip"], check=True,
                   env={**os.environ, "DESTDIR": destdir}, capture_output=True)
    files = {"usr/sbin/manager_svc": 0o755, "etc/init.d/manager_svc": 0o755,
             "usr/share/doc/manager-svc/copyright": 0o644,
             "usr/share/doc/manager-svc/changelog.gz": 0o644,
             "usr/share/man/man8/manager_svc.8.gz": 0o644,
             "usr/share/lintian/overrides/manager-svc": 0o644}
    files.update({os.path.join(HOME_DIR, f): 0o644 for f in web_files()})
    expected = {path: ("file", mode) for path, mode in files.items()}
    for path in files:
        while os.path.dirname(path):
            path = os.path.dirname(path)
            expected[path] = ("dir", 0o755)
    assert tree(destdir) == expected
    with open(os.path.join(destdir, "etc/init.d/manager_svc")) as script:
        text = script.read()
    assert text.startswith("#!/bin/sh\n") and "### BEGIN INIT INFO" in text


@pytest.fixture(scope="module")
def package(scratch):
    out = os.path.join(scratch, "package")
    subprocess.run(["cpack", "-G", "DEB", "--config", os.path.join(BUILD_DIR, "CPackConfig.cmake"),
                    "-B", out], check=True, capture_output=True, timeout=300)
    debs = [f for f in os.listdir(out) if f.endswith(".deb")]
    assert len(debs) == 1, debs
    return os.path.join(out, debs[0])


def deb_field(deb, field):
    return subprocess.run(["dpkg-deb", "-f", deb, field], check=True,
                          capture_output=True, text=True).stdout.strip()


def test_package_declares_runtime_libraries_and_architecture(package):
    depends = [d.split()[0] for d in deb_field(package, "Depends").split(", ")]
    for library in RUNTIME_DEPENDS:
        assert library in depends
    host_arch = subprocess.run(["dpkg", "--print-architecture"], check=True,
                               capture_output=True, text=True).stdout.strip()
    assert deb_field(package, "Architecture") == host_arch
    listing = subprocess.run(["dpkg-deb", "-c", package], check=True,
                             capture_output=True, text=True).stdout
    for path in ("./usr/sbin/manager_svc", "./etc/init.d/manager_svc", "./" + HOME_DIR + "/"):
        assert path in listing


# A shipped package is built without sanitizers; their runtime libraries
# are no part of what lintian should judge.
@pytest.mark.skipif(SANITIZED, reason="sanitizer build")
def test_package_is_lintian_clean(package):
    run = subprocess.run(["lintian", package], capture_output=True, text=True, timeout=300)
    problems = [line for line in run.stdout.splitlines() if line.startswith(("E: ", "W: "))]
    assert not problems, run.stdout + run.stderr


# Runs inside the sandbox: installs the package and drives its init script
# (through `sh`, so that with BusyBox first in PATH BusyBox's shell runs it
# too). Every step prints "STEP <name> <exit status>" and what it answered;
# a trap makes sure no daemon outlives the run.
DRIVER = r"""
deb=$1 url=http://127.0.0.1:$2/managerService/svcmgr tools=$3
shift 3
trap '/usr/sbin/start-stop-daemon --stop --quiet --oknodo --exec /usr/sbin/manager_svc --retry KILL/5' EXIT
step() { name=$1; shift; "$@"; status=$?; echo; echo "STEP $name $status"; }
ask() { curl -sS --max-time 5 "$@"; }
init() { sh /etc/init.d/manager_svc "$@"; }
present() { for f in "$@"; do if [ -e "$f" ] || [ -L "$f" ]; then printf "%s " "$f"; fi; done; }
step install dpkg -i "$deb"
step boot_link test -L /etc/rc2.d/S01manager_svc
if [ "$tools" = busybox ]; then
    mkdir /busybox && busybox --install -s /busybox && PATH=/busybox:$PATH
fi
step status_installed init status
step start init start
step status_started init status
step start_again init start
step register ask -d '{"method":"register","name":"svcA","ip":"127.0.0.1","port":80}' "$url"
rm -f /tmp/.manager_svc.inf
step restart init restart
step get_info ask "$url?method=get_info&name=svcA"
step try_restart init try-restart
step force_reload init force-reload
step reload init reload
step status_restarted init status
step stop init stop
step status_stopped init status
step stop_again init stop
step try_restart_stopped init try-restart
step status_still_stopped init status
echo 'MANAGER_SVC_OPTS="-p 0"' >/etc/default/manager_svc
step start_bad_option init start
step status_dead init status
mkdir -p /Ombrix/.mgrsvc_log && : >/Ombrix/.mgrsvc_log/.mgrsvc_log
step present_before_purge present "$@"
step purge env PATH=/usr/sbin:/usr/bin:/sbin:/bin dpkg -P manager-svc
step leftovers present "$@"
"""


def parse_steps(output):
    steps, answers = {}, {}
    pending = ""
    for line in output.splitlines():
        if line.startswith("STEP "):
            _, name, status = line.split()
            steps[name] = int(status)
            answers[name] = pending
            pending = ""
        else:
            pending += line
    return steps, answers


@pytest.mark.parametrize("tools", ["debian", "busybox"])
def test_package_init_script_drives_the_daemon(package, sandbox, tools):
    port = free_port()
    # Package scripts must not start services on their own in a chroot.
    sandbox.write("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", mode=0o755)
    sandbox.write("/etc/default/manager_svc", f'MANAGER_SVC_OPTS="-i 127.0.0.1 -p {port}"\n')
    run = subprocess.run([SANDBOX_RUN, sandbox.root, "sh", "-c", DRIVER, "driver", package, str(port),
                          tools, *DAEMON_FILES], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                         timeout=deadline(120))
    steps, answers = parse_steps(run.stdout)
    report = run.stdout + run.stderr
    assert steps == {
        "install": 0, "status_installed": 3, "start": 0, "status_started": 0, "start_again": 0,
        "register": 0, "restart": 0, "get_info": 0, "try_restart": 0, "force_reload": 0,
        "reload": 3, "status_restarted": 0, "stop": 0, "status_stopped": 3, "stop_again": 0,
        "try_restart_stopped": 0, "status_still_stopped": 3, "start_bad_option": 1,
        "status_dead": 1, "present_before_purge": 0, "purge": 0, "leftovers": 0, "boot_link": 0,
    }, report
    assert answers["present_before_purge"].split() == list(DAEMON_FILES), report
    assert '"return":0' in answers["register"].replace(" ", ""), report
    assert '"return":0' in answers["get_info"].replace(" ", ""), report
    # The registry file was removed while the daemon ran: the stop of the
    # restart wrote it back, and the second daemon restored svcA from it.
    assert answers["leftovers"] == "", report
