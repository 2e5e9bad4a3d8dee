// page_file.cpp - opening, checking and sharing web-page files (see the
// header).
//
// Containment is checked on the opened file, never on its name: the path
// is opened with O_PATH (which neither reads the file nor runs a device's
// open, so a FIFO or device reached by a symlink costs nothing), the kernel's
// own name of the opened file (/proc/self/fd/N) must lie inside the real
// home directory, and only then is that same file opened for reading, through
// the same /proc entry. A directory swapped for a symlink between two steps
// cannot bring a file from outside: the file checked is the file read.
// A request for a version of a file whose checked bytes the table holds is
// served from the table after one stat (see bytes_of_known_version), or
// with no stat at all while that version is trusted (see trust_version).
//
// Shared bytes: page_table maps a file's identity (device, inode, size,
// modification and change times) to its immutable bytes. Every reply for
// the same unchanged file sends the same bytes; a file whose identity has
// changed is read again at once. Pages of at most KEPT_PAGE_SIZE bytes are
// kept in the table between requests; larger ones only as long as a reply
// still sends them (a weak reference). page_table_lock guards page_table
// and page_table_clock; it is held only for a look-up or a store, never
// while page_watch adds watches or reads events.
//
// Trust: a kept page asked for by its real path is watched (page_watch.h),
// and while the watch count stays as it was when the version was last
// confirmed by a stat, no name on its way and nothing in the file has
// changed, so its bytes are served without the stat (with a file system
// mounted over the way, or a change that inotify does not see, such as one
// made by another machine on a network file system, a stat is taken again
// after TRUST_MS at the latest).
#include "monitor/page_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <mutex>
#include <vector>

#include "monitor/page_watch.h"

namespace {

// At most PAGE_TABLE_SIZE entries, so at most 2 MiB kept between requests.
constexpr off_t KEPT_PAGE_SIZE = 64 * 1024;
constexpr std::size_t PAGE_TABLE_SIZE = 32;
// A file changed less than this long before it is read might change again
// within the same timestamp tick, leaving its identity as it was: its bytes
// are not shared, so the next request reads the file again.
constexpr time_t SETTLED_SECONDS = 2;
// A trusted version is confirmed by a stat again after this long.
constexpr long long TRUST_MS = 1000;
// A page whose trust keeps being broken by changes (of any file in a
// watched directory) is tried again at most this often.
constexpr long long TRUST_RETRY_MS = 100;

// Closes a descriptor when the scope ends.
class fd_closer {
public:
    explicit fd_closer(int descriptor) : fd(descriptor) {}
    ~fd_closer() { close(fd); }
    fd_closer(const fd_closer&) = delete;
    fd_closer& operator=(const fd_closer&) = delete;

private:
    int fd;
};

struct page_entry {
    page_identity identity;
    std::string checked_home;  // the real home directory it was checked against
    std::weak_ptr<const std::string> in_use;  // while any reply sends the bytes
    std::shared_ptr<const std::string> kept;  // small pages only
    unsigned long long last_use = 0;
    std::string real_path;  // the kernel's name of the checked file
    // Served without a stat while the watch count is trusted_changes and
    // the steady clock is before trusted_until_ms.
    unsigned long long trusted_changes = PAGE_WATCH_UNKNOWN;
    long long trusted_until_ms = 0;
    long long next_trust_ms = 0;  // no trust is tried before this
    int file_watch = -1;          // the file's inotify watch, while it has one
};

std::mutex page_table_lock;
std::vector<page_entry> page_table;     // guarded by page_table_lock
unsigned long long page_table_clock = 0;  // guarded by page_table_lock

bool same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool same_file(const page_identity& a, const page_identity& b) {
    return a.device == b.device && a.inode == b.inode;
}

page_identity identity_of(const struct stat& info) {
    page_identity identity;
    identity.device = info.st_dev;
    identity.inode = info.st_ino;
    identity.size = info.st_size;
    identity.modified = info.st_mtim;
    identity.changed = info.st_ctim;
    return identity;
}

bool servable_kind(const struct stat& info) {
    return S_ISREG(info.st_mode) && info.st_size <= WEB_MAX_FILE_SIZE;
}

long long steady_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// True when `path` names real_path, with any number of "/" between names.
bool names_real_path(const std::string& path, const std::string& real_path) {
    std::size_t at = 0;
    for (std::size_t index = 0; index < path.size(); ++index) {
        if (path[index] == '/' && index > 0 && path[index - 1] == '/') {
            continue;
        }
        if (at == real_path.size() || path[index] != real_path[at]) {
            return false;
        }
        ++at;
    }
    return at == real_path.size();
}

bool settled(const page_identity& identity) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec - identity.changed.tv_sec >= SETTLED_SECONDS;
}

