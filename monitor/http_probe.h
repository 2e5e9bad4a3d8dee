// http_probe.h - reachability checks at the HTTP level: for each target
// address and port, does a service answer an HTTP request within a time
// limit? A check connects, sends PROBE_REQUEST, reads the status line, then
// reads on to the end (bounded) so that the service closes first: the
// check leaves neither a reset nor a TIME_WAIT socket on the daemon's side.
// All targets of one call are checked in parallel with non-blocking sockets
// and one poll loop, at most PROBE_IN_FLIGHT at a time; each result is
// handed to the caller as soon as it is known, not when the last check ends.
// No name is ever resolved: numeric IPv4/IPv6 addresses, and "localhost"
// (or "localhost.") as 127.0.0.1. No globals: calls on different threads
// do not meet.
#ifndef MANAGER_SVC_HTTP_PROBE_H
#define MANAGER_SVC_HTTP_PROBE_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// The one request every service gets: it names no resource, so any HTTP
// server answers it (mostly 400, 404, 405 or 501) without running one of
// the service's own handlers.
constexpr const char PROBE_REQUEST[] = "OPTIONS * HTTP/1.0\r\n\r\n";
// Checks in flight at once (each holds one descriptor).
constexpr std::size_t PROBE_IN_FLIGHT = 64;

// Error texts of a failed check (others come from the connect error).
constexpr const char PROBE_NOT_NUMERIC[] = "not a numeric address";
constexpr const char PROBE_INVALID_PORT[] = "invalid port";
constexpr const char PROBE_TIMED_OUT[] = "timed out";
constexpr const char PROBE_NO_STATUS[] = "no status line in time";
constexpr const char PROBE_CLOSED[] = "closed without a status line";
constexpr const char PROBE_NOT_HTTP[] = "not an HTTP status line";

// What a check found: the connection failed, was accepted but brought no
// status line, or brought one.
enum class probe_state { down, no_answer, up };

struct probe_target {
    std::string ip;
    int port = 0;
};

struct probe_result {
    probe_state state = probe_state::down;
    int http_status = 0;     // the status code, when up
    double latency_ms = 0;   // from the check's connect to its status line, when up
    const char* error = "";  // static text, "" when up
};

// Called on the checking thread, once per target, as soon as the result
// of targets[index] is known (an up check may still be draining then).
using probe_done = std::function<void(std::size_t index, const probe_result& result)>;

// Checks every target, each within timeout_ms from its own connect, and
// hands each result to `done`. Returns false as soon as `stop_fd` becomes
// readable (-1: never), with the targets still in flight unreported; true
// when every target's result has been handed over.
bool probe_targets(const std::vector<probe_target>& targets, int timeout_ms, int stop_fd,
                   const probe_done& done);

#endif
