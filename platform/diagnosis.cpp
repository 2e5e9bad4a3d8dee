// diagnosis.cpp - the crash-diagnosis library: a handler for the fatal
// signals that appends one record (time, program name, pid, signal and a
// backtrace) to the debug log that the daemon names, and then lets the signal's default action end
// the process, so that a core dump is still made.
// Installation runs on the main thread before other threads exist; the
// handler may run on any thread and uses async-signal-safe calls only
// (open, write, close, getpid, clock_gettime, sigaction, pthread_sigmask,
// raise, pause; backtrace is loaded beforehand, see below).
#include "platform/diagnosis.h"

#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <climits>
#include <cstdio>

#include "platform/dlog.h"

namespace {

constexpr std::size_t PROGRAM_NAME_SIZE = 64;
constexpr std::size_t RECORD_HEAD_SIZE = 256;
constexpr int MAX_FRAMES = 64;
// Room for the handler, backtrace's unwinder and a sanitizer's own frames.
constexpr std::size_t ALT_STACK_SIZE = 256 * 1024;
constexpr mode_t CRASH_LOG_MODE = 0644;

constexpr long SECONDS_PER_DAY = 86400;
constexpr long SECONDS_PER_HOUR = 3600;
constexpr long SECONDS_PER_MINUTE = 60;

struct signal_name {
    int number;
    const char* name;
};
constexpr signal_name SIGNAL_NAMES[] = {
    {SIGSEGV, "SIGSEGV"}, {SIGABRT, "SIGABRT"}, {SIGTRAP, "SIGTRAP"},
    {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},   {SIGILL, "SIGILL"},
};
constexpr const char UNNAMED_SIGNAL[] = "signal";

// Written by the installer before threads start; read-only in the handler.
// With several installations the last name given wins.
char crash_program_name[PROGRAM_NAME_SIZE] = "";
// Where crash records go; set before the handlers are installed. Empty:
// no record is written, the signal still ends the process.
char crash_log_path[PATH_MAX] = "";
// The alternate signal stack of the installing thread, so that a stack
// overflow there can still be reported. Written once at installation.
alignas(16) char alt_stack[ALT_STACK_SIZE];
// Set by the first crashing thread; a second one waits for the process to
// end, so the log gets one whole record. Lock-free, safe in the handler.
std::atomic_flag crash_claimed = ATOMIC_FLAG_INIT;

// A bounded text under construction; appends past the end are dropped.
struct record_text {
    char text[RECORD_HEAD_SIZE];
    std::size_t length;
};

void append_text(record_text& record, const char* text) {
    for (; *text != '\0' && record.length < sizeof record.text; ++text) {
        record.text[record.length++] = *text;
    }
}

// The decimal digits of `value`, at least `width` of them (zero padded).
void append_number(record_text& record, unsigned long value, int width) {
    char digits[24];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0 && count < static_cast<int>(sizeof digits));
    while (count < width && count < static_cast<int>(sizeof digits)) {
        digits[count++] = '0';
    }
    while (count > 0 && record.length < sizeof record.text) {
        record.text[record.length++] = digits[--count];
    }
}

const char* name_of_signal(int sig) {
    for (const signal_name& entry : SIGNAL_NAMES) {
        if (entry.number == sig) {
            return entry.name;
        }
    }
    return UNNAMED_SIGNAL;
}

// Calendar arithmetic over eras of 400 years that start on 1 March, so
// that the leap day is the last day of a year.
constexpr long DAYS_PER_ERA = 146097;
constexpr long DAYS_FROM_ERA_START_TO_EPOCH = 719468;  // 0000-03-01 to 1970-01-01

struct civil_date {
    long year;
    long month;
    long day;
};

