// control_runs.cpp - the log of the last CONTROL_RUNS_KEPT service-control
// runs, a ring indexed by run number, and the counts of ended runs.
// runs_lock guards runs[], run_count and counts[]. All are plain data with
// a static initialiser and no destructor (see the header); the lock is held
// only to copy a record in or out, never while a script runs or JSON is
// built.
#include "control/control_runs.h"

#include <json-c/json.h>
#include <pthread.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "endpoints/json_values.h"
#include "endpoints/ssci_response.h"

change_view control_runs_view;

namespace {

constexpr std::size_t RUN_ERROR_SIZE = 64;
// Distinct methods counted (the action table has four).
constexpr std::size_t COUNTED_METHODS = 8;
constexpr const char* const OUTCOME_NAMES[RUN_OUTCOME_COUNT] = {"succeeded", "failed",
                                                               "signalled", "not_started"};

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
    char error[RUN_ERROR_SIZE];  // why it has no status ("" when it has one)
    std::size_t output_length;
    char output[CONTROL_OUTPUT_KEPT];
};

struct method_counts {
    char method[SERVICE_METHOD_SIZE];  // "" : slot unused
    unsigned long long by_outcome[RUN_OUTCOME_COUNT];
};

pthread_mutex_t runs_lock = PTHREAD_MUTEX_INITIALIZER;
control_run runs[CONTROL_RUNS_KEPT];   // guarded by runs_lock
unsigned long long run_count = 0;      // guarded by runs_lock
method_counts counts[COUNTED_METHODS];  // guarded by runs_lock

control_run& slot_of(unsigned long long number) {
    return runs[(number - 1) % CONTROL_RUNS_KEPT];
}

run_outcome outcome_of(const control_run& run) {
    if (run.exited) {
        return run.exit_status == 0 ? run_outcome::succeeded : run_outcome::failed;
    }
    return run.signalled ? run_outcome::signalled : run_outcome::not_started;
}

// Counts an ended run of `method`. Called with runs_lock held.
void count_run(const char* method, run_outcome outcome) {
    for (method_counts& slot : counts) {
        if (slot.method[0] == '\0') {
            snprintf(slot.method, sizeof slot.method, "%s", method);
        }
        if (std::strcmp(slot.method, method) == 0) {
            ++slot.by_outcome[static_cast<std::size_t>(outcome)];
            return;
        }
    }
}

// Applies `finish` to run `number`, keeps the output's tail and counts it.
template <typename Finish>
void finish_run(unsigned long long number, const std::string& output, Finish finish) {
    pthread_mutex_lock(&runs_lock);
    control_run& run = slot_of(number);
    if (run.number == number) {
        run.ended = time(nullptr);
        finish(run);
        const std::size_t skipped = output.size() > CONTROL_OUTPUT_KEPT
                                        ? output.size() - CONTROL_OUTPUT_KEPT : 0;
        run.output_length = output.size() - skipped;
        std::memcpy(run.output, output.data() + skipped, run.output_length);
        count_run(run.method, outcome_of(run));
    }
    pthread_mutex_unlock(&runs_lock);
    control_runs_view.changed();
}

// The output as JSON text: bytes that are not UTF-8 (a script's own, or a
// character cut at the start of the tail) become '?'.
json_object* new_output_text(const char* bytes, std::size_t length) {
    std::string text(bytes, length);
    for (std::size_t at = 0; at < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[at]);
        const std::size_t size = lead < 0x80 ? 1 : lead >= 0xc2 && lead < 0xe0 ? 2
                                 : lead >= 0xe0 && lead < 0xf0 ? 3 : lead >= 0xf0 && lead < 0xf5 ? 4 : 0;
        std::size_t follow = 1;
        while (size > 1 && follow < size && at + follow < text.size() &&
               (static_cast<unsigned char>(text[at + follow]) & 0xc0) == 0x80) {
            ++follow;
        }
        if (size == 0 || follow < size) {
            text[at++] = '?';
            continue;
        }
        at += size;
    }
    return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

json_object* new_run_item(const control_run& run) {
    json_object* item = json_object_new_object();
    json_object_object_add(item, "method", json_object_new_string(run.method));
    json_object_object_add(item, "command", json_object_new_string(run.command));
    json_object_object_add(item, "started", new_utc_time_or_null(run.started));
    json_object_object_add(item, "ended", new_utc_time_or_null(run.ended));
    json_object_object_add(item, "exit_status", new_int_or_null(run.exited, run.exit_status));
    json_object_object_add(item, "signal", new_int_or_null(run.signalled, run.signal));
    json_object_object_add(item, "error",
                           run.error[0] == '\0' ? nullptr : json_object_new_string(run.error));
    json_object_object_add(item, "output", new_output_text(run.output, run.output_length));
    return item;
}

}  // namespace

const char* run_outcome_name(run_outcome outcome) {
    return OUTCOME_NAMES[static_cast<std::size_t>(outcome)];
}

unsigned long long control_run_begin(const char* method, const char* command) {
    control_run run = {};
    snprintf(run.method, sizeof run.method, "%s", method);
    snprintf(run.command, sizeof run.command, "%s", command);
    run.started = time(nullptr);
    pthread_mutex_lock(&runs_lock);
    run.number = ++run_count;
    slot_of(run.number) = run;
    pthread_mutex_unlock(&runs_lock);
    control_runs_view.changed();
    return run.number;
}

void control_run_exited(unsigned long long number, int wait_status, const std::string& output) {
    finish_run(number, output, [wait_status](control_run& run) {
        run.exited = WIFEXITED(wait_status);
        run.exit_status = WEXITSTATUS(wait_status);
        run.signalled = WIFSIGNALED(wait_status);
        run.signal = WTERMSIG(wait_status);
    });
}

void control_run_ended_without_status(unsigned long long number, const char* error,
                                      const std::string& output) {
    finish_run(number, output, [error](control_run& run) {
        snprintf(run.error, sizeof run.error, "%s", error);
    });
}

std::string control_runs_reply() {
    const unsigned long long index = control_runs_view.index();
    std::vector<control_run> copies;  // on the heap: a listener's stack may be small
    copies.reserve(CONTROL_RUNS_KEPT);
    pthread_mutex_lock(&runs_lock);
    for (unsigned long long number = run_count;
         number > 0 && copies.size() < CONTROL_RUNS_KEPT; --number) {
        copies.push_back(slot_of(number));
    }
    pthread_mutex_unlock(&runs_lock);
    json_object* items = json_object_new_array();
    for (const control_run& run : copies) {
        json_object_array_add(items, new_run_item(run));
    }
    json_object* reply = new_reply_object(CONTROL_RUNS_OK);
    json_object_object_add(reply, "index", json_object_new_int64(static_cast<int64_t>(index)));
    json_object_object_add(reply, "items", items);
    return take_json_text(reply);
}

std::vector<control_run_count> control_run_counts() {
    method_counts copies[COUNTED_METHODS];
    pthread_mutex_lock(&runs_lock);
    std::memcpy(copies, counts, sizeof copies);
    pthread_mutex_unlock(&runs_lock);
    std::vector<control_run_count> found;
    for (const method_counts& slot : copies) {
        for (std::size_t outcome = 0; slot.method[0] != '\0' && outcome < RUN_OUTCOME_COUNT;
             ++outcome) {
            if (slot.by_outcome[outcome] != 0) {
                found.push_back({slot.method, static_cast<run_outcome>(outcome),
                                 slot.by_outcome[outcome]});
            }
        }
    }
    return found;
}
