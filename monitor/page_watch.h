// page_watch.h - tells whether anything may have changed on the way to the
// web pages whose bytes are kept: one inotify descriptor watches each such
// page file and every directory above it up to "/", and counts the changes
// it has seen (a write, a change of mode or times, a name created, removed
// or renamed). The kernel queues such an event before the call that made
// the change returns, and every caller reads what is queued before it
// answers, so a caller that finds the count as it was knows that nothing
// watched has changed in between. (inotify does not see writes through a
// shared memory map, mounts, or changes made by another machine on a
// network file system; the page table does not trust the count for long.)
// setup_lock (in the .cpp) guards making the descriptor and adding watches.
// The count is read and moved without a lock, by any listener thread: a
// caller that cannot be sure that every event read so far is counted (another
// caller is between its read and its count) is told PAGE_WATCH_UNKNOWN.
#ifndef MANAGER_SVC_PAGE_WATCH_H
#define MANAGER_SVC_PAGE_WATCH_H

#include <string>

// The count when it cannot be told: nothing is watched, watching has
// failed, or another caller is counting an event at this moment.
constexpr unsigned long long PAGE_WATCH_UNKNOWN = 0;

// Makes the inotify descriptor, so that it is among the daemon's descriptors
// from start-up on (page_watch_add makes it when this was not called). The
// descriptor is held until the process ends. False when it cannot be made.
bool page_watch_start();

// Watches every directory above real_path (absolute, without "." or
// ".."), from "/" down, and real_path itself. Returns the file's watch, or
// -1 when one of them cannot be watched or is a symlink now.
int page_watch_add(const std::string& real_path);

// Stops watching a file that page_watch_add returned (-1 is ignored; so is a
// watch that the kernel has dropped with its file).
void page_watch_forget(int file_watch);

// The number of changes seen so far, once the queued ones are read (never
// smaller than a count returned before), or PAGE_WATCH_UNKNOWN.
unsigned long long page_watch_changes();

#endif
