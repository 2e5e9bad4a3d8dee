// Tests of the relay pool: how many jobs run and wait at once, what is
// refused and where, idle workers ending, and stopping with jobs in flight.
#include "platform/relay_pool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace {

// Generous bound for anything that should happen at once.
constexpr auto PATIENCE = std::chrono::seconds(30);

// Jobs that wait at a gate, and what became of them.
struct gate {
    std::mutex lock;
    std::condition_variable changed;
    bool open = false;
    unsigned running = 0;
    unsigned finished = 0;
    unsigned refused = 0;
    unsigned refused_on_submitter = 0;
    std::thread::id submitter = std::this_thread::get_id();

    template <typename Condition>
    bool wait_until(Condition condition) {
        std::unique_lock<std::mutex> hold(lock);
        return changed.wait_for(hold, PATIENCE, condition);
    }
    unsigned count(const unsigned gate::*member) {
        std::lock_guard<std::mutex> hold(lock);
        return this->*member;
    }
    void let_go() {
        std::lock_guard<std::mutex> hold(lock);
        open = true;
        changed.notify_all();
    }
};

class gated_job : public relay_job {
public:
    explicit gated_job(gate& g) : g(g) {}
    void run() override {
        std::unique_lock<std::mutex> hold(g.lock);
        ++g.running;
        g.changed.notify_all();
        g.changed.wait(hold, [this] { return g.open; });
        ++g.finished;
        g.changed.notify_all();
    }
    void refuse() override {
        std::lock_guard<std::mutex> hold(g.lock);
        ++g.refused;
        g.refused_on_submitter += std::this_thread::get_id() == g.submitter;
        g.changed.notify_all();
    }

private:
    gate& g;
};

void submit(gate& g, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        relay_pool_submit(std::make_unique<gated_job>(g));
    }
}

TEST(RelayPool, RunsAtMostItsWorkersAndQueuesAtMostItsQueue) {
    constexpr unsigned BEYOND = 3;
    gate g;
    relay_pool_start();
    submit(g, RELAY_POOL_WORKERS + RELAY_POOL_QUEUE + BEYOND);
    ASSERT_TRUE(g.wait_until([&] { return g.running == RELAY_POOL_WORKERS; }));
    {
        std::lock_guard<std::mutex> hold(g.lock);
        EXPECT_EQ(g.refused, BEYOND);
        EXPECT_EQ(g.refused_on_submitter, BEYOND);
    }
    EXPECT_EQ(relay_pool_worker_count(), RELAY_POOL_WORKERS);
    g.let_go();
    ASSERT_TRUE(g.wait_until(
        [&] { return g.finished == RELAY_POOL_WORKERS + RELAY_POOL_QUEUE; }));
    EXPECT_EQ(g.refused, BEYOND);
    // Idle workers end on their own.
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (relay_pool_worker_count() != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(relay_pool_worker_count(), 0u);
    relay_pool_stop();
}

TEST(RelayPool, StopLetsRunningJobsEndAndRefusesTheWaitingOnes) {
    constexpr unsigned WAITING = 10;
    gate g;
    relay_pool_start();
    submit(g, RELAY_POOL_WORKERS + WAITING);
    ASSERT_TRUE(g.wait_until([&] { return g.running == RELAY_POOL_WORKERS; }));
    std::thread stopper(relay_pool_stop);
    // Jobs submitted until the stop has begun wait; the first one after it
    // is refused at once, on this thread.
    unsigned probes = 0;
    while (g.count(&gate::refused_on_submitter) == 0 && probes < RELAY_POOL_QUEUE - WAITING) {
        submit(g, 1);
        ++probes;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    g.let_go();
    stopper.join();
    EXPECT_EQ(g.finished, RELAY_POOL_WORKERS);
    EXPECT_EQ(g.refused_on_submitter, 1u);
    EXPECT_EQ(g.refused, WAITING + probes);
    EXPECT_EQ(g.running, RELAY_POOL_WORKERS);
    EXPECT_EQ(relay_pool_worker_count(), 0u);
}

}  // namespace
