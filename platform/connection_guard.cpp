// connection_guard.cpp - closes connections that wait too long for a
// request, oldest first when the limit nears (see the header).
// guard_lock guards the list of open connections, the counts, the limits
// and the watchdog's run flag. A connection's waiting_since is atomic: the
// listener thread that serves the connection writes it without the lock,
// the watchdog and the evictions read it under the lock. A connection is
// closed by shutting its socket down: the server then sees the end of the
// stream and closes it as usual; the server tells us (connection_guard_closed)
// before it closes the descriptor, so a shut-down descriptor is never one
// that was reused.
// After a flood (the open connections went past the point where closing
// starts) the watchdog hands the heap back once fewer than an eighth of
// the limit are open: the connections' buffers have mappings of their own
// (ssci_server.cpp), but their small state is scattered over the listener
// threads' heaps, and malloc_trim returns its free pages.
#include "platform/connection_guard.h"

#include <malloc.h>

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

struct guarded_connection {
    int fd = -1;
    // Milliseconds on the steady clock since the connection has been waiting
    // for a request; BUSY while one is being handled.
    std::atomic<long long> waiting_since{0};
    bool closing = false;  // guarded by guard_lock: shut down, not closed yet
    guarded_connection* prev = nullptr;  // guarded by guard_lock
    guarded_connection* next = nullptr;  // guarded by guard_lock
};

namespace {

constexpr long long BUSY = 0;
constexpr long long REQUEST_LIMIT_MS = GUARD_REQUEST_SECONDS * 1000LL;
constexpr auto WATCHDOG_PERIOD = std::chrono::seconds(1);
// Closing starts above 7/8 of the limit and goes down to 3/4 of it.
constexpr unsigned EVICT_ABOVE_EIGHTHS = 7;
constexpr unsigned EVICT_TO_EIGHTHS = 6;

std::mutex guard_lock;
std::condition_variable watchdog_wake;
guarded_connection open_list;  // guarded by guard_lock: sentinel of the ring of open connections
unsigned open_count = 0;       // guarded by guard_lock
unsigned closing_count = 0;    // guarded by guard_lock
unsigned evict_above = 0;      // guarded by guard_lock
unsigned evict_to = 0;         // guarded by guard_lock
unsigned trim_below = 0;       // guarded by guard_lock
bool flood_seen = false;       // guarded by guard_lock: past evict_above since the last trim
bool watchdog_running = false;  // guarded by guard_lock
std::thread watchdog;          // main thread only (start, stop)

long long now_ms() {
    using namespace std::chrono;
    // Never BUSY: the steady clock's origin is long past.
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count() + 1;
}

// Shuts the connection down; the server closes it. guard_lock held.
void close_connection(guarded_connection* connection) {
    shutdown(connection->fd, SHUT_RDWR);
    connection->closing = true;
    ++closing_count;
}

// Open connections waiting for a request, not already closing. guard_lock held.
std::vector<guarded_connection*> waiting_connections() {
    std::vector<guarded_connection*> found;
    for (guarded_connection* at = open_list.next; at != &open_list; at = at->next) {
        if (!at->closing && at->waiting_since.load(std::memory_order_relaxed) != BUSY) {
            found.push_back(at);
        }
    }
    return found;
}

// Closes the `count` connections that have waited longest (none when no
// memory is left for the choice). guard_lock held.
void evict_longest_waiting(unsigned count) {
    std::vector<guarded_connection*> candidates;
    try {
        candidates = waiting_connections();
    } catch (const std::bad_alloc&) {
        return;
    }
    count = std::min<unsigned>(count, static_cast<unsigned>(candidates.size()));
    auto waited_longer = [](const guarded_connection* a, const guarded_connection* b) {
        return a->waiting_since.load(std::memory_order_relaxed) <
               b->waiting_since.load(std::memory_order_relaxed);
    };
    std::partial_sort(candidates.begin(), candidates.begin() + count, candidates.end(),
                      waited_longer);
    for (unsigned i = 0; i < count; ++i) {
        close_connection(candidates[i]);
    }
}

// Closes every connection that has waited past the limit. guard_lock held.
void close_overdue(long long now) {
    for (guarded_connection* at = open_list.next; at != &open_list; at = at->next) {
        const long long since = at->waiting_since.load(std::memory_order_relaxed);
        if (!at->closing && since != BUSY && now - since > REQUEST_LIMIT_MS) {
            close_connection(at);
        }
    }
}

void watch() {
    std::unique_lock<std::mutex> hold(guard_lock);
    while (watchdog_running) {
        close_overdue(now_ms());
        if (flood_seen && open_count < trim_below) {
            flood_seen = false;
            hold.unlock();
            malloc_trim(0);
            hold.lock();
        }
        watchdog_wake.wait_for(hold, WATCHDOG_PERIOD);
    }
}

void reset_list() {
    open_list.prev = &open_list;
    open_list.next = &open_list;
}

}  // namespace

bool connection_guard_start(unsigned limit) {
    std::lock_guard<std::mutex> hold(guard_lock);
    if (open_list.next == nullptr) {
        reset_list();
    }
    evict_above = limit / 8 * EVICT_ABOVE_EIGHTHS;
    evict_to = limit / 8 * EVICT_TO_EIGHTHS;
    trim_below = limit / 8;
    watchdog_running = true;
    try {
        watchdog = std::thread(watch);
    } catch (const std::system_error&) {
        watchdog_running = false;
        return false;
    }
    return true;
}

void connection_guard_stop() {
    {
        std::lock_guard<std::mutex> hold(guard_lock);
        watchdog_running = false;
        watchdog_wake.notify_all();
    }
    watchdog.join();
}

guarded_connection* connection_guard_opened(int fd) {
    auto* connection = new (std::nothrow) guarded_connection;
    if (connection == nullptr) {
        return nullptr;
    }
    connection->fd = fd;
    connection->waiting_since.store(now_ms(), std::memory_order_relaxed);
    std::lock_guard<std::mutex> hold(guard_lock);
    connection->prev = open_list.prev;
    connection->next = &open_list;
    open_list.prev->next = connection;
    open_list.prev = connection;
    ++open_count;
    const unsigned live = open_count - closing_count;
    if (live > evict_above) {
        flood_seen = true;
        evict_longest_waiting(live - evict_to);
    }
    return connection;
}

void connection_guard_request_received(guarded_connection* connection) {
    if (connection != nullptr) {
        connection->waiting_since.store(BUSY, std::memory_order_relaxed);
    }
}

void connection_guard_request_done(guarded_connection* connection) {
    if (connection != nullptr) {
        connection->waiting_since.store(now_ms(), std::memory_order_relaxed);
    }
}

void connection_guard_closed(guarded_connection* connection) {
    if (connection == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> hold(guard_lock);
        connection->prev->next = connection->next;
        connection->next->prev = connection->prev;
        --open_count;
        if (connection->closing) {
            --closing_count;
        }
    }
    delete connection;
}
