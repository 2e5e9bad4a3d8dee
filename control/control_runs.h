// control_runs.h - the log of service-control runs: the last
// CONTROL_RUNS_KEPT init-script runs with their method, command line,
// start and end times, outcome and the tail of their output, the
// "get_control_runs" reply, and the count of runs by method and outcome.
// Written by the service-control worker threads (and by the handler for a
// run that could not start), read by listener threads; one lock (inside
// the module) guards the log and the counts. Both live in fixed storage
// that needs no teardown, so a worker still running while the process
// exits never touches a destroyed object.
#ifndef MANAGER_SVC_CONTROL_RUNS_H
#define MANAGER_SVC_CONTROL_RUNS_H

#include <cstddef>
#include <string>
#include <vector>

#include "platform/held_requests.h"

constexpr int CONTROL_RUNS_KEPT = 32;
// The reply's "return": the log is always there to read.
constexpr int CONTROL_RUNS_OK = 0;
// The "method" text: at most 31 characters; longer values are cut and so
// never match an action.
constexpr unsigned SERVICE_METHOD_SIZE = 32;
// The command line "<script> <verb>".
constexpr std::size_t SERVICE_COMMAND_SIZE = 256;
// The last bytes of a run's standard output and error kept.
constexpr std::size_t CONTROL_OUTPUT_KEPT = 4096;

// Changes when a run starts or ends.
extern change_view control_runs_view;

// How runs ended, as the metrics name them.
enum class run_outcome { succeeded, failed, signalled, not_started };
constexpr std::size_t RUN_OUTCOME_COUNT = 4;
const char* run_outcome_name(run_outcome outcome);

// Records a run that starts now; returns its number, by which its end is
// recorded. Longer texts are cut to the control buffers' sizes.
unsigned long long control_run_begin(const char* method, const char* command);

// Records that run `number` ended with the wait status `wait_status` (as
// waitpid gives it) and the tail of its output. Does nothing to the log
// when the run has left it (the count is kept all the same).
void control_run_exited(unsigned long long number, int wait_status, const std::string& output);

// Records that run `number` ends now with no known status, and why: it
// could not be started, or its shell could not be waited for.
void control_run_ended_without_status(unsigned long long number, const char* error,
                                      const std::string& output);

// The "get_control_runs" reply text: {"return": 0, "index": N, "items":
// [...]}, the kept runs newest first.
std::string control_runs_reply();

// Runs ended so far, by method and outcome (only the pairs that occurred).
struct control_run_count {
    std::string method;
    run_outcome outcome;
    unsigned long long count;
};
std::vector<control_run_count> control_run_counts();

#endif
