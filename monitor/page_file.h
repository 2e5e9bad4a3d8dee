// page_file.h - one web-page file as it is served: opened so that the
// containment check holds for the very file that is read, and its bytes
// shared by every in-flight reply for the same unchanged file.
// page_table_lock (in page_file.cpp) guards the table of shared page bytes
// with each entry's trust (a version served without a stat while inotify
// sees no change, see page_watch.h); it is held only to look an entry up
// or to store one, never while a file is opened or read. Everything else
// belongs to the calling request.
#ifndef MANAGER_SVC_PAGE_FILE_H
#define MANAGER_SVC_PAGE_FILE_H

#include <sys/types.h>

#include <ctime>
#include <memory>
#include <string>

// Largest file served; a larger one gets the 404 page.
constexpr long long WEB_MAX_FILE_SIZE = 4 * 1024 * 1024;

// What tells one version of a file from another, taken with fstat on the
// opened file: a change of content changes the size or the times.
struct page_identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};
};

struct page_file {
    page_identity identity;
    std::shared_ptr<const std::string> bytes;  // immutable; shared with other replies
    // The table keeps these very bytes between requests (a small page,
    // unchanged for a while): the same pointer comes back until the file
    // changes or the table drops it.
    bool kept = false;
};

// Opens abs_path (symlinks followed) without reading it, checks the file
// actually opened - a regular file of at most WEB_MAX_FILE_SIZE bytes whose
// path, as the kernel names the opened file, lies inside real_home - and
// yields its identity and bytes. The bytes come from the table while an
// unchanged copy is in use or kept there; otherwise the file is read. A
// trusted version (checked so when it was read, and unchanged since) is
// served from the table without opening anything.
// False (and *page untouched) when the file may not be served.
bool open_page_file(const std::string& real_home, const std::string& abs_path, page_file* page);

// True when both name the same version of the same file.
bool same_page_version(const page_identity& a, const page_identity& b);

// True when path lies strictly below directory (both canonical).
bool path_inside_directory(const std::string& directory, const std::string& path);

#endif