// The bytes of this very version of the file (page->identity), checked
// against this home directory, when a reply or the table still holds them.
bool find_shared_bytes(const std::string& real_home, page_file* page) {
    std::lock_guard<std::mutex> hold(page_table_lock);
    for (page_entry& entry : page_table) {
        if (same_page_version(entry.identity, page->identity) && entry.checked_home == real_home) {
            page->bytes = entry.in_use.lock();
            page->kept = page->bytes && page->bytes == entry.kept;
            if (page->bytes) {
                entry.last_use = ++page_table_clock;
            }
            return page->bytes != nullptr;
        }
    }
    return false;
}

// The entry for this file: its own (any version), a new one while there is
// room, else one no reply uses any more, else the least recently used.
page_entry& entry_for(const page_identity& identity) {
    for (page_entry& entry : page_table) {
        if (same_file(entry.identity, identity)) {
            return entry;
        }
    }
    if (page_table.size() < PAGE_TABLE_SIZE) {
        page_table.emplace_back();
        return page_table.back();
    }
    page_entry* oldest = &page_table.front();
    for (page_entry& entry : page_table) {
        if (entry.in_use.expired()) {
            return entry;
        }
        if (entry.last_use < oldest->last_use) {
            oldest = &entry;
        }
    }
    return *oldest;
}

// Stores freshly read bytes (page->bytes) of the file checked at real_path;
// when another request stored the same version meanwhile, its bytes are
// used instead, so one copy is sent by all.
void share_bytes(const std::string& real_home, const std::string& real_path, page_file* page) {
    int dropped_watch = -1;
    {
        std::lock_guard<std::mutex> hold(page_table_lock);
        page_entry& entry = entry_for(page->identity);
        std::shared_ptr<const std::string> stored = entry.in_use.lock();
        if (!stored || !same_page_version(entry.identity, page->identity) ||
            entry.checked_home != real_home) {
            int file_watch = entry.file_watch;
            if (!same_file(entry.identity, page->identity)) {
                dropped_watch = file_watch;  // another file takes the entry
                file_watch = -1;
            }
            entry = page_entry{};
            entry.identity = page->identity;
            entry.checked_home = real_home;
            entry.in_use = page->bytes;
            entry.kept = page->identity.size <= KEPT_PAGE_SIZE ? page->bytes : nullptr;
            entry.real_path = real_path;
            entry.file_watch = file_watch;
            stored = page->bytes;
        }
        entry.last_use = ++page_table_clock;
        page->bytes = stored;
        page->kept = stored == entry.kept;
    }
    page_watch_forget(dropped_watch);
}

// The path of the opened file as the kernel names it (*real_path) lies
// inside real_home.
bool opened_inside(int fd, const std::string& real_home, std::string* real_path) {
    char link[32];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char target[PATH_MAX];
    ssize_t length = readlink(link, target, sizeof target);
    if (length <= 0 || static_cast<std::size_t>(length) >= sizeof target) {
        return false;
    }
    real_path->assign(target, static_cast<std::size_t>(length));
    return path_inside_directory(real_home, *real_path);
}

// Reads up to `size` bytes of the open file; a read error ends the reading
// like the end of the file, keeping what was read.
std::shared_ptr<std::string> read_bytes(int fd, off_t size) {
    auto bytes = std::make_shared<std::string>(static_cast<std::size_t>(size), '\0');
    std::size_t done = 0;
    while (done < bytes->size()) {
        ssize_t got = read(fd, &(*bytes)[done], bytes->size() - done);
        if (got <= 0) {
            break;
        }
        done += static_cast<std::size_t>(got);
    }
    bytes->resize(done);
    return bytes;
}

