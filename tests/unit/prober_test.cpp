// Unit tests of the reachability prober: the reply before any check, a
// service that moves to another address, and the prober running against
// registry churn from several threads (the ThreadSanitizer build runs this
// binary too).
#include "monitor/prober.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "probe_listeners.h"
#include "registry_test_support.h"

namespace {

constexpr auto POLL_STEP = std::chrono::milliseconds(10);
constexpr auto POLL_LIMIT = std::chrono::seconds(10);

// The reply's item for `name` as JSON text ("" when absent).
std::string item_of(const std::string& name) {
    json_object* reply = json_tokener_parse(prober_reachability_reply().c_str());
    std::string found;
    json_object* items = json_object_object_get(reply, "items");
    for (std::size_t i = 0; i < json_object_array_length(items); ++i) {
        json_object* item = json_object_array_get_idx(items, i);
        if (name == json_object_get_string(json_object_object_get(item, "name"))) {
            found = json_object_to_json_string(item);
        }
    }
    json_object_put(reply);
    return found;
}

bool reachable_is(const std::string& name, const char* value) {
    return item_of(name).find(std::string("\"reachable\": ") + value) != std::string::npos;
}

bool eventually(const std::string& name, const char* value) {
    auto end = std::chrono::steady_clock::now() + POLL_LIMIT;
    while (!reachable_is(name, value) && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(POLL_STEP);
    }
    return reachable_is(name, value);
}

class prober_test : public registry_test {
protected:
    void TearDown() override {
        prober_stop();
        registry_test::TearDown();
    }
};

TEST_F(prober_test, BeforeAnyCheckEveryFindingIsNull) {
    svc_info_add("b", make_info("10.0.0.2", 2));
    svc_info_add("a", make_info("name.example", 1));
    EXPECT_EQ(prober_reachability_reply(),
              R"({ "return": 0, "period": 0, "items": [ )"
              R"({ "name": "a", "ip": "name.example", "port": 1, "reachable": null, )"
              R"("checked": null, "since": null, "latency_ms": null, "failures": 0, "error": "" }, )"
              R"({ "name": "b", "ip": "10.0.0.2", "port": 2, "reachable": null, )"
              R"("checked": null, "since": null, "latency_ms": null, "failures": 0, "error": "" } ] })");
}

TEST_F(prober_test, AMovedServiceIsJudgedAtItsNewAddressOnly) {
    loopback_port up(AF_INET, true);
    loopback_port closed(AF_INET, false);
    svc_info_add("moving", make_info("127.0.0.1", closed.port()));
    ASSERT_TRUE(prober_start(1));
    ASSERT_TRUE(eventually("moving", "false"));
    svc_info_add("moving", make_info("127.0.0.1", up.port()));
    EXPECT_TRUE(reachable_is("moving", "null") || reachable_is("moving", "true"));
    EXPECT_TRUE(eventually("moving", "true"));
}

// Writers add, move and remove services while the prober checks them and
// readers build replies; at the end only what stays registered is listed.
TEST_F(prober_test, RegistryChurnWhileProbing) {
    loopback_port up(AF_INET, true, 512);
    loopback_port closed(AF_INET, false);
    svc_info_add("steady", make_info("127.0.0.1", up.port()));
    ASSERT_TRUE(prober_start(1));
    std::atomic<bool> writing{true};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 2; ++writer) {
        threads.emplace_back([&, writer] {
            for (int i = 0; i < 300; ++i) {
                std::string name = "churn" + std::to_string(writer) + "_" + std::to_string(i % 7);
                int port = i % 2 == 0 ? up.port() : closed.port();
                i % 3 == 2 ? svc_info_delete(name) : svc_info_add(name, make_info("127.0.0.1", port));
            }
        });
    }
    threads.emplace_back([&] {
        while (writing.load()) {
            EXPECT_FALSE(prober_reachability_reply().empty());
        }
    });
    for (int writer = 0; writer < 2; ++writer) {
        threads[writer].join();
    }
    writing.store(false);
    threads.back().join();
    svc_info_entry_list entries;
    svc_info_list(entries);
    for (const auto& entry : entries) {
        if (entry->name != "steady") {
            svc_info_delete(entry->name);
        }
    }
    EXPECT_TRUE(eventually("steady", "true"));
    EXPECT_EQ(item_of("churn0_0"), "");
    prober_stop();
    EXPECT_TRUE(reachable_is("steady", "true"));
}

}  // namespace
