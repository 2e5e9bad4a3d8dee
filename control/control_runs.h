// control_runs.h - the log of service-control runs: the last
// CONTROL_RUNS_KEPT init-script runs with their method, command line,
// start and end times and outcome, and the "get_control_runs" reply.
// Written by the service-control worker threads, read by listener threads;
// one lock (inside the module) guards the log. The log lives in fixed
// storage that needs no teardown, so a worker still running while the
// process exits never touches a destroyed object.
#ifndef MANAGER_SVC_CONTROL_RUNS_H
#define MANAGER_SVC_CONTROL_RUNS_H

#include <string>

constexpr int CONTROL_RUNS_KEPT = 32;
// The reply's "return": the log is always there to read.
constexpr int CONTROL_RUNS_OK = 0;

// Records a run that starts now; returns its number, by which its end is
// recorded. Longer texts are cut to the control buffers' sizes.
unsigned long long control_run_begin(const char* method, const char* command);

// Records that run `number` ended with the wait status `wait_status`
// (as waitpid gives it). Does nothing when the run has left the log.
void control_run_exited(unsigned long long number, int wait_status);

// Records that run `number` ends now with no known status: the shell could
// not be started, or could not be waited for.
void control_run_ended_without_status(unsigned long long number);

// The "get_control_runs" reply text: {"return": 0, "items": [...]}, the
// kept runs newest first.
std::string control_runs_reply();

#endif
