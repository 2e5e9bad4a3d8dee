// settings.h - the process-wide settings, the option parser, the usage
// text and the start-up banner.
// Every setting is written only while the options are parsed, on the only
// thread there is, and is read-only once threads exist (no lock).
#ifndef MANAGER_SVC_SETTINGS_H
#define MANAGER_SVC_SETTINGS_H

#include <cstddef>

#include "common/print_log.h"  // verbose_level, set by -v

constexpr const char PROGRAM_NAME[] = "manager_svc";
constexpr const char PROGRAM_VERSION[] = "1.0.0";

constexpr std::size_t HOME_PATH_SIZE = 128;
constexpr std::size_t IP_ADDRS_SIZE = 32;
constexpr std::size_t LOG_FILE_SIZE = 128;
constexpr std::size_t EXECUTE_TIME_SIZE = 26;

extern char home_path[HOME_PATH_SIZE];
extern char ip_addrs[IP_ADDRS_SIZE];
extern int port;
extern int thread_no;
extern int g_monitor_period;
extern char log_file[LOG_FILE_SIZE];
extern bool is_daemon;
extern char execute_time[EXECUTE_TIME_SIZE];

// What main does after parse_options.
enum options_result {
    OPTIONS_RUN = 0,           // settings complete, banner printed: start
    OPTIONS_EXIT_SUCCESS = 1,  // -h or an unknown option: exit status 0
    OPTIONS_EXIT_FAILURE = 2,  // an invalid value: exit status 1
};

// Parses the command line in order, prints the usage text or the failure
// message where one is due, and the banner when all options are valid.
options_result parse_options(int argc, char* argv[]);

// The usage text, on standard error.
void usage();

#endif
