// services_handler.cpp - the service-control resource. proc_services_post
// runs on the server's listener threads, several at once; every buffer is
// local to one request. Each recognised request hands its heap job (the
// action and its command line) to a new detached worker thread
// (service_cmd_thread), which alone touches it from then on and frees it.
// The worker starts the shell itself and waits for it, and records the run
// in the control-run log (control_runs.h, which has its own lock); the
// handler shares nothing else but running_scripts, the atomic count of
// runs not yet ended.
// Nothing queues the runs: a script starts at once or not at all. At most
// MAX_RUNNING_SCRIPTS run at once; a run beyond it, or whose thread, pipe
// or process cannot be had, is recorded as not started, and its reply is
// still {"return": 0}. The bound is the device's: each run holds a worker
// thread, a forked shell and what the script starts (for a script that
// sleeps: 3 of the kernel's tasks and about 200 KiB). On a 64 MiB device
// (the boot check's: 374 tasks in all, and of 25 MiB free only 13 for the
// kernel's own allocations, the rest reserved for movable pages) a burst
// of 1,000 posts without a bound took every task and the kernel's memory:
// the OOM killer took shells and forks not yet executed (which count the
// daemon's pages and free next to nothing), up to 64 of the daemon's
// threads waited in reclaim, and in one CI run it did not answer for
// minutes. With 64 at once the OOM killer still ran; with 32 it did not,
// and the daemon answered throughout (figures in bench/README.md).
#include "control/services_handler.h"

#include <json-c/json.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/device_paths.h"
#include "common/print_log.h"
#include "common/result_codes.h"
#include "control/control_runs.h"
#include "endpoints/handler_guard.h"
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
// A worker only starts a shell, reads its output and waits for it.
constexpr std::size_t WORKER_STACK_BYTES = 64 * 1024;
constexpr std::size_t OUTPUT_CHUNK_BYTES = 1024;
// While the shell runs silently, it is looked at this often.
constexpr int SHELL_EXIT_POLL_MS = 200;
// The kernel's default, which the scripts' services start with.
constexpr char DEFAULT_OOM_SCORE_ADJ[] = "0";
// The exit status of a shell that could not be executed (as sh gives it).
constexpr int SHELL_NOT_RUN_STATUS = 127;
// Scripts running at once, so that a 64 MiB device keeps memory and tasks
// for its services (figures in the file's comment); a run beyond it is
// recorded as not started.
constexpr unsigned MAX_RUNNING_SCRIPTS = 32;

// Runs whose worker thread was created and whose shell has not ended.
std::atomic<unsigned> running_scripts{0};

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

// Waits for the shell; false when it cannot be waited for.
bool wait_for_shell(pid_t shell, int* wait_status) {
    while (waitpid(shell, wait_status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

// Records a run that could not start, with why, in the log and once in
// the debug log.
void record_not_started(const service_action& action, const char* command, const char* error) {
    control_run_ended_without_status(control_run_begin(action.method, command), action.method,
                                     error, "");
    debug_log("service command [%s] not run: %s", command, error);
}

// Hands the action's command line to a new detached worker thread with a
// small stack. When the job or thread cannot be had the run is recorded as
// not started; the reply stays SERVICES_STARTED in both cases, because
// "return" tells whether the method was recognised, never whether the
// script ran.
void start_service_command(const service_action& action) {
    char command[SERVICE_COMMAND_SIZE];
    snprintf(command, sizeof command, "%s %s", action.script, action.verb);
    service_job* job = static_cast<service_job*>(malloc(sizeof(service_job)));
    if (job == nullptr) {
        record_not_started(action, command, "no memory for the job");
        return;
    }
    if (running_scripts.fetch_add(1) >= MAX_RUNNING_SCRIPTS) {
        running_scripts.fetch_sub(1);
        free(job);
        record_not_started(action, command, "too many scripts running");
        return;
    }
    job->action = &action;
    snprintf(job->command, sizeof job->command, "%s", command);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, WORKER_STACK_BYTES);
    pthread_t worker;
    const int error = pthread_create(&worker, &attributes, service_cmd_thread, job);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        running_scripts.fetch_sub(1);
        free(job);
        record_not_started(action, command, "no thread for the command");
    }
}

// The shell's side of the fork: only async-signal-safe calls (the daemon
// has other threads). Every signal but SHELL_IGNORED_SIGNAL starts at its
// default action with none blocked, the oom score goes back to the default
// (the daemon lowers its own; the services it starts must not inherit
// that), and standard output and error go to the pipe.
[[noreturn]] void become_shell(const char* command, int output) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        action.sa_handler = sig == SHELL_IGNORED_SIGNAL ? SIG_IGN : SIG_DFL;
        sigaction(sig, &action, nullptr);  // fails harmlessly for KILL, STOP and glibc's own
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    int oom = open(PROC_OOM_SCORE_ADJ_PATH, O_WRONLY | O_CLOEXEC);
    if (oom >= 0) {
        ssize_t written = write(oom, DEFAULT_OOM_SCORE_ADJ, sizeof DEFAULT_OOM_SCORE_ADJ - 1);
        (void)written;  // a kernel without it, or no right to: the shell runs all the same
        close(oom);
    }
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    char shell_name[] = "sh";
    char command_option[] = "-c";
    char* arguments[] = {shell_name, command_option, const_cast<char*>(command), nullptr};
    execve(SHELL_PATH, arguments, environ);
    _exit(SHELL_NOT_RUN_STATUS);
}

