// held_requests.cpp - the held list and its holder thread (see the header).
// held_lock guards everything below it. The holder never holds it while it
// answers a request: it takes the due ones off the list first.
#include "platform/held_requests.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace {

using held_clock = std::chrono::steady_clock;

// Answering builds a reply from memory: json-c and the handler's locals.
constexpr std::size_t HOLDER_STACK_BYTES = 256 * 1024;

struct held_request {
    std::unique_ptr<relay_job> job;
    const change_view* view;
    unsigned long long index;
    held_clock::time_point due;
};

std::mutex held_lock;
std::condition_variable holder_wake;     // a view changed, or the server stops
std::vector<held_request> held_list;     // guarded by held_lock
bool holder_running = false;             // guarded by held_lock
bool stopping = false;                   // guarded by held_lock
pthread_t holder;                        // written by start, joined by stop (main thread)

bool is_due(const held_request& held, held_clock::time_point now) {
    return stopping || held.view->index() != held.index || held.due <= now;
}

// Takes the requests to answer now off the list. Called with held_lock held.
std::vector<std::unique_ptr<relay_job>> take_due() {
    std::vector<std::unique_ptr<relay_job>> due;
    const held_clock::time_point now = held_clock::now();
    for (std::size_t i = held_list.size(); i-- > 0;) {
        if (is_due(held_list[i], now)) {
            due.push_back(std::move(held_list[i].job));
            held_list[i] = std::move(held_list.back());
            held_list.pop_back();
        }
    }
    return due;
}

held_clock::time_point nearest_due() {
    held_clock::time_point nearest = held_list.front().due;
    for (const held_request& held : held_list) {
        nearest = std::min(nearest, held.due);
    }
    return nearest;
}

void* holder_main(void*) {
    std::unique_lock<std::mutex> hold(held_lock);
    for (;;) {
        std::vector<std::unique_ptr<relay_job>> due = take_due();
        if (!due.empty()) {
            hold.unlock();
            for (std::unique_ptr<relay_job>& job : due) {
                job->run();
                job.reset();
            }
            hold.lock();
            continue;
        }
        if (stopping) {
            return nullptr;
        }
        if (held_list.empty()) {
            holder_wake.wait(hold);
        } else {
            holder_wake.wait_until(hold, nearest_due());
        }
    }
}

}  // namespace

void change_view::changed() {
    changes.fetch_add(1, std::memory_order_acq_rel);
    std::lock_guard<std::mutex> hold(held_lock);  // a holder checking now sees the change
    if (!held_list.empty()) {
        holder_wake.notify_one();
    }
}

void held_requests_hold(std::unique_ptr<relay_job>& job, const change_view& view,
                        unsigned long long index, unsigned wait_seconds) {
    std::lock_guard<std::mutex> hold(held_lock);
    if (!holder_running || stopping || view.index() != index ||
        held_list.size() >= HELD_REQUESTS_MAX) {
        return;
    }
    const held_clock::time_point due = held_clock::now() + std::chrono::seconds(wait_seconds);
    try {
        held_list.reserve(HELD_REQUESTS_MAX);  // so that push_back cannot throw
    } catch (...) {
        return;
    }
    held_list.push_back({std::move(job), &view, index, due});
    holder_wake.notify_one();
}

bool held_requests_start() {
    std::lock_guard<std::mutex> hold(held_lock);
    pthread_attr_t attributes;
    if (holder_running || pthread_attr_init(&attributes) != 0) {
        return holder_running;
    }
    pthread_attr_setstacksize(&attributes, HOLDER_STACK_BYTES);
    stopping = false;
    holder_running = pthread_create(&holder, &attributes, holder_main, nullptr) == 0;
    pthread_attr_destroy(&attributes);
    return holder_running;
}

void held_requests_stop() {
    {
        std::lock_guard<std::mutex> hold(held_lock);
        if (!holder_running) {
            return;
        }
        stopping = true;
        holder_wake.notify_one();
    }
    pthread_join(holder, nullptr);
    std::lock_guard<std::mutex> hold(held_lock);
    holder_running = false;
}

unsigned held_requests_count() {
    std::lock_guard<std::mutex> hold(held_lock);
    return static_cast<unsigned>(held_list.size());
}
