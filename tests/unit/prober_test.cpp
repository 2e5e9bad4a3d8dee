// prober_test.cpp - the reachability prober: its reply before any check,
// the window of connects it allows itself under the descriptor limit, and
// the findings it keeps (reachable, failures in a row, since). Runs in the
// sandbox: registering a service writes the registry file.
#include "monitor/prober.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/resource.h>

#include <chrono>
#include <thread>

#include "probe_listeners.h"
#include "registry/svc_info_map.h"

namespace {

svc_info at_port(int port) {
    svc_info info;
    info.ip = "127.0.0.1";
    info.port = port;
    return info;
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

// Polls until the member shows `value`; a few periods at most.
bool becomes(const std::string& name, const char* member, const std::string& value) {
    for (int poll = 0; poll < 1000 && finding(name, member) != value; ++poll) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return finding(name, member) == value;
}

TEST(Prober, BeforeAnyCheckEveryFindingIsNull) {
    svc_info_add("a", at_port(1));
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
    const int wake_pipe = 2;
    rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    const rlimit lowered = {static_cast<rlim_t>(used + wake_pipe + 8), saved.rlim_max};
    ASSERT_LT(lowered.rlim_cur, 32u) << "too many descriptors open already";
    for (int service = 0; service < 9; ++service) {
        svc_info_add("up" + std::to_string(service), at_port(up.port()));
    }
    svc_info_add("down", at_port(closed.port()));
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lowered));
    ASSERT_TRUE(prober_start(1));
    EXPECT_TRUE(becomes("down", "failures", "1"));
    for (int service = 0; service < 9; ++service) {
        EXPECT_EQ("true", finding("up" + std::to_string(service), "reachable")) << service;
        EXPECT_EQ("0", finding("up" + std::to_string(service), "failures")) << service;
    }
    const std::string since = finding("down", "since");
    EXPECT_TRUE(becomes("down", "failures", "2"));
    EXPECT_EQ(since, finding("down", "since"));
    EXPECT_EQ("false", finding("down", "reachable"));
    prober_stop();
    setrlimit(RLIMIT_NOFILE, &saved);
}

}  // namespace
