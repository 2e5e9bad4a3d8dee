// utils.cpp - the utility helpers: address validation, marker files and
// typed reads of JSON members. Stateless; safe on any thread.
#include "platform/utils.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/result_codes.h"

constexpr mode_t TOUCHED_FILE_MODE = 0644;
// A UTF-8 character has at most three bytes after its first.
constexpr int MAX_UTF8_CONTINUATION_BYTES = 3;

bool isValidIpAddress(const char* text) {
    unsigned char address[sizeof(struct in6_addr)];
    return text != nullptr && (inet_pton(AF_INET, text, address) == 1 ||
                               inet_pton(AF_INET6, text, address) == 1);
}

int touch_file(const char* path) {
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, TOUCHED_FILE_MODE);
    if (fd < 0) {
        return -errno;
    }
    futimens(fd, nullptr);
    close(fd);
    return RESULT_OK;
}

// The member `key` of `object` when it is of `type`, or null.
static json_object* typed_member(json_object* object, const char* key, json_type type) {
    json_object* member = nullptr;
    if (!json_object_is_type(object, json_type_object) ||
        !json_object_object_get_ex(object, key, &member) ||
        !json_object_is_type(member, type)) {
        return nullptr;
    }
    return member;
}

static bool is_utf8_continuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// How much of `text` fits in `room` bytes: all of it, or the longest part
// that ends with a whole UTF-8 character (a cut text stays valid UTF-8, so
// every JSON reply that carries it does too; ASCII is cut at `room`).
static std::size_t fitting_length(const char* text, std::size_t room) {
    std::size_t length = strnlen(text, room + 1);
    if (length <= room) {
        return length;
    }
    length = room;
    for (int back = 0; back < MAX_UTF8_CONTINUATION_BYTES && length > 0 &&
                       is_utf8_continuation(text[length]);
         ++back) {
        --length;
    }
    return length;
}

int get_json_str_by_key(json_object* object, const char* key, char* buffer,
                        unsigned int size) {
    json_object* member = typed_member(object, key, json_type_string);
    if (member == nullptr || size == 0) {
        return RESULT_NOT_FOUND;
    }
    const char* text = json_object_get_string(member);
    const std::size_t length = fitting_length(text, size - 1);
    snprintf(buffer, size, "%.*s", static_cast<int>(length), text);
    return RESULT_OK;
}

int get_json_int_by_key(json_object* object, const char* key, int& value) {
    json_object* member = typed_member(object, key, json_type_int);
    if (member == nullptr) {
        return RESULT_NOT_FOUND;
    }
    value = json_object_get_int(member);
    return RESULT_OK;
}
