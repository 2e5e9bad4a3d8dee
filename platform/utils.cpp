// utils.cpp - the utility helpers: address validation, marker files and
// typed reads of JSON members. Stateless; safe on any thread.
#include "platform/utils.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

constexpr mode_t TOUCHED_FILE_MODE = 0644;

bool isValidIpAddress(const char* text) {
    unsigned char address[sizeof(struct in6_addr)];
    return text != nullptr && (inet_pton(AF_INET, text, address) == 1 ||
                               inet_pton(AF_INET6, text, address) == 1);
}

int touch_file(const char* path) {
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, TOUCHED_FILE_MODE);
    if (fd < 0) {
        return -1;
    }
    futimens(fd, nullptr);
    close(fd);
    return 0;
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

int get_json_str_by_key(json_object* object, const char* key, char* buffer,
                        unsigned int size) {
    json_object* member = typed_member(object, key, json_type_string);
    if (member == nullptr || size == 0) {
        return -1;
    }
    snprintf(buffer, size, "%s", json_object_get_string(member));
    return 0;
}

int get_json_int_by_key(json_object* object, const char* key, int& value) {
    json_object* member = typed_member(object, key, json_type_int);
    if (member == nullptr) {
        return -1;
    }
    value = json_object_get_int(member);
    return 0;
}
