"""Install layout, Debian package and init script.

`cmake --install` into a scratch DESTDIR must lay out exactly the device's
files with their modes. The package built by CPack is installed with dpkg
inside the overlay sandbox (the host's dpkg database and /etc stay
untouched), and its init script then drives the real daemon there: start,
status, a registration, stop, restart, and a start that must fail.
"""
import os
import stat
import subprocess
import tempfile

import pytest

from harness import BIN, REGISTRY_FILE, READY_MARKER, SANDBOX_ROOT, SANDBOX_RUN, deadline, free_port

BUILD_DIR = os.path.dirname(os.path.abspath(BIN)) if BIN else ""
SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
WEB_DIR = os.path.join(SOURCE_DIR, "web")
HOME_DIR = "home/httpd/manager_svc"
INIT_SCRIPT = "/etc/init.d/manager_svc"
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
    subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/usr"], check=True,
                   env={**os.environ, "DESTDIR": destdir}, capture_output=True)
    found = {path: entry for path, entry in tree(destdir).items()
             if path.startswith(("usr/sbin", "etc/init.d", HOME_DIR))}
    expected = {
        "usr/sbin": ("dir", 0o755), "usr/sbin/manager_svc": ("file", 0o755),
        "etc/init.d": ("dir", 0o755), "etc/init.d/manager_svc": ("file", 0o755),
        HOME_DIR: ("dir", 0o755),
    }
    expected.update({os.path.join(HOME_DIR, f): ("file", 0o644) for f in web_files()})
    expected.update({os.path.join(HOME_DIR, os.path.dirname(f)): ("dir", 0o755)
                     for f in web_files() if os.path.dirname(f)})
    assert found == expected
    others = set(tree(destdir)) - set(found) - {"usr", "etc", "home", "home/httpd"}
    assert not others, f"unexpected files installed: {sorted(others)}"
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


# Runs inside the sandbox: installs the package and drives its init script.
# Every step prints "STEP <name> <exit status>" and what it answered; a trap
# makes sure no daemon outlives the run.
DRIVER = r"""
deb=$1 url=http://127.0.0.1:$2/managerService/svcmgr
trap 'start-stop-daemon --stop --quiet --oknodo --exec /usr/sbin/manager_svc --retry KILL/5' EXIT
step() { name=$1; shift; "$@"; status=$?; echo; echo "STEP $name $status"; }
ask() { curl -sS --max-time 5 "$@"; }
step install dpkg -i "$deb"
step status_installed /etc/init.d/manager_svc status
step start /etc/init.d/manager_svc start
step status_started /etc/init.d/manager_svc status
step start_again /etc/init.d/manager_svc start
step register ask -d '{"method":"register","name":"svcA","ip":"127.0.0.1","port":80}' "$url"
rm -f /tmp/.manager_svc.inf
step restart /etc/init.d/manager_svc restart
step get_info ask "$url?method=get_info&name=svcA"
step stop /etc/init.d/manager_svc stop
step status_stopped /etc/init.d/manager_svc status
step stop_again /etc/init.d/manager_svc stop
echo 'MANAGER_SVC_OPTS="-p 0"' >/etc/default/manager_svc
step start_bad_option /etc/init.d/manager_svc start
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


def test_package_init_script_drives_the_daemon(package, sandbox):
    port = free_port()
    # Package scripts must not start services on their own in a chroot.
    sandbox.write("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", mode=0o755)
    sandbox.write("/etc/default/manager_svc", f'MANAGER_SVC_OPTS="-i 127.0.0.1 -p {port}"\n')
    run = subprocess.run([SANDBOX_RUN, sandbox.root, "sh", "-c", DRIVER, "driver", package, str(port)],
                         stdin=subprocess.DEVNULL, capture_output=True, text=True,
                         timeout=deadline(120))
    steps, answers = parse_steps(run.stdout)
    report = run.stdout + run.stderr
    assert steps == {
        "install": 0, "status_installed": 3, "start": 0, "status_started": 0, "start_again": 0,
        "register": 0, "restart": 0, "get_info": 0, "stop": 0, "status_stopped": 3,
        "stop_again": 0, "start_bad_option": 1,
    }, report
    assert '"return":0' in answers["register"].replace(" ", ""), report
    assert '"return":0' in answers["get_info"].replace(" ", ""), report
    # The registry file was removed while the daemon ran: the stop of the
    # restart wrote it back, and the second daemon restored svcA from it.
    assert sandbox.read(REGISTRY_FILE) == b"svcA,127.0.0.1,80\n", report
    assert sandbox.exists(READY_MARKER)
    assert os.path.islink(sandbox.path("/etc/rc2.d/S01manager_svc"))
