// held_requests.h - long polls: requests that ask for a view of the
// daemon's state only once it has changed. Such a request names the view's
// index that it has seen; while that is still the current one, its
// connection stays suspended (no listener thread, no relay worker waits
// for it) until the view changes or its wait runs out, and is then answered
// with the view as it is. At most HELD_REQUESTS_MAX are held; more are
// answered at once, as are all of them when the server stops.
// One holder thread (made at start, small stack) answers the held ones;
// held_lock (in the .cpp) guards the held list and the holder's state.
// Views are changed from any thread.
#ifndef MANAGER_SVC_HELD_REQUESTS_H
#define MANAGER_SVC_HELD_REQUESTS_H

#include <atomic>
#include <memory>

#include "platform/relay_pool.h"

// Held requests keep their connections: with the relays' 64 running and
// 128 waiting, 32 held ones stay within the 7/8 of the server's 256
// connections above which the connection guard frees room for new clients
// (an open monitor page holds three).
constexpr unsigned HELD_REQUESTS_MAX = 32;
constexpr unsigned HOLD_WAIT_MAX_SECONDS = 60;

// A view that clients may wait on: its index counts its changes.
class change_view {
public:
    unsigned long long index() const { return changes.load(std::memory_order_acquire); }
    // Counts a change and answers the requests held on this view.
    void changed();

private:
    std::atomic<unsigned long long> changes{0};
};

// Holds the job of a suspended request (its run() answers it and resumes
// the connection) until `view` leaves `index` or `wait_seconds` pass.
// Hands the job back (job stays set) when it cannot be held: the view has
// already changed, HELD_REQUESTS_MAX are held, or the holder does not run;
// the caller answers it at once then.
void held_requests_hold(std::unique_ptr<relay_job>& job, const change_view& view,
                        unsigned long long index, unsigned wait_seconds);

// Starts the holder thread; false (nothing is ever held then) when it
// cannot be made.
bool held_requests_start();

// Answers every held request at once and ends the holder thread.
void held_requests_stop();

// Requests held right now (for tests).
unsigned held_requests_count();

#endif
