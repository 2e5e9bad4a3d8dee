// Unit tests of the control-run log: what the black-box tests of service
// control cannot reach (a run with no status, texts cut to their buffers)
// and the bound on what is kept.
#include "control/control_runs.h"

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/wait.h>

#include <string>

namespace {

struct reply_items {
    reply_items() : reply(json_tokener_parse(control_runs_reply().c_str())) {}
    ~reply_items() { json_object_put(reply); }
    std::size_t size() const { return json_object_array_length(items()); }
    json_object* items() const { return json_object_object_get(reply, "items"); }
    std::string member(std::size_t index, const char* name) const {
        json_object* value = json_object_object_get(json_object_array_get_idx(items(), index), name);
        return value == nullptr ? "null" : json_object_get_string(value);
    }
    json_object* reply;
};

// The log is process-wide and never emptied, so this one test drives it
// from the empty start: outcomes first, then the bound.
TEST(ControlRuns, OutcomesNewestFirstAndOnlyTheLastKept) {
    EXPECT_EQ(control_runs_reply(), R"({ "return": 0, "items": [ ] })");
    unsigned long long unknown = control_run_begin("restart", "x");
    unsigned long long running = control_run_begin(std::string(40, 'm').c_str(),
                                                   std::string(300, 'c').c_str());
    control_run_ended_without_status(unknown);
    const struct {
        std::string method, command, ended, exit_status, signal;
    } expected[] = {
        {std::string(31, 'm'), std::string(255, 'c'), "null", "null", "null"},
        {"restart", "x", "time", "null", "null"},
    };
    reply_items shown;
    ASSERT_EQ(shown.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(shown.member(i, "method"), expected[i].method);
        EXPECT_EQ(shown.member(i, "command"), expected[i].command);
        EXPECT_NE(shown.member(i, "started"), "null");
        EXPECT_EQ(shown.member(i, "ended") == "null" ? "null" : "time", expected[i].ended);
        EXPECT_EQ(shown.member(i, "exit_status"), expected[i].exit_status);
        EXPECT_EQ(shown.member(i, "signal"), expected[i].signal);
    }

    unsigned long long last = running;
    for (int i = 0; i < CONTROL_RUNS_KEPT; ++i) {
        last = control_run_begin("start", std::to_string(i).c_str());
    }
    control_run_exited(running, W_EXITCODE(5, 0));  // left the log: no effect
    control_run_exited(last, W_EXITCODE(0, 0));
    reply_items kept;
    ASSERT_EQ(kept.size(), static_cast<std::size_t>(CONTROL_RUNS_KEPT));
    EXPECT_EQ(kept.member(0, "command"), std::to_string(CONTROL_RUNS_KEPT - 1));
    EXPECT_EQ(kept.member(0, "exit_status"), "0");
    EXPECT_EQ(kept.member(CONTROL_RUNS_KEPT - 1, "command"), "0");
    EXPECT_EQ(kept.member(CONTROL_RUNS_KEPT - 1, "exit_status"), "null");
}

}  // namespace