civil_date date_of_day(long days_since_epoch) {
    long days = days_since_epoch + DAYS_FROM_ERA_START_TO_EPOCH;
    long era = days / DAYS_PER_ERA;
    long day_of_era = days - era * DAYS_PER_ERA;
    long year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    long day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    long month_from_march = (5 * day_of_year + 2) / 153;
    long month = month_from_march < 10 ? month_from_march + 3 : month_from_march - 9;
    long day = day_of_year - (153 * month_from_march + 2) / 5 + 1;
    return {year_of_era + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

// "YYYY-MM-DD HH:MM:SS UTC ": the time zone cannot be read safely in a
// handler, so the crash record is stamped in UTC.
void append_utc_time(record_text& record) {
    struct timespec now = {0, 0};
    clock_gettime(CLOCK_REALTIME, &now);
    civil_date date = date_of_day(now.tv_sec / SECONDS_PER_DAY);
    long seconds = now.tv_sec % SECONDS_PER_DAY;
    const struct {
        const char* before;
        long value;
    } fields[] = {{"", date.year},
                  {"-", date.month},
                  {"-", date.day},
                  {" ", seconds / SECONDS_PER_HOUR},
                  {":", seconds % SECONDS_PER_HOUR / SECONDS_PER_MINUTE},
                  {":", seconds % SECONDS_PER_MINUTE}};
    for (const auto& field : fields) {
        append_text(record, field.before);
        append_number(record, static_cast<unsigned long>(field.value), 2);
    }
    append_text(record, " UTC ");
}

// "<time> <program>[<pid>]: crash: signal <n> (<name>), backtrace:\n"
void write_record_head(int fd, int sig) {
    record_text record = {{}, 0};
    append_utc_time(record);
    append_text(record, crash_program_name);
    append_text(record, "[");
    append_number(record, static_cast<unsigned long>(getpid()), 1);
    append_text(record, "]: crash: signal ");
    append_number(record, static_cast<unsigned long>(sig), 1);
    append_text(record, " (");
    append_text(record, name_of_signal(sig));
    append_text(record, "), backtrace:\n");
    ssize_t ignored = write(fd, record.text, record.length);
    (void)ignored;
}

void write_crash_record(int sig) {
    if (crash_log_path[0] == '\0') {
        return;
    }
    int fd = open(crash_log_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, CRASH_LOG_MODE);
    if (fd < 0) {
        return;
    }
    write_record_head(fd, sig);
    void* frames[MAX_FRAMES];
    backtrace_symbols_fd(frames, backtrace(frames, MAX_FRAMES), fd);
    close(fd);
}

// Puts back the default action and delivers the signal again at once.
// For a fault the process is ended here; should raise return, the faulting
// instruction runs again on return from the handler and ends it then.
void reraise_with_default_action(int sig) {
    struct sigaction default_action = {};
    default_action.sa_handler = SIG_DFL;
    sigemptyset(&default_action.sa_mask);
    sigaction(sig, &default_action, nullptr);
    sigset_t just_this;
    sigemptyset(&just_this);
    sigaddset(&just_this, sig);
    pthread_sigmask(SIG_UNBLOCK, &just_this, nullptr);
    raise(sig);
}

void crash_handler(int sig) {
    if (crash_claimed.test_and_set()) {
        for (;;) {
            pause();
        }
    }
    write_crash_record(sig);
    reraise_with_default_action(sig);
}

// Gives the installing thread an alternate signal stack unless it has one
// (a sanitizer runtime may have set its own already).
void ensure_alt_stack() {
    stack_t current = {};
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) {
        return;
    }
    stack_t ours = {};
    ours.ss_sp = alt_stack;
    ours.ss_size = sizeof alt_stack;
    sigaltstack(&ours, nullptr);
}

// backtrace loads the unwinder (libgcc_s) on its first call, which is not
// safe inside a handler: one call here does it in advance.
void preload_backtrace() {
    void* frame[1];
    backtrace(frame, 1);
}

}  // namespace

void diagnosis_set_crash_log(const char* path) {
    snprintf(crash_log_path, sizeof crash_log_path, "%s", path != nullptr ? path : "");
}

// The crash handler keeps the signal blocked while it runs (no SA_NODEFER),
// so a fault inside it ends the process with the default action instead of
// recursing. A caller's own handler gets the alternate stack too.
extern "C" int diagnosis_com_install_siganl_handler(int sig, const char* program_name,
                                                    diagnosis_handler handler) {
    snprintf(crash_program_name, sizeof crash_program_name, "%s",
             program_name != nullptr ? program_name : "");
    ensure_alt_stack();
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_ONSTACK;
    if (handler == nullptr) {
        preload_backtrace();
        dlog_make_parent_dirs(crash_log_path);
        action.sa_handler = crash_handler;
    } else {
        action.sa_flags |= SA_RESTART;
        action.sa_handler = handler;
    }
    return sigaction(sig, &action, nullptr) == 0 ? 0 : -1;
}
