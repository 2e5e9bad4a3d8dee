// print_log.h - the console log (standard error, filtered by verbose_level)
// and the shorthand for the device's debug log.
// print_log keeps no state; it reads verbose_level, which is fixed before
// any thread starts. Safe from any thread; not from a signal handler.
#ifndef MANAGER_SVC_PRINT_LOG_H
#define MANAGER_SVC_PRINT_LOG_H

#include "common/device_paths.h"
#include "platform/dlog.h"

enum log_level : unsigned {
    ERR = 0,
    WARN = 1,
    DEBUG = 2,
};

// The console's level (-v): messages above it are not shown.
extern int verbose_level;

// Largest message that reaches the console; longer ones are cut.
constexpr int PRINT_LOG_MAX_CHARS = 2046;

// Writes the formatted message to standard error when level <= 2 and
// level <= verbose_level. Nothing is added to the text.
void print_log(unsigned level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// One record in the debug log file, whatever the verbose level.
#define debug_log(...) \
    log_File_Debug_s(DEBUG_LOG_PATH, DEBUG_LOG_SIZE_LIMIT, __VA_ARGS__)

#endif
