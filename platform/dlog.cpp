// dlog.cpp - the debug-log library: one time-stamped record per call,
// appended with a single write(2) to a file opened with O_APPEND, and
// rotation to "<path>.1" when the file would pass its size limit.
// rotation_lock serialises the size check, the rename and the write, so
// that two threads never rotate the same file twice or write between.
#include "platform/dlog.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "common/result_codes.h"

namespace {

// Longest record; a longer message is cut (the line feed is kept).
constexpr std::size_t MAX_RECORD = 2048;
constexpr mode_t LOG_DIR_MODE = 0755;
constexpr mode_t LOG_FILE_MODE = 0644;

std::mutex rotation_lock;  // guards the check-rotate-append sequence

// "2026-11-23 10:04:05.123 manager_svc[42]: " into `out`; returns its length.
int format_record_prefix(char* out, std::size_t size) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    return snprintf(out, size, "%s.%03ld %s[%d]: ", stamp,
                    static_cast<long>(now.tv_usec / 1000),
                    program_invocation_short_name, static_cast<int>(getpid()));
}

// Renames the file to "<path>.1" when `incoming` more bytes would pass the limit.
void rotate_if_full(const char* path, int size_limit, std::size_t incoming) {
    struct stat info;
    if (stat(path, &info) != 0 || info.st_size == 0) {
        return;
    }
    if (static_cast<unsigned long long>(info.st_size) + incoming <=
        static_cast<unsigned long long>(size_limit)) {
        return;
    }
    std::string rotated = std::string(path) + ".1";
    rename(path, rotated.c_str());
}

int append_record(const char* path, const char* record, std::size_t length) {
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, LOG_FILE_MODE);
    if (fd < 0) {
        dlog_make_parent_dirs(path);
        fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, LOG_FILE_MODE);
    }
    if (fd < 0) {
        return -errno;
    }
    ssize_t written = write(fd, record, length);
    const int result = written < 0                                    ? -errno
                       : written == static_cast<ssize_t>(length) ? RESULT_OK
                                                                 : RESULT_IO;
    close(fd);
    return result;
}

}  // namespace

extern "C" int dlog_make_parent_dirs(const char* path) {
    std::string dirs(path);
    for (std::size_t slash = dirs.find('/', 1); slash != std::string::npos;
         slash = dirs.find('/', slash + 1)) {
        std::string dir = dirs.substr(0, slash);
        if (mkdir(dir.c_str(), LOG_DIR_MODE) != 0 && errno != EEXIST) {
            return -errno;
        }
    }
    return RESULT_OK;
}

extern "C" int log_File_Debug_s(const char* path, int size_limit, const char* format, ...) {
    char record[MAX_RECORD];
    int prefix = format_record_prefix(record, sizeof record);
    va_list args;
    va_start(args, format);
    vsnprintf(record + prefix, sizeof record - prefix - 1, format, args);
    va_end(args);
    std::size_t length = strlen(record);
    record[length++] = '\n';

    std::lock_guard<std::mutex> hold(rotation_lock);
    rotate_if_full(path, size_limit, length);
    return append_record(path, record, length);
}
