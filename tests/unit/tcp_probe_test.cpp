// tcp_probe_test.cpp - the parallel connect checks against loopback peers:
// every kind of outcome whatever the window, every socket closed again,
// and the stop descriptor.
#include "monitor/tcp_probe.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <vector>

#include "probe_listeners.h"

namespace {

std::size_t open_descriptors() {
    std::size_t count = 0;
    DIR* fds = opendir("/proc/self/fd");
    while (readdir(fds) != nullptr) {
        ++count;
    }
    closedir(fds);
    return count;
}

TEST(ProbeTargets, EveryOutcomeWhateverTheWindow) {
    loopback_port up4(AF_INET, 16), up6(AF_INET6, 16), closed(AF_INET, -1), silent(AF_INET, 0, true);
    const std::vector<std::tuple<std::string, int, const char*>> cases = {
        {"127.0.0.1", up4.port(), ""},
        {"::1", up6.port(), ""},
        {"127.0.0.1", closed.port(), "connection refused"},
        {"127.0.0.1", silent.port(), PROBE_TIMED_OUT},
        {"localhost", up4.port(), PROBE_NOT_NUMERIC},
        {"127.1", up4.port(), PROBE_NOT_NUMERIC},
        {"::1%lo", up6.port(), PROBE_NOT_NUMERIC},
        {"127.0.0.1", 0, PROBE_INVALID_PORT},
        {"127.0.0.1", 65536, PROBE_INVALID_PORT},
    };
    std::vector<probe_target> targets;
    for (const auto& [ip, port, error] : cases) {
        targets.push_back({ip, port});
    }
    const std::size_t descriptors = open_descriptors();
    for (std::size_t window : {std::size_t{1}, cases.size()}) {
        std::vector<probe_result> results;
        ASSERT_TRUE(probe_targets(targets, {300, window}, -1, results));
        for (std::size_t i = 0; i < cases.size(); ++i) {
            SCOPED_TRACE(targets[i].ip + " " + std::to_string(targets[i].port));
            EXPECT_STREQ(std::get<2>(cases[i]), results[i].error);
            EXPECT_EQ(*results[i].error == '\0', results[i].reachable);
        }
        EXPECT_EQ(descriptors, open_descriptors());
    }
}

TEST(ProbeTargets, AReadableStopDescriptorEndsTheRound) {
    loopback_port silent(AF_INET, 0, true);
    int wake[2];
    ASSERT_EQ(0, pipe(wake));
    ASSERT_EQ(1, write(wake[1], "x", 1));
    std::vector<probe_result> results;
    EXPECT_FALSE(probe_targets({{"127.0.0.1", silent.port()}}, {3600 * 1000, 4}, wake[0], results));
    close(wake[0]);
    close(wake[1]);
}

}  // namespace
