// services_handler.cpp - the service-control resource. proc_services_post
// runs on the server's listener threads, several at once; every buffer is
// local to one request. Each recognised request hands its heap job (the
// action and its command line) to a new detached worker thread
// (service_cmd_thread), which alone touches it from then on and frees it.
// The worker starts the shell itself and waits for it, and records the run
// in the control-run log (control_runs.h, which has its own lock); the
// handler shares nothing else.
#include "control/services_handler.h"

#include <json-c/json.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/device_paths.h"
#include "common/print_log.h"
#include "control/control_runs.h"
#include "endpoints/ssci_response.h"
#include "platform/common_http_resource.h"
#include "platform/utils.h"

extern char** environ;

namespace {

// What a worker thread runs: the action and its command line.
struct service_job {
    const service_action* action;
    char command[SERVICE_COMMAND_SIZE];
};

// The one signal the shell keeps ignored, as the daemon does; every other
// starts at its default action, whatever the daemon inherited.
constexpr int SHELL_IGNORED_SIGNAL = SIGPIPE;

// Tested in this order; the first equal method wins.
constexpr service_action SERVICE_ACTIONS[] = {
    {"start", SERVICES_SCRIPT_PATH, "start"},
    {"stop", SERVICES_SCRIPT_PATH, "stop"},
    {"restart", SERVICES_SCRIPT_PATH, "restart"},
    {"fdr_restart", FDR_SERVICES_SCRIPT_PATH, "restart"},
};

// The body's "method" string into `method`; left empty when the body is not
// JSON or has no string "method".
void read_method(const std::string& content, char* method, unsigned size) {
    std::memset(method, 0, size);
    json_object* body = json_tokener_parse(content.c_str());
    if (body != nullptr) {
        get_json_str_by_key(body, "method", method, size);
        json_object_put(body);
    }
}

// Hands the action's command line to a new detached worker thread. When the
// thread cannot be created the job is freed and not run. An allocation
// failure is recorded in the debug log; the reply stays SERVICES_STARTED in
// both cases, because "return" tells whether the method was recognised,
// never whether the script ran.
void start_service_command(const service_action& action) {
    service_job* job = static_cast<service_job*>(malloc(sizeof(service_job)));
    if (job == nullptr) {
        debug_log("no memory for the command of method %s, not run", action.method);
        return;
    }
    job->action = &action;
    snprintf(job->command, sizeof job->command, "%s %s", action.script, action.verb);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t worker;
    if (pthread_create(&worker, &attributes, service_cmd_thread, job) != 0) {
        free(job);
    }
    pthread_attr_destroy(&attributes);
}

// Starts "/bin/sh -c <command>" with an empty signal mask and every signal
// but SHELL_IGNORED_SIGNAL at its default action (glibc's own two internal
// signals excepted: its posix_spawn leaves them ignored, as system() does).
// 0 and the shell's pid, or an errno.
int spawn_shell(const char* command, pid_t* shell) {
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    sigdelset(&signals, SHELL_IGNORED_SIGNAL);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char shell_name[] = "sh";
    char command_option[] = "-c";
    char* arguments[] = {shell_name, command_option, const_cast<char*>(command), nullptr};
    int error = posix_spawn(shell, SHELL_PATH, nullptr, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    return error;
}

// Waits for the shell; false when it cannot be waited for.
bool wait_for_shell(pid_t shell, int* wait_status) {
    while (waitpid(shell, wait_status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

const service_action* find_service_action(const char* method) {
    for (const service_action& action : SERVICE_ACTIONS) {
        if (std::strcmp(method, action.method) == 0) {
            return &action;
        }
    }
    return nullptr;
}

const std::shared_ptr<httpserver::http_response> proc_services_post(
    const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_services_post");
    char method[SERVICE_METHOD_SIZE];
    read_method(request.get_content(), method, sizeof method);
    print_log(DEBUG, "param_method=%s\n", method);
    const service_action* action = find_service_action(method);
    if (action == nullptr) {
        return json_reply(new_reply_object(SERVICES_UNKNOWN_METHOD));
    }
    start_service_command(*action);
    return json_reply(new_reply_object(SERVICES_STARTED));
}

// The worker records the run, starts the shell and waits for it on this
// thread: the stop signals keep their handler meanwhile (system() would
// ignore SIGINT in the whole daemon while a script runs).
void* service_cmd_thread(void* argument) {
    service_job* job = static_cast<service_job*>(argument);
    unsigned long long run = control_run_begin(job->action->method, job->command);
    pid_t shell = 0;
    int error = spawn_shell(job->command, &shell);
    int wait_status = 0;
    if (error != 0) {
        debug_log("cannot start %s for [%s], errno=%d", SHELL_PATH, job->command, error);
        control_run_ended_without_status(run);
    } else if (wait_for_shell(shell, &wait_status)) {
        control_run_exited(run, wait_status);
    } else {
        control_run_ended_without_status(run);
    }
    free(job);
    pthread_exit(nullptr);
}

common_http_resource services_resource("/managerService/services", nullptr,
                                       proc_services_post, nullptr, nullptr);
