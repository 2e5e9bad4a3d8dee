// prober_test.cpp - reachability: the HTTP-level checks against loopback peers (every outcome, IPv6 too, each result
// handed over once, the stop descriptor), the prober's reply before its first check, its counts, and a
// move starting afresh. Runs in the sandbox: registering writes the registry file.
#include "monitor/prober.h"

#include <gtest/gtest.h>

#include "registry/svc_info_map.h"
#include "tests/unit/unit_support.h"

namespace {

TEST(ProbeTargets, EveryOutcomeOfAnHttpCheckHandedOverOnce) {
    loopback_peer answering, not_http, closing, hung, closed(false);
    answering.serve("HTTP/1.1 501 Not Implemented\r\nContent-Length: 0\r\n\r\n");
    not_http.serve("SSH-2.0-OpenSSH\r\n");
    closing.serve("");
    const std::vector<probe_target> targets = {
        {"localhost.", answering.port}, {"127.0.0.1", not_http.port}, {"127.0.0.1", closing.port},
        {"127.0.0.1", hung.port}, {"127.0.0.1", closed.port}, {"127.1", answering.port},
        {"localhost6", answering.port}, {"127.0.0.1", 0}, {"127.0.0.1", 65536}, {"::1", closed.port},
    };
    const char* const expected[] = {
        "up 501 ", "no answer 0 not an HTTP status line", "no answer 0 closed without a status line",
        "no answer 0 no status line in time", "down 0 connection refused", "down 0 not a numeric address",
        "down 0 not a numeric address", "down 0 invalid port", "down 0 invalid port",
        "down 0 connection refused",
    };
    // Each hand-over appends to the target's text: a second one shows there.
    std::vector<std::string> found(targets.size());
    ASSERT_TRUE(probe_targets(targets, 300, -1, [&](std::size_t index, const probe_result& result) {
        EXPECT_EQ(result.state == probe_state::up, result.latency_ms > 0);
        found.at(index) += std::string(probe_state_name(result.state)) + " " +
                           std::to_string(result.http_status) + " " + result.error;
    }));
    for (std::size_t i = 0; i < targets.size(); ++i) {
        EXPECT_EQ(expected[i], found[i]) << targets[i].ip << ":" << targets[i].port;
    }
    // A byte on the stop descriptor ends the checks at once, with no result handed over.
    int wake[2];
    ASSERT_EQ(0, pipe(wake));
    ASSERT_EQ(1, write(wake[1], "x", 1));
    EXPECT_FALSE(probe_targets({{"127.0.0.1", hung.port}}, 3600 * 1000, wake[0],
                               [](std::size_t, const probe_result&) { ADD_FAILURE() << "handed over"; }));
    close(wake[0]), close(wake[1]);
}

// Before the prober ever started: period 0 and no finding. Checks by state
// and failures in a row are counted; a move starts the findings afresh.
TEST(Prober, ReplyBeforeTheFirstCheckCountsAndAMove) {
    svc_info_add("a", svc_info{"127.0.0.1", 1});
    EXPECT_EQ(R"({ "return": 0, "index": 0, "version": "1.0.0", "started": null, "period": 0, "items": [ )"
              R"({ "name": "a", "ip": "127.0.0.1", "port": 1, "reachable": null, "state": null, "http_status": null, )"
              R"("checked": null, "since": null, "latency_ms": null, "failures": 0, "error": "", "checks": 0, )"
              R"("up_checks": 0, "recent": "" } ] })", prober_reachability_reply());
    loopback_peer up, closed(false);
    up.serve("HTTP/1.0 200 OK\r\n\r\n");
    svc_info_add("a", svc_info{"127.0.0.1", closed.port});
    ASSERT_TRUE(prober_start(1));
    const auto reply_has = [](const std::string& members) {
        return poll_until([&] { return prober_reachability_reply().find(members) != std::string::npos; });
    };
    EXPECT_TRUE(reply_has(R"("failures": 2, "error": "connection refused", "checks": 2, "up_checks": 0, )"
                          R"("recent": "dd" })"));
    svc_info_add("a", svc_info{"127.0.0.1", up.port});
    EXPECT_TRUE(reply_has(R"("failures": 0, "error": "", "checks": 1, "up_checks": 1, "recent": "u" })"));
    prober_stop();
}

}  // namespace
