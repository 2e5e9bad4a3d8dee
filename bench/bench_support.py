"""What every benchmark script shares: the project root, the black-box
harness on the import path, the --build option that points the harness at
a build's daemon, the sandboxes a run makes (cleaned up at its end), and
readings of a process from /proc."""
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "blackbox"))


def parse_args(parser, sandbox_dir="sandbox-bench"):
    """Adds --build to the script's own options, parses them, and points
    the harness at that build's daemon, its sandboxes under the build."""
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    args = parser.parse_args()
    os.environ["MANAGER_SVC_BIN"] = os.path.join(args.build, "manager_svc")
    os.environ.setdefault("MANAGER_SVC_SANDBOX_ROOT", os.path.join(args.build, sandbox_dir))
    return args


class Sandboxes:
    """The sandboxes of one run, each made on demand; all are cleaned up
    when the run leaves the `with` block."""

    def __init__(self, name):
        self.name = name
        self.made = []

    def new(self):
        from harness import Sandbox
        self.made.append(Sandbox(self.name))
        return self.made[-1]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for box in self.made:
            box.cleanup()


def proc_status(pid, field):
    """A number from /proc/PID/status (VmRSS, VmHWM in KiB, Threads)."""
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            name, _, value = line.partition(":")
            if name == field:
                return int(value.split()[0])
    raise KeyError(field)


def open_fds(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))
