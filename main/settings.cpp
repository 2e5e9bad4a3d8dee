// settings.cpp - the process-wide settings with their defaults, the option
// parser, the usage text and the start-up banner.
// Called only by main, on the only thread there is, before any other thread
// starts; every global below is written there and read-only afterwards, so
// none has a lock.
#include "main/settings.h"

#include <dirent.h>
#include <getopt.h>

#include <cctype>
#include <cstdio>
#include <ctime>

#include "common/calendar_names.h"
#include "common/decimal.h"
#include "common/print_log.h"
#include "platform/utils.h"

namespace {

constexpr int DEFAULT_PORT = 10182;
constexpr int DEFAULT_THREAD_NO = 10;
constexpr int DEFAULT_MONITOR_PERIOD = 10;
constexpr int HIGHEST_VERBOSE_LEVEL = DEBUG;

// getopt's option string; every letter has a row in OPTION_TABLE below.
constexpr const char OPTION_STRING[] = "dD:hi:m:p:t:v:";
// Stands in for an option letter that cannot be printed.
constexpr char UNPRINTABLE_OPTION = '#';

// The names that the failure messages give the settings.
constexpr const char HOME_PATH_NAME[] = "home_path";
constexpr const char IP_ADDRS_NAME[] = "ipaddrs";
constexpr const char MONITOR_PERIOD_NAME[] = "g_monitor_period";
constexpr const char PORT_NAME[] = "port";
constexpr const char THREAD_NO_NAME[] = "thread_no";
constexpr const char VERBOSE_LEVEL_NAME[] = "verbose_lv";

// Everything of the usage text after its two lines that name the program.
constexpr const char USAGE_OPTIONS[] =
    "OPTION: \n"
    "  -d                run as daemon.\n"
    "  -D HOME_PATH      set webpage hoem path.\n"
    "  -h                show this info.\n"
    "  -i IP_ADDRS       set listen ip_addrs.\n"
    "  -m MONITOR_PERIOD set monitor period.\n"
    "  -o LOG_FILE       set log_file.\n"
    "                        If not set, msg will print to stderr\n"
    "  -p PORT_NO        set listen port.\n"
    "  -t TREAD_NO       set max listen thread no.\n"
    "  -v LEVEL          verbose print.\n"
    "                        0= ERR (default)\n"
    "                        1= WARN\n"
    "                        2= DEBUG\n";

// execute_time has the layout of asctime without its newline; the bound
// leaves 24 characters, exactly a date with a four-digit year.
constexpr const char EXECUTE_TIME_FORMAT[] = "%.3s %.3s%3d %.2d:%.2d:%.2d %d";
constexpr std::size_t EXECUTE_TIME_BOUND = EXECUTE_TIME_SIZE - 1;

}  // namespace

// The text settings hold their defaults from their initialisers (an array
// cannot be initialised from a named one); home_path starts as
// DEFAULT_HOME_PATH, which the monitor's pages also assume.
char home_path[HOME_PATH_SIZE] = "/home/httpd/manager_svc/";
char ip_addrs[IP_ADDRS_SIZE] = "localhost";  // not checked by isValidIpAddress
int port = DEFAULT_PORT;
int thread_no = DEFAULT_THREAD_NO;
int g_monitor_period = DEFAULT_MONITOR_PERIOD;
char log_file[LOG_FILE_SIZE] = "/tmp/.manager_svc.debug";  // shown, never opened
bool is_daemon = false;
char execute_time[EXECUTE_TIME_SIZE] = "";

