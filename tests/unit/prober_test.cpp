// prober_test.cpp - reachability: the HTTP-level checks against loopback peers (every outcome, each result
// handed over once and as soon as it is known, "localhost", the stop descriptor), and the prober's reply and
// findings (counts, recent results, events). Runs in the sandbox: registering writes the registry file.
#include "monitor/prober.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>

#include "monitor/reach_events.h"
#include "registry/svc_info_map.h"
#include "tests/unit/unit_support.h"

namespace {

TEST(ProbeTargets, EveryOutcomeOfAnHttpCheck) {
    loopback_peer answering, not_http, closing, hung, closed(false);
    answering.serve("HTTP/1.1 501 Not Implemented\r\nContent-Length: 0\r\n\r\n");
    not_http.serve("SSH-2.0-OpenSSH\r\n");
    closing.serve("");
    const std::vector<probe_target> targets = {
        {"127.0.0.1", answering.port}, {"localhost", answering.port}, {"localhost.", answering.port},
        {"127.0.0.1", not_http.port}, {"127.0.0.1", closing.port}, {"127.0.0.1", hung.port},
        {"127.0.0.1", closed.port}, {"127.1", answering.port}, {"localhost6", answering.port},
        {"127.0.0.1", 0}, {"127.0.0.1", 65536},
    };
    const char* const expected[] = {
        "up 501 ", "up 501 ", "up 501 ", "no answer 0 not an HTTP status line",
        "no answer 0 closed without a status line", "no answer 0 no status line in time",
        "down 0 connection refused", "down 0 not a numeric address", "down 0 not a numeric address",
        "down 0 invalid port", "down 0 invalid port",
    };
    // Each result is handed over once, as soon as it is known: the hung
    // service's, which only its time limit ends, comes last.
    std::vector<probe_result> results(targets.size());
    std::vector<std::size_t> order;
    const probe_done note = [&](std::size_t index, const probe_result& result) {
        results.at(index) = result;
        order.push_back(index);
    };
    ASSERT_TRUE(probe_targets(targets, 300, -1, note));
    ASSERT_EQ(targets.size(), order.size());
    EXPECT_EQ(5u, order.back());
    std::sort(order.begin(), order.end());
    EXPECT_EQ(targets.size(), std::unique(order.begin(), order.end()) - order.begin());
    for (std::size_t i = 0; i < targets.size(); ++i) {
        EXPECT_EQ(expected[i], std::string(probe_state_name(results[i].state)) + " " +
                                   std::to_string(results[i].http_status) + " " + results[i].error)
            << targets[i].ip << ":" << targets[i].port;
        EXPECT_EQ(results[i].state == probe_state::up, results[i].latency_ms > 0);
    }
    int wake[2];
    ASSERT_EQ(0, pipe(wake));
    ASSERT_EQ(1, write(wake[1], "x", 1));
    order.clear();
    EXPECT_FALSE(probe_targets({{"127.0.0.1", hung.port}}, 3600 * 1000, wake[0], note));
    EXPECT_TRUE(order.empty());
    close(wake[0]), close(wake[1]);
}

// Members of the reply's item for `name` (or of the reply itself for ""), as JSON texts after a space each.
std::string finding(const std::string& name, std::initializer_list<const char*> members) {
    json_object* reply = json_tokener_parse(prober_reachability_reply().c_str());
    json_object* items = json_object_object_get(reply, "items");
    json_object* found = name.empty() ? reply : nullptr;
    for (std::size_t i = 0; i < json_object_array_length(items); ++i) {
        json_object* item = json_object_array_get_idx(items, i);
        if (name == json_object_get_string(json_object_object_get(item, "name"))) {
            found = item;
        }
    }
    std::string text = found == nullptr ? " no item" : "";
    for (const char* member : members) {
        text += std::string(" ") + json_object_to_json_string(json_object_object_get(found, member));
    }
    json_object_put(reply);
    return text;
}

bool becomes(const std::string& name, const char* member, const std::string& value) {
    return poll_until([&] { return finding(name, {member}) == " " + value; });
}

// Before the prober ever started: period 0 and no finding. Checks are
// counted and kept per address; a move starts afresh and is one event.
TEST(Prober, CountsRecentResultsAndEvents) {
    svc_info_add("a", svc_info{"127.0.0.1", 1});
    EXPECT_EQ(R"({ "return": 0, "index": 0, "version": "1.0.0", "started": null, "period": 0, "items": [ )"
              R"({ "name": "a", "ip": "127.0.0.1", "port": 1, "reachable": null, "state": null, "http_status": null, )"
              R"("checked": null, "since": null, "latency_ms": null, "failures": 0, "error": "", "checks": 0, )"
              R"("up_checks": 0, "recent": "" } ] })", prober_reachability_reply());
    svc_info_delete("a");
    loopback_peer up, closed(false);
    up.serve("HTTP/1.0 200 OK\r\n\r\n");
    svc_info_add("up", svc_info{"127.0.0.1", up.port});
    svc_info_add("down", svc_info{"127.0.0.1", closed.port});
    ASSERT_TRUE(prober_start(1));
    EXPECT_TRUE(becomes("up", "checks", "2"));
    EXPECT_EQ(R"( "uu" 2 200 "up" true)", finding("up", {"recent", "up_checks", "http_status", "state", "reachable"}));
    EXPECT_TRUE(becomes("down", "recent", R"("dd")"));
    EXPECT_EQ(R"( 0 2 "connection refused" null)", finding("down", {"up_checks", "failures", "error", "latency_ms"}));
    const std::string index = finding("", {"index"});
    svc_info_add("down", svc_info{"127.0.0.1", up.port});
    EXPECT_TRUE(becomes("down", "state", R"("up")"));
    EXPECT_EQ(R"( "u")", finding("down", {"recent"}));
    EXPECT_NE(index, finding("", {"index"}));
    const std::string events = reach_events_reply();
    EXPECT_NE(std::string::npos, events.find(R"("name": "down", "event": "moved", "from": null, "to": null, )"
                                             R"("detail": "127.0.0.1:)" + std::to_string(closed.port) +
                                             " -> 127.0.0.1:" + std::to_string(up.port) + "\""))
        << events;
    EXPECT_NE(std::string::npos, events.find(R"("event": "started")")) << events;
    prober_stop();
    svc_info_delete("up"), svc_info_delete("down");
}

}  // namespace
