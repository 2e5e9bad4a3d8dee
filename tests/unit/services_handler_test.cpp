// Unit tests of the service-control resource: the action table, and the
// replies to bodies that must run nothing. (Recognised methods, which start
// scripts, are tested against the real daemon in tests/blackbox.)
#include "control/services_handler.h"

#include <gtest/gtest.h>

#include <string>

#include "endpoints/ssci_response.h"
#include "platform/httpserver.h"

namespace {

struct action_case {
    const char* method;
    const char* script;
    const char* verb;
};

TEST(ServiceActions, EachMethodSelectsItsScriptAndVerb) {
    const action_case cases[] = {
        {"start", "/etc/init.d/services.sh", "start"},
        {"stop", "/etc/init.d/services.sh", "stop"},
        {"restart", "/etc/init.d/services.sh", "restart"},
        {"fdr_restart", "/etc/init.d/fdr_services.sh", "restart"},
    };
    for (const action_case& c : cases) {
        const service_action* action = find_service_action(c.method);
        ASSERT_NE(action, nullptr) << c.method;
        EXPECT_STREQ(action->method, c.method);
        EXPECT_STREQ(action->script, c.script);
        EXPECT_STREQ(action->verb, c.verb);
    }
}

TEST(ServiceActions, OnlyExactMethodsMatch) {
    const char* near_misses[] = {"",       "Start",    "START",   "start ", " start",
                                 "start\n", "sta",     "starts",  "fdr_restar",
                                 "fdr_",   "Restart", "stop\t",  "fdr_restart "};
    for (const char* method : near_misses) {
        EXPECT_EQ(find_service_action(method), nullptr) << "[" << method << "]";
    }
}

std::string post_body(const std::string& content) {
    httpserver::http_request request("POST", "/managerService/services", {}, {}, content);
    std::shared_ptr<httpserver::http_response> reply = proc_services_post(request);
    EXPECT_EQ(reply->get_response_code(), 200);
    EXPECT_EQ(reply->get_header("Content-Type"), "application/json");
    return static_cast<ssci_response&>(*reply).body;
}

TEST(ServicesPost, BodiesWithoutARecognisedMethodRunNothing) {
    const char* bodies[] = {
        "",
        "not json",
        "{",
        "[\"start\"]",
        "\"start\"",
        "{}",
        R"({"method": 1})",
        R"({"method": null})",
        R"({"method": ["start"]})",
        R"({"method": {"start": 1}})",
        R"({"method": "START"})",
        R"({"method": "start "})",
        R"({"method": ""})",
        R"({"method": "startstartstartstartstartstartstart"})",
        R"({"Method": "start"})",
    };
    for (const char* body : bodies) {
        EXPECT_EQ(post_body(body), R"({ "return": -1 })") << body;
    }
}

}  // namespace
