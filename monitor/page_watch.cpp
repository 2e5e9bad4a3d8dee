// page_watch.cpp - the inotify descriptor behind the page table's trust
// (see the header). setup_lock guards making watch_fd and adding or
// removing watches; watch_fd, watching, watch_broken, change_count and
// counters_busy are atomics read and written by any listener thread without
// a lock. Nothing is read before a file is watched.
// A file's watch is removed when the page table drops the file (the kernel
// drops it by itself when the file is deleted), so at most one is held per
// table entry; directory watches stay, bounded by the directories that hold
// kept pages and those above them. The descriptor is never closed, so no
// thread can read a reused one.
#include "monitor/page_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace {

// Everything that can change what a name leads to or what a file holds;
// reading a file (our own reads included) is not among them.
constexpr uint32_t WATCHED_CHANGES = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE |
                                     IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                                     IN_MOVE_SELF;
// Enough for several events; events left queued count at the next read.
constexpr std::size_t EVENT_BUFFER_SIZE = 4096;

std::mutex setup_lock;
std::atomic<int> watch_fd{-1};             // written once, under setup_lock
std::atomic<bool> watching{false};         // a file has been watched
std::atomic<bool> watch_broken{false};     // set for good when a read fails
std::atomic<unsigned long long> change_count{1};
// Callers between their read and their count; while any is, an event may
// have been read and not counted yet.
std::atomic<unsigned> counters_busy{0};

// A watch on exactly this name (a symlink is not followed but refused),
// or -1. setup_lock held.
int watch_one(int fd, const std::string& path, uint32_t kind) {
    return inotify_add_watch(fd, path.c_str(), WATCHED_CHANGES | IN_DONT_FOLLOW | kind);
}

// One read of the queued events: true when it was read to the end (an
// event read, or none queued), false when reading failed.
bool read_events(int fd, bool* changed) {
    alignas(inotify_event) char events[EVENT_BUFFER_SIZE];
    ssize_t got = read(fd, events, sizeof events);
    while (got < 0 && errno == EINTR) {
        got = read(fd, events, sizeof events);
    }
    *changed = got > 0;
    return got > 0 || (got < 0 && errno == EAGAIN);
}

// The descriptor, made on the first call; -1 when it cannot be made.
// setup_lock held.
int started_descriptor() {
    int fd = watch_fd.load();
    if (fd < 0) {
        fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        watch_fd.store(fd);
    }
    return fd;
}

}  // namespace

bool page_watch_start() {
    std::lock_guard<std::mutex> hold(setup_lock);
    return started_descriptor() >= 0;
}

int page_watch_add(const std::string& real_path) {
    std::lock_guard<std::mutex> hold(setup_lock);
    const int fd = started_descriptor();
    if (fd < 0 || real_path.size() < 2 || real_path[0] != '/') {
        return -1;
    }
    // From "/" down: each directory is watched before the name below it is
    // looked up, so a name replaced from then on is a change counted.
    if (watch_one(fd, "/", IN_ONLYDIR) < 0) {
        return -1;
    }
    for (std::size_t slash = real_path.find('/', 1); slash != std::string::npos;
         slash = real_path.find('/', slash + 1)) {
        if (watch_one(fd, real_path.substr(0, slash), IN_ONLYDIR) < 0) {
            return -1;
        }
    }
    const int file_watch = watch_one(fd, real_path, 0);
    if (file_watch >= 0) {
        watching.store(true);
    }
    return file_watch;
}

void page_watch_forget(int file_watch) {
    std::lock_guard<std::mutex> hold(setup_lock);
    const int fd = watch_fd.load();
    if (fd >= 0 && file_watch >= 0) {
        inotify_rm_watch(fd, file_watch);
    }
}

unsigned long long page_watch_changes() {
    const int fd = watch_fd.load();
    if (fd < 0 || !watching.load() || watch_broken.load()) {
        return PAGE_WATCH_UNKNOWN;
    }
    counters_busy.fetch_add(1);
    bool changed = false;
    if (!read_events(fd, &changed)) {
        watch_broken.store(true);
    }
    if (changed) {
        change_count.fetch_add(1);
    }
    // Another caller may have read an event that this read then missed;
    // once it is no longer busy, its count is seen below.
    const bool alone = counters_busy.fetch_sub(1) == 1;
    const unsigned long long count = change_count.load();
    return alone && !watch_broken.load() ? count : PAGE_WATCH_UNKNOWN;
}
