// relay_pool.cpp - the relay workers (see the header).
// pool_lock guards everything below it: the waiting jobs, the worker and
// idle counts, whether jobs are accepted, and the last ended worker. It is
// never held while a job runs or is refused. Workers are joinable threads:
// each one that ends joins the one that ended before it, and stop joins the
// last, so no ended thread is left unjoined for long.
#include "platform/relay_pool.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace {

// A relay needs little stack: libcurl, json-c and the handler's locals.
constexpr std::size_t WORKER_STACK_BYTES = 256 * 1024;

std::mutex pool_lock;
std::condition_variable work_ready;    // a job waits, or the pool stops
std::condition_variable workers_gone;  // the last worker has ended
std::deque<std::unique_ptr<relay_job>> waiting_jobs;  // guarded by pool_lock
unsigned worker_count = 0;   // guarded by pool_lock
unsigned idle_count = 0;     // guarded by pool_lock: workers waiting for a job
unsigned running_count = 0;  // guarded by pool_lock: jobs taken by a worker, not yet done
bool accepting = false;      // guarded by pool_lock
bool has_ended_worker = false;  // guarded by pool_lock
pthread_t ended_worker;         // guarded by pool_lock: the last worker to end, not yet joined

// Runs waiting jobs (refusing them once the pool stops) until the pool
// stops or no job came for RELAY_POOL_IDLE_SECONDS.
void serve_jobs(std::unique_lock<std::mutex>& hold) {
    for (;;) {
        if (!waiting_jobs.empty()) {
            std::unique_ptr<relay_job> job = std::move(waiting_jobs.front());
            waiting_jobs.pop_front();
            const bool refuse = !accepting;
            ++running_count;
            hold.unlock();
            refuse ? job->refuse() : job->run();
            job.reset();
            hold.lock();
            --running_count;
            continue;
        }
        if (!accepting) {
            return;
        }
        ++idle_count;
        const bool woken = work_ready.wait_for(
            hold, std::chrono::seconds(RELAY_POOL_IDLE_SECONDS),
            [] { return !waiting_jobs.empty() || !accepting; });
        --idle_count;
        if (!woken) {
            return;
        }
    }
}

void* worker_main(void*) {
    std::unique_lock<std::mutex> hold(pool_lock);
    serve_jobs(hold);
    --worker_count;
    const bool join_previous = has_ended_worker;
    const pthread_t previous = ended_worker;
    ended_worker = pthread_self();
    has_ended_worker = true;
    if (worker_count == 0) {
        workers_gone.notify_all();
    }
    hold.unlock();
    if (join_previous) {
        pthread_join(previous, nullptr);
    }
    return nullptr;
}

// A new worker, counted; false when no thread could be made. Called with
// pool_lock held.
bool add_worker() {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    pthread_attr_setstacksize(&attributes, WORKER_STACK_BYTES);
    pthread_t thread;
    const bool made = pthread_create(&thread, &attributes, worker_main, nullptr) == 0;
    pthread_attr_destroy(&attributes);
    if (made) {
        ++worker_count;
    }
    return made;
}

// Queues the job for a worker (idle, or made for it); hands it back when
// it must be refused: the pool is stopped or full, or no worker exists and
// none can be made. Called with pool_lock held.
std::unique_ptr<relay_job> queue_job(std::unique_ptr<relay_job> job) {
    const std::size_t taken_on = running_count + waiting_jobs.size();
    if (!accepting || taken_on >= RELAY_POOL_WORKERS + RELAY_POOL_QUEUE) {
        return job;
    }
    try {
        waiting_jobs.push_back(std::move(job));
    } catch (...) {
        return job;  // push_back changed nothing
    }
    if (idle_count >= waiting_jobs.size()) {
        work_ready.notify_one();
        return nullptr;
    }
    if ((worker_count < RELAY_POOL_WORKERS && add_worker()) || worker_count > 0) {
        return nullptr;
    }
    job = std::move(waiting_jobs.back());
    waiting_jobs.pop_back();
    return job;
}

}  // namespace

void relay_pool_start() {
    std::lock_guard<std::mutex> hold(pool_lock);
    accepting = true;
}

void relay_pool_submit(std::unique_ptr<relay_job> job) {
    std::unique_ptr<relay_job> refused;
    {
        std::lock_guard<std::mutex> hold(pool_lock);
        refused = queue_job(std::move(job));
    }
    if (refused) {
        refused->refuse();
    }
}

void relay_pool_stop() {
    std::unique_lock<std::mutex> hold(pool_lock);
    accepting = false;
    work_ready.notify_all();
    workers_gone.wait(hold, [] { return worker_count == 0; });
    if (has_ended_worker) {
        has_ended_worker = false;
        const pthread_t last = ended_worker;
        hold.unlock();
        pthread_join(last, nullptr);
    }
}

unsigned relay_pool_worker_count() {
    std::lock_guard<std::mutex> hold(pool_lock);
    return worker_count;
}
