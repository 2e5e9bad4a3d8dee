// file_rewrite.h - rewriting a small file in place, so that a crash, a full
// file system or a planted symbolic link costs as little as it can: the
// file is opened without following a final symlink and without blocking on
// a FIFO, the new content must fit before the old is dropped, and it goes
// out in one write(2) right after the truncation.
// Keeps no state and takes no lock: the caller serialises rewrites of one
// file. Used by the registry (svc_info_map) for its file.
#ifndef MANAGER_SVC_FILE_REWRITE_H
#define MANAGER_SVC_FILE_REWRITE_H

#include <cstddef>

// Opens `path` write-only for a rewrite, creating it (mode 0666 less the
// umask) when missing. The content is left as it is. A symbolic link as the
// last component is refused (ELOOP), also a dangling one, so its target is
// never written or created. Returns the descriptor, or -1 with errno set.
int file_rewrite_open(const char* path);

enum class file_rewrite_status {
    done,             // the file holds exactly the new content
    no_space,         // the content cannot fit: the file was left as it was
    truncate_failed,  // the file was left as it was; `error` says why
    write_failed,     // cut back to the whole lines written; `error` says why
};

struct file_rewrite_result {
    file_rewrite_status status = file_rewrite_status::done;
    int error = 0;             // errno of the failed call
    std::size_t written = 0;   // bytes of the new content in the file at the end
};

// Replaces the whole content of the file open on `fd` by `content`:
// 1. checks that the content fits in the file system's free space together
//    with the blocks the old content gives back (when the file system
//    cannot tell, the write's own result decides);
// 2. truncates the file to zero and writes the content with one write(2),
//    going on after a short write until all is written or a write fails;
// 3. after a failed write, cuts the file back to the last line feed written,
//    so that it never ends in half a line.
// The file is empty only between the truncation and the first write.
file_rewrite_result file_rewrite_replace(int fd, const char* content, std::size_t size);

#endif
