// file_rewrite.cpp - rewriting a small text file in place: open without
// following a final symlink, check the space, one write(2) over the old
// content (padded to its length), cut to length, and a cut back to whole
// lines when a write fails (see file_rewrite.h).
// No state, no lock: callers serialise the rewrites of one file.
#include "registry/file_rewrite.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <climits>

namespace {

// What fopen(path, "w") creates a file with, before the umask.
constexpr mode_t NEW_FILE_MODE = 0666;
// st_blocks counts in units of this many bytes, whatever the file system.
constexpr unsigned long long STAT_BLOCK_SIZE = 512;
// Bytes per padding line, its line feed included: one piece for a reader
// that takes lines in pieces of at most 126 characters.
constexpr std::size_t PADDING_LINE = 126;

// Whether `size` bytes fit in the file system's free space together with
// the blocks the file (`file`) holds now. Counts in the file system's
// fragment size; the blocks that only root may use are left out. A file
// system that reports no sizes cannot tell: true.
bool content_fits(int fd, const struct stat& file, std::size_t size) {
    struct statvfs space;
    if (size == 0 || fstatvfs(fd, &space) != 0 || space.f_blocks == 0) {
        return true;
    }
    unsigned long long unit = space.f_frsize != 0 ? space.f_frsize : space.f_bsize;
    if (unit == 0) {
        return true;
    }
    unsigned long long needed = (size + unit - 1) / unit;
    unsigned long long held =
        static_cast<unsigned long long>(file.st_blocks) * STAT_BLOCK_SIZE / unit;
    return needed <= static_cast<unsigned long long>(space.f_bavail) + held;
}

// Appends `length` bytes of lines of spaces, each ended by a line feed.
void append_padding(std::string& content, std::size_t length) {
    std::size_t start = content.size();
    content.append(length, ' ');
    for (std::size_t at = start + PADDING_LINE - 1; at < content.size(); at += PADDING_LINE) {
        content[at] = '\n';
    }
    content.back() = '\n';
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

file_rewrite_result file_rewrite_replace(int fd, std::string content) {
    file_rewrite_result result;
    const std::size_t size = content.size();
    struct stat file;
    const bool known = fstat(fd, &file) == 0;
    if (known && !content_fits(fd, file, size)) {
        result.status = file_rewrite_status::no_space;
        return result;
    }
    // How much longer the old content is; unknown counts as too long to pad.
    const unsigned long long old_size = known ? static_cast<unsigned long long>(file.st_size)
                                              : ULLONG_MAX;
    const unsigned long long excess = old_size > size ? old_size - size : 0;
    if (excess > FILE_REWRITE_MAX_PADDING && ftruncate(fd, 0) != 0) {
        result.status = file_rewrite_status::truncate_failed;
        result.error = errno;
        return result;
    }
    const bool padded = excess > 0 && excess <= FILE_REWRITE_MAX_PADDING;
    if (padded) {
        append_padding(content, static_cast<std::size_t>(excess));
    }
    std::size_t written = write_all(fd, content.data(), content.size(), result.error);
    if (written < size) {
        result.status = file_rewrite_status::write_failed;
        result.written = cut_to_whole_lines(fd, content.data(), written);
        return result;
    }
    result.written = size;
    if (padded && ftruncate(fd, static_cast<off_t>(size)) != 0) {
        result.status = file_rewrite_status::truncate_failed;
        result.error = errno;
    }
    return result;
}
