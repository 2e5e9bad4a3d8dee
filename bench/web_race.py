"""A writer inside the web home directory that keeps swapping a directory
and a symlink to a directory outside it, under the same name, while pages
below that name are requested, for bench/web_bench.py."""
import ctypes
import multiprocessing
import os

INSIDE = b"inside"
OUTSIDE = b"outside"


AT_FDCWD = -100
RENAME_EXCHANGE = 2


def _swap_forever(home, outside, stop):
    """Exchanges HOME/swap (a directory) and HOME/swap.link (a symlink to
    OUTSIDE) atomically, again and again: the name always exists."""
    libc = ctypes.CDLL(None, use_errno=True)
    name = os.path.join(home, "swap").encode()
    other = os.path.join(home, "swap.link").encode()
    os.symlink(outside, other)
    while not stop.is_set():
        if libc.renameat2(AT_FDCWD, name, AT_FDCWD, other, RENAME_EXCHANGE) != 0:
            raise OSError(ctypes.get_errno(), "renameat2")


class Swapper:
    """Prepares HOME/swap/page.js (inside) and OUTSIDE/page.js, both seen
    through the daemon's root (paths under /proc/PID/root), and swaps in a
    process of its own while active."""

    PAGE = "/swap/page.js"

    def __init__(self, home, outside):
        os.makedirs(os.path.join(home, "swap"))
        os.makedirs(outside)
        with open(os.path.join(home, "swap", "page.js"), "wb") as page:
            page.write(INSIDE)
        with open(os.path.join(outside, "page.js"), "wb") as page:
            page.write(OUTSIDE)
        self.stop = multiprocessing.Event()
        self.process = multiprocessing.Process(target=_swap_forever,
                                               args=(home, outside, self.stop), daemon=True)

    def __enter__(self):
        self.process.start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        self.process.join(10)
