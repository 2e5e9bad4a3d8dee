// json_values.cpp - JSON values shared by replies (UTC times, integers that
// may be unknown). Stateless.
#include "endpoints/json_values.h"

#include <cstdio>

namespace {

// "2026-11-23T08:30:00Z" and its terminating zero, with room for years
// beyond 9999.
constexpr std::size_t UTC_TIME_SIZE = 32;

}  // namespace

json_object* new_utc_time_or_null(time_t when) {
    struct tm parts;
    if (when == NO_TIME || gmtime_r(&when, &parts) == nullptr) {
        return nullptr;
    }
    char text[UTC_TIME_SIZE];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return json_object_new_string(text);
}

json_object* new_int_or_null(bool known, int value) {
    return known ? json_object_new_int(value) : nullptr;
}
