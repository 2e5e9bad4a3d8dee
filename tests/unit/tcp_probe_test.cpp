// Unit tests of the parallel connect checks against loopback peers: every
// kind of outcome in one call, the window of connects in flight, and the
// stop descriptor.
#include "monitor/tcp_probe.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "probe_listeners.h"

namespace {

constexpr int SHORT_TIMEOUT_MS = 300;

struct probe_case {
    std::string ip;
    int port;
    bool reachable;
    std::string error;
};

std::vector<probe_case> every_outcome(const loopback_port& up4, const loopback_port& up6,
                                      const loopback_port& closed, const silent_port& silent) {
    return {
        {"127.0.0.1", up4.port(), true, ""},
        {"::1", up6.port(), true, ""},
        {"127.0.0.1", closed.port(), false, "connection refused"},
        {"127.0.0.1", silent.port(), false, PROBE_TIMED_OUT},
        // Refused by the local stack at once (Linux TCP never connects to a
        // broadcast address): no packet leaves the machine.
        {"255.255.255.255", up4.port(), false, "network unreachable"},
        {"localhost", up4.port(), false, PROBE_NOT_NUMERIC},
        {"", up4.port(), false, PROBE_NOT_NUMERIC},
        {"127.1", up4.port(), false, PROBE_NOT_NUMERIC},
        {"127.0.0.1 ", up4.port(), false, PROBE_NOT_NUMERIC},
        {"::1%lo", up6.port(), false, PROBE_NOT_NUMERIC},
        {"127.0.0.1", 0, false, PROBE_INVALID_PORT},
        {"127.0.0.1", -1, false, PROBE_INVALID_PORT},
        {"127.0.0.1", 65536, false, PROBE_INVALID_PORT},
    };
}

std::size_t open_descriptors() {
    std::size_t count = 0;
    DIR* fds = opendir("/proc/self/fd");
    while (readdir(fds) != nullptr) {
        ++count;
    }
    closedir(fds);
    return count;
}

// Every outcome as expected, and every socket closed again unless kept.
void expect_outcomes(const std::vector<probe_case>& cases, std::size_t window,
                     probe_sockets* kept = nullptr) {
    const std::size_t descriptors = open_descriptors();
    std::vector<probe_target> targets;
    for (const probe_case& c : cases) {
        targets.push_back({c.ip, c.port});
    }
    std::vector<probe_result> results;
    ASSERT_TRUE(probe_targets(targets, {SHORT_TIMEOUT_MS, window}, -1, results, kept));
    ASSERT_EQ(results.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("[" + cases[i].ip + "]:" + std::to_string(cases[i].port));
        EXPECT_EQ(results[i].reachable, cases[i].reachable);
        EXPECT_EQ(results[i].error, cases[i].error);
        EXPECT_GE(results[i].latency_ms, 0);
        if (!cases[i].reachable) {
            EXPECT_EQ(results[i].latency_ms, 0);
        }
    }
    if (kept == nullptr) {
        EXPECT_EQ(open_descriptors(), descriptors);
    }
}

TEST(ProbeTargets, EveryOutcomeWhateverTheWindow) {
    loopback_port up4(AF_INET, true);
    loopback_port up6(AF_INET6, true);
    loopback_port closed(AF_INET, false);
    silent_port silent;
    std::vector<probe_case> cases = every_outcome(up4, up6, closed, silent);
    for (std::size_t window : {std::size_t{1}, std::size_t{2}, cases.size()}) {
        SCOPED_TRACE("window " + std::to_string(window));
        expect_outcomes(cases, window);
    }
}

// A socket kept from a check, whatever its outcome, gives the next check
// its own true outcome: the lists run forwards and backwards through one
// socket per family, then through as many as there are checks.
TEST(ProbeTargets, KeptSocketsGiveEveryOutcomeAgain) {
    loopback_port up4(AF_INET, true);
    loopback_port up6(AF_INET6, true);
    loopback_port closed(AF_INET, false);
    silent_port silent;
    std::vector<probe_case> cases = every_outcome(up4, up6, closed, silent);
    probe_sockets kept;
    for (std::size_t window : {std::size_t{1}, cases.size()}) {
        SCOPED_TRACE("window " + std::to_string(window));
        expect_outcomes(cases, window, &kept);
        expect_outcomes({cases.rbegin(), cases.rend()}, window, &kept);
    }
}

TEST(ProbeTargets, NoTargetsIsAFinishedRound) {
    std::vector<probe_result> results(3);
    EXPECT_TRUE(probe_targets({}, {SHORT_TIMEOUT_MS, 4}, -1, results));
    EXPECT_TRUE(results.empty());
}

TEST(ProbeTargets, AReadableStopDescriptorEndsTheRound) {
    silent_port silent;
    int wake[2];
    ASSERT_EQ(pipe(wake), 0);
    ASSERT_EQ(write(wake[1], "x", 1), 1);
    std::vector<probe_result> results;
    const int hour_ms = 3600 * 1000;
    EXPECT_FALSE(probe_targets({{"127.0.0.1", silent.port()}}, {hour_ms, 4}, wake[0], results));
    close(wake[0]);
    close(wake[1]);
}

}  // namespace
