// json_values.h - JSON values that several replies share: a UTC time as
// "YYYY-MM-DDTHH:MM:SSZ" and numbers that may be unknown (JSON null).
// Stateless; safe on any thread.
#ifndef MANAGER_SVC_JSON_VALUES_H
#define MANAGER_SVC_JSON_VALUES_H

#include <json-c/json.h>

#include <ctime>

// A time that has not happened yet (never a real clock reading here).
constexpr time_t NO_TIME = 0;

// "YYYY-MM-DDTHH:MM:SSZ" for `when`, or null (nullptr) for NO_TIME.
json_object* new_utc_time_or_null(time_t when);

// The integer, or null (nullptr) when it is not known.
json_object* new_int_or_null(bool known, int value);

#endif
