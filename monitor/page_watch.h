// page_watch.h - tells whether anything may have changed on the way to the
// web pages whose bytes are kept: one inotify descriptor watches each such
// page file and every directory above it up to "/", and counts the changes
// it has seen (a write, a change of mode or times, a name created, removed
// or renamed). The kernel queues a change's event before the call that made
// it returns, and every caller reads what is queued before it answers, so a
// caller that finds the count as it was knows that nothing watched has
// changed in between.
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

// Watches real_path (absolute, without symlinks, "." or "..") and every
// directory above it, from "/" down. False when one cannot be watched.
bool page_watch_add(const std::string& real_path);

// The number of changes seen so far, once the queued ones are read (never
// smaller than a count returned before), or PAGE_WATCH_UNKNOWN.
unsigned long long page_watch_changes();

#endif
