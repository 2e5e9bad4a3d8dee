// relay_pool.h - the relay workers: the threads that run the requests which
// wait on another service, so that no listener thread ever waits on the
// network. At most RELAY_POOL_WORKERS jobs run at once, each on a worker
// thread of its own (made when needed, with a small stack, ended after
// RELAY_POOL_IDLE_SECONDS without work); at most RELAY_POOL_QUEUE more wait
// for a worker. Submitted from the listener threads; started and stopped by
// the server's lifecycle calls (main thread). pool_lock (in the .cpp) guards
// every piece of the pool's state.
#ifndef MANAGER_SVC_RELAY_POOL_H
#define MANAGER_SVC_RELAY_POOL_H

#include <memory>

constexpr unsigned RELAY_POOL_WORKERS = 64;
// Relays hold their connections: running and waiting together stay below
// the point where the connection guard starts closing (7/8 of the server's
// 256), so relays alone never fill the connection table.
constexpr unsigned RELAY_POOL_QUEUE = 128;
constexpr unsigned RELAY_POOL_IDLE_SECONDS = 2;

// One request to relay. Exactly one of run and refuse is called, once, on
// a worker (run, refuse while stopping) or on the submitting thread (refuse
// when the pool has no room); the job is destroyed right after.
class relay_job {
public:
    virtual ~relay_job() = default;
    virtual void run() = 0;
    virtual void refuse() = 0;
};

// Accepts jobs from now on.
void relay_pool_start();

// Hands the job to a worker. When every worker is busy and the queue is
// full, or the pool is stopped, the job is refused at once on the calling
// thread instead.
void relay_pool_submit(std::unique_ptr<relay_job> job);

// Stops accepting jobs, refuses the ones still waiting, waits until the
// running ones are done and every worker has ended.
void relay_pool_stop();

// Worker threads alive right now (for tests and benchmarks).
unsigned relay_pool_worker_count();

#endif
