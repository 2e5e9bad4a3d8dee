// utils.h - the device's utility helpers: address validation, marker
// files and typed reads of JSON members. Stateless and thread-safe.
#ifndef MANAGER_SVC_UTILS_H
#define MANAGER_SVC_UTILS_H

#include <json-c/json.h>

// True for IPv4 or IPv6 address text (inet_pton); false for anything else,
// host names such as "localhost" included.
bool isValidIpAddress(const char* text);

// Creates the file if it is missing (empty) and updates its times.
// Returns RESULT_OK (common/result_codes.h), or open's errno, negated,
// when it cannot be created.
int touch_file(const char* path);

// Copies the string member `key` of `object` into `buffer` (at most
// size - 1 bytes, always zero-terminated; a longer text is cut after its
// last whole UTF-8 character that fits). Leaves the buffer untouched when
// `object` is not an object, the member is absent or not a string.
// Returns RESULT_OK when copied, RESULT_NOT_FOUND otherwise.
int get_json_str_by_key(json_object* object, const char* key, char* buffer,
                        unsigned int size);

// Stores the integer member `key` of `object` in `value`. Leaves it
// untouched when the member is absent or not an integer.
// Returns RESULT_OK when stored, RESULT_NOT_FOUND otherwise.
int get_json_int_by_key(json_object* object, const char* key, int& value);

#endif