// Reads the file behind the checked O_PATH descriptor (the same file, not
// the same name) and shares its bytes when it was left unchanged meanwhile.
// page->identity becomes that of the file as read. False when it cannot be
// read.
bool read_checked_file(int path_fd, const std::string& real_home, const std::string& real_path,
                       page_file* page) {
    char link[32];
    snprintf(link, sizeof link, "/proc/self/fd/%d", path_fd);
    // O_NONBLOCK and O_NOCTTY are belts and braces: the file is known to be
    // a regular file.
    int fd = open(link, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    fd_closer closer(fd);
    struct stat before;
    if (fstat(fd, &before) != 0 || !servable_kind(before) ||
        !same_file(identity_of(before), page->identity)) {
        return false;
    }
    page->identity = identity_of(before);
    page->bytes = read_bytes(fd, before.st_size);
    page->kept = false;
    struct stat after;
    if (fstat(fd, &after) == 0 && same_page_version(identity_of(after), page->identity) &&
        settled(page->identity)) {
        share_bytes(real_home, real_path, page);
    }
    return true;
}

// Fast path: the name leads to a version of a file whose bytes the table
// holds. Those bytes were read from a descriptor checked as above, and the
// version is the same (a link, unlink or rename of the file, or a write to
// it, changes its change time), so they are what a check of the opened file
// would serve; the name only finds the file, it decides nothing. A writer
// inside the home directory cannot make an outside file carry the identity
// of a file that was inside. Bytes checked against another home directory
// do not count.
bool bytes_of_known_version(const std::string& real_home, const std::string& abs_path,
                            page_file* page) {
    struct stat info;
    if (stat(abs_path.c_str(), &info) != 0 || !servable_kind(info)) {
        return false;
    }
    page->identity = identity_of(info);
    return find_shared_bytes(real_home, page);
}

// Slow path: opens and checks the file itself, then reads it.
bool bytes_of_checked_file(const std::string& real_home, const std::string& abs_path,
                           page_file* page) {
    int path_fd = open(abs_path.c_str(), O_PATH | O_CLOEXEC);
    if (path_fd < 0) {
        return false;
    }
    fd_closer closer(path_fd);
    struct stat info;
    std::string real_path;
    if (fstat(path_fd, &info) != 0 || !servable_kind(info) ||
        !opened_inside(path_fd, real_home, &real_path)) {
        return false;
    }
    page->identity = identity_of(info);
    return read_checked_file(path_fd, real_home, real_path, page);
}

// Fastest path: the bytes of a trusted version asked for by its real path,
// no stat taken.
bool trusted_bytes(const std::string& real_home, const std::string& abs_path, page_file* page) {
    const unsigned long long changes = page_watch_changes();
    if (changes == PAGE_WATCH_UNKNOWN) {
        return false;
    }
    const long long now = steady_ms();
    std::lock_guard<std::mutex> hold(page_table_lock);
    for (page_entry& entry : page_table) {
        if (entry.trusted_changes == changes && now < entry.trusted_until_ms && entry.kept &&
            entry.checked_home == real_home && names_real_path(abs_path, entry.real_path)) {
            page->identity = entry.identity;
            page->bytes = entry.kept;
            page->kept = true;
            entry.last_use = ++page_table_clock;
            return true;
        }
    }
    return false;
}

// The entry that keeps these very bytes, or null. page_table_lock held.
page_entry* entry_keeping(const page_file& page) {
    for (page_entry& entry : page_table) {
        if (entry.kept && entry.kept == page.bytes) {
            return &entry;
        }
    }
    return nullptr;
}

// Trusts a kept version asked for by its real path: takes the watch count,
// watches the directories above the file from "/" down and the file, and
// confirms the version with an lstat; when the count is still as it was,
// every change from the watches on moves it. Tried at most every
// TRUST_RETRY_MS per page.
void trust_version(const std::string& abs_path, const page_file& page) {
    std::string real_path;
    {
        std::lock_guard<std::mutex> hold(page_table_lock);
        page_entry* entry = entry_keeping(page);
        const long long now = steady_ms();
        if (entry == nullptr || now < entry->next_trust_ms ||
            !names_real_path(abs_path, entry->real_path)) {
            return;
        }
        entry->next_trust_ms = now + TRUST_RETRY_MS;
        real_path = entry->real_path;
    }
    unsigned long long before = page_watch_changes();
    if (before == PAGE_WATCH_UNKNOWN) {
        page_watch_add(real_path);  // the first page watched starts the count
        before = page_watch_changes();
    }
    const int file_watch = page_watch_add(real_path);
    struct stat info;
    const bool confirmed = before != PAGE_WATCH_UNKNOWN && file_watch >= 0 &&
                           lstat(real_path.c_str(), &info) == 0 &&
                           same_page_version(identity_of(info), page.identity) &&
                           page_watch_changes() == before;
    std::lock_guard<std::mutex> hold(page_table_lock);
    page_entry* entry = entry_keeping(page);
    if (entry != nullptr && file_watch >= 0) {
        entry->file_watch = file_watch;
    }
    if (entry != nullptr && confirmed) {
        entry->trusted_changes = before;
        entry->trusted_until_ms = steady_ms() + TRUST_MS;
    }
}

}  // namespace

bool same_page_version(const page_identity& a, const page_identity& b) {
    return same_file(a, b) && a.size == b.size && same_time(a.modified, b.modified) &&
           same_time(a.changed, b.changed);
}

bool path_inside_directory(const std::string& directory, const std::string& path) {
    if (directory == "/") {
        return path.size() > 1 && path[0] == '/';
    }
    return path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0 &&
           path[directory.size()] == '/';
}

bool open_page_file(const std::string& real_home, const std::string& abs_path, page_file* page) {
    if (real_home.empty()) {
        return false;
    }
    if (trusted_bytes(real_home, abs_path, page)) {
        return true;
    }
    page_file found;
    if (!bytes_of_known_version(real_home, abs_path, &found) &&
        !bytes_of_checked_file(real_home, abs_path, &found)) {
        return false;
    }
    if (found.kept) {
        trust_version(abs_path, found);
    }
    *page = std::move(found);
    return true;
}
