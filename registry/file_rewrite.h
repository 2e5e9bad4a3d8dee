// file_rewrite.h - rewriting a small text file in place so that a crash, a
// full file system or a planted symbolic link costs as little as it can:
// the file is opened without following a final symlink and without
// blocking on a FIFO, the new content must fit before anything is written,
// and it goes out in one write(2) over the old content, so the file never
// stands empty or half-filled while the rewrite runs.
// Keeps no state and takes no lock: the caller serialises the rewrites of
// one file. Used by the registry (svc_info_map) for its file.
// For the registry this means: a registration or removal is in the file
// before its reply is sent, so a crash (SIGKILL, an OOM kill, a watchdog)
// during a rewrite loses at most the changes not yet acknowledged; padding
// left by a crash between the write and the cut loads as nothing (each line
// logged as a "format error"). Only a crash inside the one write of a file
// larger than a page (about 150 services) can mix the two registries at a
// page boundary. No sync is asked for: after a power loss a file on a disk
// may lack the last changes (on tmpfs, the usual /tmp, it is gone anyway).
#ifndef MANAGER_SVC_FILE_REWRITE_H
#define MANAGER_SVC_FILE_REWRITE_H

#include <cstddef>
#include <string>

// Opens `path` write-only for a rewrite, creating it (mode 0666 less the
// umask) when missing. The content is left as it is. A symbolic link as the
// last component is refused (ELOOP), also a dangling one, so its target is
// never written or created. Returns the descriptor, or -1 with errno set.
int file_rewrite_open(const char* path);

enum class file_rewrite_status {
    done,             // the file holds exactly the new content
    no_space,         // the content cannot fit: the file was left as it was
    truncate_failed,  // ftruncate failed; `error` says why
    write_failed,     // cut back to the whole lines written; `error` says why
};

struct file_rewrite_result {
    file_rewrite_status status = file_rewrite_status::done;
    int error = 0;            // errno of the failed call
    std::size_t written = 0;  // bytes of the new content in the file at the end
};

// An old content longer than the new one by more than this is dropped with
// a truncation before the write instead of being padded over.
constexpr std::size_t FILE_REWRITE_MAX_PADDING = 64 * 1024;

// Replaces the whole content of the file that file_rewrite_open opened on
// `fd` by `content` (lines, each ended by a line feed):
// 1. checks that the content fits in the file system's free space together
//    with the blocks the file already holds (when the file system cannot
//    tell, the write's own result decides); if not, nothing is written;
// 2. writes it from the file's start with one write(2), going on after a
//    short write until all is written or a write fails. An old content that
//    is longer is covered to its end in the same write by padding (lines of
//    spaces of at most 126 bytes, which a reader of "name,ip,port" lines
//    skips as malformed), and the file is then cut to the new length; an old
//    content longer by more than FILE_REWRITE_MAX_PADDING is truncated away
//    just before the write instead;
// 3. after a failed write, cuts the file back to the last line feed of the
//    new content written, so that it never ends in half a line.
// A crash at any moment leaves the old content or the new one (the latter
// perhaps followed by padding), except inside the write itself, which may
// have put only its first pages in place over the old ones. Running out of
// memory for the padding (std::bad_alloc) leaves the file as it was.
file_rewrite_result file_rewrite_replace(int fd, std::string content);

#endif
