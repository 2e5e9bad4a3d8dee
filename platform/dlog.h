// dlog.h - the device's debug-log library: appends one time-stamped
// record per call to a file, rotating it when it grows past a size limit.
#ifndef MANAGER_SVC_DLOG_H
#define MANAGER_SVC_DLOG_H

extern "C" {
// Appends "<time> <program>[<pid>]: <message>\n" to `path`, creating its
// directories. When the file would pass `size_limit` bytes it is first
// renamed to "<path>.1" (replacing an older one). Safe from any thread.
// Returns RESULT_OK (common/result_codes.h), or when the record could not
// be written the failed call's errno, negated (RESULT_IO: a short write).
int log_File_Debug_s(const char* path, int size_limit, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Creates every missing directory above the file named by `path`, as the
// first record would. For callers that must later open the file where
// creating directories is not allowed (a crash handler).
// Returns RESULT_OK, or mkdir's errno, negated, when a directory could not
// be made.
int dlog_make_parent_dirs(const char* path);
}

#endif
