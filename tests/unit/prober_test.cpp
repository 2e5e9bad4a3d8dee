// prober_test.cpp - reachability: the parallel connect checks against
// loopback peers (every outcome whatever the window, the stop descriptor),
// and the prober's reply, window under the descriptor limit and findings.
// Runs in the sandbox: registering writes the registry file.
#include "monitor/prober.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "monitor/tcp_probe.h"
#include "registry/svc_info_map.h"

namespace {

// A loopback port that listens with `backlog`, or refuses connects when it
// is negative; `silent` takes the one place of a backlog of 0, so that a
// connect neither completes nor fails until given up.
struct loopback_port {
    int fd, filler = -1, port = 0;
    loopback_port(int family, int backlog, bool silent = false) : fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in6 address{};  // an IPv4 address has its port at the same place
        address.sin6_family = static_cast<sa_family_t>(family);
        inet_pton(family, family == AF_INET ? "127.0.0.1" : "::1",
                  family == AF_INET ? static_cast<void*>(&reinterpret_cast<sockaddr_in*>(&address)->sin_addr)
                                    : static_cast<void*>(&address.sin6_addr));
        socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof address;
        sockaddr* any = reinterpret_cast<sockaddr*>(&address);
        bind(fd, any, length), getsockname(fd, any, &length), port = ntohs(address.sin6_port);
        backlog >= 0 ? listen(fd, backlog) : 0;
        filler = silent ? socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
        EXPECT_TRUE(port > 0 && (!silent || connect(filler, any, length) == 0));
    }
    ~loopback_port() { close(fd), close(filler); }
};

TEST(ProbeTargets, EveryOutcomeWhateverTheWindow) {
    loopback_port up4(AF_INET, 16), up6(AF_INET6, 16), closed(AF_INET, -1), silent(AF_INET, 0, true);
    const std::vector<probe_target> targets = {
        {"127.0.0.1", up4.port}, {"::1", up6.port}, {"127.0.0.1", closed.port}, {"127.0.0.1", silent.port},
        {"localhost", up4.port}, {"127.1", up4.port}, {"::1%lo", up6.port}, {"127.0.0.1", 0}, {"127.0.0.1", 65536},
    };
    const char* const errors[] = {"", "", "connection refused", PROBE_TIMED_OUT, PROBE_NOT_NUMERIC, PROBE_NOT_NUMERIC,
                                  PROBE_NOT_NUMERIC, PROBE_INVALID_PORT, PROBE_INVALID_PORT};
    // Sockets kept from checks of every outcome serve the next checks (the
    // list again, backwards): each gives its own true outcome.
    probe_sockets kept;
    for (std::size_t window : {std::size_t{1}, targets.size()}) {
        for (bool backwards : {false, true}) {
            std::vector<probe_result> results;
            const std::vector<probe_target> order(targets.rbegin(), targets.rend());
            ASSERT_TRUE(probe_targets(backwards ? order : targets, {300, window}, -1, results, &kept));
            for (std::size_t at = 0; at < targets.size(); ++at) {
                const std::size_t i = backwards ? targets.size() - 1 - at : at;
                EXPECT_STREQ(errors[i], results[at].error) << targets[i].ip << " " << targets[i].port;
                EXPECT_EQ(*results[at].error == '\0', results[at].reachable) << targets[i].ip;
            }
        }
    }
    int wake[2];
    ASSERT_EQ(0, pipe(wake));
    ASSERT_EQ(1, write(wake[1], "x", 1));
    std::vector<probe_result> results;
    EXPECT_FALSE(probe_targets({{"127.0.0.1", silent.port}}, {3600 * 1000, 4}, wake[0], results));
    close(wake[0]), close(wake[1]);
}

// A member of the reply's item for `name`, as JSON text.
std::string finding(const std::string& name, const char* member) {
    json_object* reply = json_tokener_parse(prober_reachability_reply().c_str());
    json_object* items = json_object_object_get(reply, "items");
    std::string text = "no item";
    for (std::size_t i = 0; i < json_object_array_length(items); ++i) {
        json_object* item = json_object_array_get_idx(items, i);
        if (name == json_object_get_string(json_object_object_get(item, "name"))) {
            text = json_object_to_json_string(json_object_object_get(item, member));
        }
    }
    json_object_put(reply);
    return text;
}

// Polls until the member shows `value`, for a few periods at most.
bool becomes(const std::string& name, const char* member, const std::string& value) {
    for (int poll = 0; poll < 1000 && finding(name, member) != value; ++poll) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return finding(name, member) == value;
}

// Before the prober ever started: period 0 and no finding.
TEST(Prober, BeforeAnyCheckEveryFindingIsNull) {
    svc_info_add("a", svc_info{"127.0.0.1", 1});
    EXPECT_EQ(R"({ "return": 0, "period": 0, "items": [ { "name": "a", "ip": "127.0.0.1", "port": 1, )"
              R"("reachable": null, "checked": null, "since": null, "latency_ms": null, "failures": 0, "error": "" } ] })",
              prober_reachability_reply());
    svc_info_delete("a");
}

// With a quarter of the descriptor limit below the least window of 8, the
// prober keeps 8 connects in flight: as many as there are descriptors left.
TEST(Prober, FindingsOfRoundsWithinTheDescriptorLimit) {
    loopback_port up(AF_INET, 64), closed(AF_INET, -1);
    int used = 0;
    for (int fd = 0; fd < 64; ++fd) {
        used += fcntl(fd, F_GETFD) != -1;
    }
    rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    const rlimit lowered = {static_cast<rlim_t>(used + 2 + 8), saved.rlim_max};  // 2: the prober's wake-up pipe
    ASSERT_LT(lowered.rlim_cur, 32u) << "too many descriptors open already";
    for (int service = 0; service < 9; ++service) {
        svc_info_add("up" + std::to_string(service), svc_info{"127.0.0.1", up.port});
    }
    svc_info_add("down", svc_info{"127.0.0.1", closed.port});
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lowered));
    ASSERT_TRUE(prober_start(1));
    EXPECT_TRUE(becomes("down", "failures", "1"));
    for (int service = 0; service < 9; ++service) {
        EXPECT_EQ("true 0", finding("up" + std::to_string(service), "reachable") + " " +
                                finding("up" + std::to_string(service), "failures"));
    }
    const std::string since = finding("down", "since");
    EXPECT_TRUE(becomes("down", "failures", "2"));
    EXPECT_EQ(since + " false", finding("down", "since") + " " + finding("down", "reachable"));
    prober_stop();
    setrlimit(RLIMIT_NOFILE, &saved);
}

}  // namespace
