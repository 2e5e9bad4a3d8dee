// print_log.cpp - the console log. Keeps no state: each call formats into
// its own stack buffer and writes it with one fputs, so lines of different
// threads never mix within a line.
#include "common/print_log.h"

#include <cstdarg>
#include <cstdio>

int verbose_level = 0;

constexpr unsigned HIGHEST_SHOWN_LEVEL = DEBUG;

void print_log(unsigned level, const char* format, ...) {
    if (level > HIGHEST_SHOWN_LEVEL || verbose_level < static_cast<int>(level)) {
        return;
    }
    char message[PRINT_LOG_MAX_CHARS + 2];
    va_list args;
    va_start(args, format);
    vsnprintf(message, PRINT_LOG_MAX_CHARS + 1, format, args);
    va_end(args);
    fputs(message, stderr);
}
