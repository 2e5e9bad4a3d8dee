// control_test.cpp - the control-run log (the last 32 kept, texts cut to their buffers) and a script's exit
// status kept though signals interrupt the wait for it. Runs in the sandbox: the test puts its own script at
// the init script's fixed path.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "common/device_paths.h"
#include "control/control_runs.h"
#include "control/services_handler.h"
#include "tests/unit/unit_support.h"

namespace {

// Members of the log's item at `index` as JSON texts, after a space each.
std::string run(std::size_t index, std::initializer_list<const char*> names) {
    json_object* reply = json_tokener_parse(control_runs_reply().c_str());
    json_object* item = json_object_array_get_idx(json_object_object_get(reply, "items"), index);
    std::string text;
    for (const char* name : names) {
        text += " " + std::string(item == nullptr ? "none" : json_object_to_json_string_ext(
                                      json_object_object_get(item, name), JSON_C_TO_STRING_NOSLASHESCAPE));
    }
    json_object_put(reply);
    return text;
}

// The log is process-wide and never emptied: this test runs first.
TEST(ControlRuns, OnlyTheLast32KeptWithTextsCutToTheirBuffers) {
    EXPECT_EQ(R"({ "return": 0, "index": 0, "items": [ ] })", control_runs_reply());
    for (int i = 0; i <= CONTROL_RUNS_KEPT; ++i) {
        control_run_begin("start", std::to_string(i).c_str());
    }
    // The kept tail of the output starts inside the first euro sign.
    control_run_exited(control_run_begin(std::string(40, 'm').c_str(), std::string(300, 'c').c_str()), "m", SIGKILL,
                       std::string(1000, 'x') + "\xe2\x82\xac" + std::string(4090, 'x') + "\xe2\x82\xac\xff");
    EXPECT_EQ(" \"??" + std::string(4090, 'x') + "\u20ac?\" null", run(0, {"output", "error"}));
    EXPECT_EQ(" \"" + std::string(31, 'm') + "\" \"" + std::string(255, 'c') + "\" null 9",
              run(0, {"method", "command", "exit_status", "signal"}));
    EXPECT_EQ(R"( "2")", run(CONTROL_RUNS_KEPT - 1, {"command"}));
    EXPECT_EQ(" none", run(CONTROL_RUNS_KEPT, {"command"}));
}

// With no descriptor left for its output pipe the shell cannot start: the
// run is recorded as ended with no status and why.
TEST(ServiceControl, ARunThatCannotStartIsRecorded) {
    const int lowest_free = open("/", O_RDONLY | O_CLOEXEC);
    close(lowest_free);
    rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    const rlimit none_left = {static_cast<rlim_t>(lowest_free), saved.rlim_max};
    // A reply made first warms UBSan's type cache: its checks need descriptors.
    proc_services_post(httpserver::http_request("POST", "/", {}, {}, R"({"method": "none"})"));
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none_left));
    proc_services_post(httpserver::http_request("POST", "/", {}, {}, R"({"method": "stop"})"));
    const std::string expected = " \"" + std::string(SERVICES_SCRIPT_PATH) + " stop\" null null";
    poll_until([] { return run(0, {"exit_status", "signal", "ended"}).rfind(" null null \"", 0) == 0; });
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(expected + " \"Too many open files\" \"\"", run(0, {"command", "exit_status", "signal", "error", "output"}));
}

// SIGUSR1, handled without SA_RESTART, reaches only the worker thread
// (it inherits it unblocked) while the worker waits for the script.
TEST(ServiceControl, ExitStatusIsKeptThoughSignalsInterruptTheWait) {
    mkdir("/etc/init.d", 0755);
    std::ofstream(SERVICES_SCRIPT_PATH) << "#!/bin/sh\nsleep 0.5\nexit 3\n";
    ASSERT_EQ(0, chmod(SERVICES_SCRIPT_PATH, 0755));
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    proc_services_post(httpserver::http_request("POST", "/", {}, {}, R"({"method": "start"})"));
    sigset_t usr1;
    sigemptyset(&usr1), sigaddset(&usr1, SIGUSR1), pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    const std::string started = " \"" + std::string(SERVICES_SCRIPT_PATH) + " start\"";
    poll_until([&] { return kill(getpid(), SIGUSR1) == 0 && run(0, {"command", "ended"}).rfind(started + " \"", 0) == 0; });
    EXPECT_EQ(started + " 3", run(0, {"command", "exit_status"}));
}

}  // namespace