// Starts "/bin/sh -c <command>" with its output on a pipe: 0 with the
// shell's pid and the pipe's reading end (non-blocking), or the failed
// call's errno, negated.
int spawn_shell(const char* command, pid_t* shell, int* output) {
    int pipe_ends[2];
    if (pipe2(pipe_ends, O_CLOEXEC) != 0) {
        return -errno;
    }
    const pid_t child = fork();
    if (child == 0) {
        become_shell(command, pipe_ends[1]);
    }
    const int result = child < 0 ? -errno : RESULT_OK;
    close(pipe_ends[1]);
    if (result != RESULT_OK) {
        close(pipe_ends[0]);
        return result;
    }
    fcntl(pipe_ends[0], F_SETFL, O_NONBLOCK);
    *shell = child;
    *output = pipe_ends[0];
    return RESULT_OK;
}

// Keeps the last CONTROL_OUTPUT_KEPT bytes of what can be read now; false
// at the end of the output (or a read error).
bool read_output(int output, std::string& tail) {
    char chunk[OUTPUT_CHUNK_BYTES];
    for (;;) {
        const ssize_t got = read(output, chunk, sizeof chunk);
        if (got > 0) {
            tail.append(chunk, static_cast<std::size_t>(got));
            if (tail.size() > 2 * CONTROL_OUTPUT_KEPT) {
                tail.erase(0, tail.size() - CONTROL_OUTPUT_KEPT);
            }
            continue;
        }
        return got < 0 && (errno == EAGAIN || errno == EINTR);
    }
}

// Reads the shell's output until it ends, or until the shell has ended and
// nothing more is there (a daemon the script started may keep the pipe
// open for ever); then waits for the shell. False when it cannot be waited
// for.
bool collect_shell(pid_t shell, int output, std::string& tail, int* wait_status) {
    bool reaped = false;
    for (;;) {
        pollfd readable = {output, POLLIN, 0};
        if (poll(&readable, 1, SHELL_EXIT_POLL_MS) != 0 && read_output(output, tail)) {
            continue;
        }
        if (readable.revents != 0 || waitpid(shell, wait_status, WNOHANG) == shell) {
            reaped = readable.revents == 0;
            break;
        }
    }
    if (reaped) {
        read_output(output, tail);
    }
    close(output);
    return reaped || wait_for_shell(shell, wait_status);
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

// The worker records the run, starts the shell, reads its output and
// waits for it on this thread: the stop signals keep their handler
// meanwhile (system() would ignore SIGINT in the whole daemon while a
// script runs). The run's place is given back before its end is recorded,
// so a caller that sees the run ended can start the next one.
void* service_cmd_thread(void* argument) {
    service_job* job = static_cast<service_job*>(argument);
    const char* method = job->action->method;
    unsigned long long run = control_run_begin(method, job->command);
    pid_t shell = 0;
    int output = -1;
    const int started = spawn_shell(job->command, &shell, &output);
    std::string tail;
    int wait_status = 0;
    const char* error = nullptr;
    if (started != RESULT_OK) {
        debug_log("cannot start %s for [%s], errno=%d", SHELL_PATH, job->command, -started);
        error = strerror(-started);
    } else if (!collect_shell(shell, output, tail, &wait_status)) {
        error = "cannot wait for the shell";
    }
    free(job);
    running_scripts.fetch_sub(1);
    if (error == nullptr) {
        control_run_exited(run, method, wait_status, tail);
    } else {
        control_run_ended_without_status(run, method, error, tail);
    }
    pthread_exit(nullptr);
}

common_http_resource services_resource("/managerService/services", nullptr,
                                       guarded<proc_services_post>, nullptr, nullptr);
