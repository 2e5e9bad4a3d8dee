// control_runs.cpp - the log of the last CONTROL_RUNS_KEPT service-control
// runs, a ring indexed by run number.
// runs_lock guards runs[] and run_count. Both are plain data with a static
// initialiser and no destructor (see the header); the lock is held only to
// copy a record in or out, never while a script runs or JSON is built.
#include "control/control_runs.h"

#include <json-c/json.h>
#include <pthread.h>
#include <sys/wait.h>

#include <cstdio>
#include <ctime>

#include "control/services_handler.h"
#include "endpoints/json_values.h"
#include "endpoints/ssci_response.h"

namespace {

struct control_run {
    unsigned long long number;  // 0: the slot has held no run yet
    char method[SERVICE_METHOD_SIZE];
    char command[SERVICE_COMMAND_SIZE];
    time_t started;
    time_t ended;  // NO_TIME while the run goes on
    bool exited;   // exit_status applies
    int exit_status;
    bool signalled;  // signal applies
    int signal;
};

pthread_mutex_t runs_lock = PTHREAD_MUTEX_INITIALIZER;
control_run runs[CONTROL_RUNS_KEPT];  // guarded by runs_lock
unsigned long long run_count = 0;     // guarded by runs_lock

control_run& slot_of(unsigned long long number) {
    return runs[(number - 1) % CONTROL_RUNS_KEPT];
}

// Applies `finish` to run `number` if it is still in the log.
template <typename Finish>
void finish_run(unsigned long long number, Finish finish) {
    pthread_mutex_lock(&runs_lock);
    control_run& run = slot_of(number);
    if (run.number == number) {
        run.ended = time(nullptr);
        finish(run);
    }
    pthread_mutex_unlock(&runs_lock);
}

json_object* new_run_item(const control_run& run) {
    json_object* item = json_object_new_object();
    json_object_object_add(item, "method", json_object_new_string(run.method));
    json_object_object_add(item, "command", json_object_new_string(run.command));
    json_object_object_add(item, "started", new_utc_time_or_null(run.started));
    json_object_object_add(item, "ended", new_utc_time_or_null(run.ended));
    json_object_object_add(item, "exit_status", new_int_or_null(run.exited, run.exit_status));
    json_object_object_add(item, "signal", new_int_or_null(run.signalled, run.signal));
    return item;
}

}  // namespace

unsigned long long control_run_begin(const char* method, const char* command) {
    control_run run = {};
    snprintf(run.method, sizeof run.method, "%s", method);
    snprintf(run.command, sizeof run.command, "%s", command);
    run.started = time(nullptr);
    pthread_mutex_lock(&runs_lock);
    run.number = ++run_count;
    slot_of(run.number) = run;
    pthread_mutex_unlock(&runs_lock);
    return run.number;
}

void control_run_exited(unsigned long long number, int wait_status) {
    finish_run(number, [wait_status](control_run& run) {
        run.exited = WIFEXITED(wait_status);
        run.exit_status = WEXITSTATUS(wait_status);
        run.signalled = WIFSIGNALED(wait_status);
        run.signal = WTERMSIG(wait_status);
    });
}

void control_run_ended_without_status(unsigned long long number) {
    finish_run(number, [](control_run&) {});
}

std::string control_runs_reply() {
    control_run copies[CONTROL_RUNS_KEPT];
    int count = 0;
    pthread_mutex_lock(&runs_lock);
    for (unsigned long long number = run_count; number > 0 && count < CONTROL_RUNS_KEPT;
         --number) {
        copies[count++] = slot_of(number);
    }
    pthread_mutex_unlock(&runs_lock);
    json_object* items = json_object_new_array();
    for (int i = 0; i < count; ++i) {
        json_object_array_add(items, new_run_item(copies[i]));
    }
    json_object* reply = new_reply_object(CONTROL_RUNS_OK);
    json_object_object_add(reply, "items", items);
    return take_json_text(reply);
}
