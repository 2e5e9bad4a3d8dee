// file_rewrite.cpp - rewriting a small file in place: open without
// following a final symlink, check the space, truncate, one write(2), and a
// cut back to whole lines when a write fails (see file_rewrite.h).
// No state, no lock: callers serialise the rewrites of one file.
#include "registry/file_rewrite.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>

namespace {

// What fopen(path, "w") creates a file with, before the umask.
constexpr mode_t NEW_FILE_MODE = 0666;
// st_blocks counts in units of this many bytes, whatever the file system.
constexpr unsigned long long STAT_BLOCK_SIZE = 512;

// Whether `size` bytes fit once the file's own blocks are given back.
// Counts in the file system's fragment size; the blocks that only root may
// use are left out. A file system that reports no sizes cannot tell: true.
bool content_fits(int fd, std::size_t size) {
    struct stat file;
    struct statvfs space;
    if (size == 0 || fstat(fd, &file) != 0 || fstatvfs(fd, &space) != 0 ||
        space.f_blocks == 0) {
        return true;
    }
    unsigned long long unit = space.f_frsize != 0 ? space.f_frsize : space.f_bsize;
    if (unit == 0) {
        return true;
    }
    unsigned long long needed = (size + unit - 1) / unit;
    unsigned long long freed =
        static_cast<unsigned long long>(file.st_blocks) * STAT_BLOCK_SIZE / unit;
    return needed <= static_cast<unsigned long long>(space.f_bavail) + freed;
}

// Cuts the file back to the last line feed among the first `written` bytes
// of `content`; returns the bytes left in the file.
std::size_t cut_to_whole_lines(int fd, const char* content, std::size_t written) {
    std::size_t keep = written;
    while (keep > 0 && content[keep - 1] != '\n') {
        keep--;
    }
    return ftruncate(fd, static_cast<off_t>(keep)) == 0 ? keep : written;
}

// Writes all of `content` from the file's start, one write(2) unless the
// system takes less at a time. Returns the bytes written; `error` gets the
// errno of a failed write (EIO when a write makes no progress).
std::size_t write_all(int fd, const char* content, std::size_t size, int& error) {
    std::size_t written = 0;
    while (written < size) {
        ssize_t count = write(fd, content + written, size - written);
        if (count > 0) {
            written += static_cast<std::size_t>(count);
        } else if (count < 0 && errno == EINTR) {
            continue;
        } else {
            error = count < 0 ? errno : EIO;
            break;
        }
    }
    return written;
}

}  // namespace

int file_rewrite_open(const char* path) {
    return open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, NEW_FILE_MODE);
}

file_rewrite_result file_rewrite_replace(int fd, const char* content, std::size_t size) {
    file_rewrite_result result;
    if (!content_fits(fd, size)) {
        result.status = file_rewrite_status::no_space;
        return result;
    }
    if (ftruncate(fd, 0) != 0) {
        result.status = file_rewrite_status::truncate_failed;
        result.error = errno;
        return result;
    }
    result.written = write_all(fd, content, size, result.error);
    if (result.written < size) {
        result.status = file_rewrite_status::write_failed;
        result.written = cut_to_whole_lines(fd, content, result.written);
    }
    return result;
}