namespace {

// One row per option letter: what it sets and how its argument is checked.
struct option_entry {
    char letter;
    options_result (*apply)(const option_entry& entry, const char* argument);
    const char* name;  // setting name in the failure message
    int* number;       // the numeric setting, for the numeric options
};

options_result reject(const option_entry& entry, const char* argument) {
    fprintf(stderr, "invalid %s:[%s]\nemergency exit.\n", entry.name, argument);
    return OPTIONS_EXIT_FAILURE;
}

options_result set_daemon(const option_entry&, const char*) {
    is_daemon = true;
    return OPTIONS_RUN;
}

options_result show_help(const option_entry&, const char*) {
    usage();
    return OPTIONS_EXIT_SUCCESS;
}

// The directory is checked with the whole argument, then stored cut.
options_result set_home_path(const option_entry& entry, const char* argument) {
    DIR* directory = opendir(argument);
    if (directory == nullptr) {
        return reject(entry, argument);
    }
    closedir(directory);
    snprintf(home_path, sizeof home_path, "%s", argument);
    return OPTIONS_RUN;
}

options_result set_ip_addrs(const option_entry& entry, const char* argument) {
    if (!isValidIpAddress(argument)) {
        return reject(entry, argument);
    }
    snprintf(ip_addrs, sizeof ip_addrs, "%s", argument);
    return OPTIONS_RUN;
}

// -m, -p and -t: any number above 0; no upper bound.
options_result set_positive(const option_entry& entry, const char* argument) {
    int value = read_decimal_int(argument);
    if (value <= 0) {
        return reject(entry, argument);
    }
    *entry.number = value;
    return OPTIONS_RUN;
}

// Compared as unsigned so that a negative level fails too.
options_result set_verbose_level(const option_entry& entry, const char* argument) {
    int value = read_decimal_int(argument);
    if (static_cast<unsigned>(value) > static_cast<unsigned>(HIGHEST_VERBOSE_LEVEL)) {
        return reject(entry, argument);
    }
    verbose_level = value;
    return OPTIONS_RUN;
}

const option_entry OPTION_TABLE[] = {
    {'d', set_daemon, nullptr, nullptr},
    {'D', set_home_path, HOME_PATH_NAME, nullptr},
    {'h', show_help, nullptr, nullptr},
    {'i', set_ip_addrs, IP_ADDRS_NAME, nullptr},
    {'m', set_positive, MONITOR_PERIOD_NAME, &g_monitor_period},
    {'p', set_positive, PORT_NAME, &port},
    {'t', set_positive, THREAD_NO_NAME, &thread_no},
    {'v', set_verbose_level, VERBOSE_LEVEL_NAME, nullptr},
};

// An unknown letter or a missing argument: getopt has printed its own
// line already. optopt is a char that may be negative for bytes above
// 0x7f, so it is taken as unsigned char before isprint sees it.
options_result reject_illegal_option() {
    unsigned char letter = static_cast<unsigned char>(optopt);
    fprintf(stderr, "Illegal option:-%c\n", isprint(letter) ? letter : UNPRINTABLE_OPTION);
    usage();
    return OPTIONS_EXIT_SUCCESS;
}

options_result apply_option(int letter, const char* argument) {
    for (const option_entry& entry : OPTION_TABLE) {
        if (entry.letter == letter) {
            return entry.apply(entry, argument);
        }
    }
    return reject_illegal_option();
}

void fill_execute_time() {
    time_t now = time(nullptr);
    struct tm* local = localtime(&now);
    if (local == nullptr) {
        return;
    }
// The cut at EXECUTE_TIME_BOUND is intended (only a year past 9999 reaches
// it), so the compiler's truncation warning is off for this one call.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
    snprintf(execute_time, EXECUTE_TIME_BOUND, EXECUTE_TIME_FORMAT,
             WEEKDAY_NAMES[local->tm_wday], MONTH_NAMES[local->tm_mon], local->tm_mday,
             local->tm_hour, local->tm_min, local->tm_sec, local->tm_year + TM_YEAR_BASE);
#pragma GCC diagnostic pop
}

void print_banner_settings() {
    print_log(ERR, "==== execute %s ==== \n", PROGRAM_NAME);
    print_log(ERR, "is_daemon     : [%s]\n", is_daemon ? "true" : "false");
    print_log(ERR, "listen        : [%s:%d]\n", ip_addrs, port);
    print_log(ERR, "thread_no     : [%d]\n", thread_no);
    print_log(ERR, "verbose_level : [%d]\n", verbose_level);
    print_log(ERR, "log_file      : [%s]\n", log_file);
    print_log(ERR, "home_path     : [%s]\n", home_path);
}

}  // namespace

void usage() {
    fprintf(stderr, "%s %s\n", PROGRAM_NAME, PROGRAM_VERSION);
    fprintf(stderr, "usage : %s [OPTION]... \n\n", PROGRAM_NAME);
    fputs(USAGE_OPTIONS, stderr);
}

// optind = 0 makes glibc's getopt start afresh (it re-reads argv and
// forgets a half-read word such as "-dv"), so the parser can run more than
// once in one process, as the unit tests do. getopt reports unknown options
// and missing arguments itself (opterr stays on).
options_result parse_options(int argc, char* argv[]) {
    optind = 0;
    opterr = 1;
    int letter;
    while ((letter = getopt(argc, argv, OPTION_STRING)) != -1) {
        options_result result = apply_option(letter, optarg);
        if (result != OPTIONS_RUN) {
            return result;
        }
    }
    print_banner_settings();
    fill_execute_time();
    print_log(ERR, "execute_time  : [%s]\n", execute_time);
    return OPTIONS_RUN;
}
