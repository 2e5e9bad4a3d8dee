// lifecycle.cpp - start-up and shutdown of the daemon.
// g_exit_flag is the only state shared with the signal handler: a lock-free
// one-byte atomic, set by the handler and read by the main loop.
// Everything else here runs on the main thread.
//
// The daemon keeps the device's registry, so under memory pressure the
// kernel's OOM killer must take something else: at start the daemon lowers
// its own oom_score_adj to OOM_SCORE_ADJ (it runs as root on the device).
// The init scripts it starts set theirs back to the default (0) before they
// run, so a burst of scripts is what the killer takes. Not -1000: a daemon
// that itself ran away with the memory stays killable, and a respawning
// init (README) brings it back with its registry. Without the privilege
// (CAP_SYS_RESOURCE) the write fails: one debug-log record, and the daemon
// carries on with the score it has.
#include "main/lifecycle.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/device_paths.h"
#include "common/print_log.h"
#include "main/settings.h"
#include "monitor/prober.h"
#include "monitor/svcmon_handler.h"
#include "platform/diagnosis.h"
#include "platform/ssci_client.h"
#include "platform/ssci_server.h"
#include "registry/svc_info_map.h"

namespace {

std::atomic<bool> g_exit_flag{false};  // set by signal_handler, read by wait_for_stop
static_assert(std::atomic<bool>::is_always_lock_free, "the stop flag must be signal-safe");

// The first and fifth arguments of the server creation, and the name server.
constexpr const char SERVER_HOST[] = "localhost";
constexpr const char NAME_SERVER_HOST[] = "localhost";
constexpr int NAME_SERVER_PORT = 10182;

// The kernel's OOM-killer score adjustment (-1000 to 1000) that the daemon
// takes for itself; see the file comment.
constexpr int OOM_SCORE_ADJ = -900;

constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM};
// "recv sig=", at most 10 digits and "\n".
constexpr std::size_t SIGNAL_LINE_BYTES = 20;
constexpr int CRASH_SIGNALS[] = {SIGSEGV, SIGABRT, SIGTRAP};

// "recv sig=N\n" into `out` without stdio (safe inside a signal handler);
// signal numbers are positive.
std::size_t format_signal_line(char (&out)[SIGNAL_LINE_BYTES], int sig) {
    static const char prefix[] = "recv sig=";
    std::size_t length = sizeof prefix - 1;
    memcpy(out, prefix, length);
    char digits[10];
    std::size_t count = 0;
    unsigned value = sig > 0 ? static_cast<unsigned>(sig) : 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count > 0) {
        out[length++] = digits[--count];
    }
    out[length++] = '\n';
    return length;
}

// Ends start-up or shutdown after a server-library failure.
[[noreturn]] void exit_on_server_failure(const char* step, long long result) {
    debug_log("%s failed, ret=[%lld] exit.", step, result);
    exit(EXIT_FAILURE);
}

void require_server_success(const char* step, long long result) {
    if (result != 0) {
        exit_on_server_failure(step, result);
    }
}

// 0 when written, else the errno of the failed step.
int write_oom_score_adj(int value) {
    const int fd = open(PROC_OOM_SCORE_ADJ_PATH, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    char text[16];
    const int length = snprintf(text, sizeof text, "%d", value);
    const int status = write(fd, text, length) == length ? 0 : errno;
    close(fd);
    return status;
}

void lower_oom_score() {
    const int status = write_oom_score_adj(OOM_SCORE_ADJ);
    if (status != 0) {
        debug_log("oom_score_adj not lowered to %d (%s), going on", OOM_SCORE_ADJ,
                  strerror(status));
    }
}

}  // namespace

void signal_handler(int sig) {
    if (verbose_level >= static_cast<int>(ERR)) {
        char line[SIGNAL_LINE_BYTES];
        const std::size_t length = format_signal_line(line, sig);
        ssize_t ignored = write(STDERR_FILENO, line, length);
        (void)ignored;
    }
    g_exit_flag.store(true);
}

void register_signal_handlers() {
    print_log(WARN, "%s()\n", "register_signal_handler");
    for (int sig : STOP_SIGNALS) {
        signal(sig, signal_handler);
    }
    diagnosis_set_crash_log(DEBUG_LOG_PATH);
    for (int sig : CRASH_SIGNALS) {
        diagnosis_com_install_siganl_handler(sig, PROGRAM_NAME, nullptr);
    }
}

void server_init(const char* listen_addrs, int listen_port, int listener_threads,
                 const char* web_home_path, int monitor_period) {
    lower_oom_score();
    svcmon_set_home_path(web_home_path);
    svc_info_init();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    ssci_server_set_debug_log(DEBUG_LOG_PATH, DEBUG_LOG_SIZE_LIMIT);
    require_server_success("ssci_server_create",
                           ssci_server_create(SERVER_HOST, listen_addrs, listen_port,
                                              listener_threads, SERVER_HOST, 0, true, 0, ""));
    require_server_success("ssci_server_start", ssci_server_start());
    ssci_nameserver_init(NAME_SERVER_HOST, NAME_SERVER_PORT);
    // Last in, first out: no exit on a server failure can find the prober
    // thread still running.
    if (!prober_start(monitor_period)) {
        debug_log("prober not started, reachability stays unknown");
    }
}

void wait_for_stop() {
    while (!g_exit_flag.load()) {
        sleep(1);
    }
}

void server_uninit() {
    prober_stop();
    require_server_success("ssci_server_stop", ssci_server_stop());
    require_server_success("ssci_server_destory", ssci_server_destory());
    svc_info_uninit();
    curl_global_cleanup();
}
