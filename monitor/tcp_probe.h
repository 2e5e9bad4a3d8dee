// tcp_probe.h - reachability checks: for each target address and port, can
// a TCP connection be opened within a time limit? All targets of one call
// are checked in parallel with non-blocking connects and one poll loop, at
// most `window` connects in flight at a time (each holds one descriptor).
// No name is ever resolved: only numeric IPv4/IPv6 addresses are tried.
// Stateless; every call owns its sockets, so calls on different threads do
// not meet.
#ifndef MANAGER_SVC_TCP_PROBE_H
#define MANAGER_SVC_TCP_PROBE_H

#include <cstddef>
#include <string>
#include <vector>

// Error texts of a failed check (others come from the connect error).
constexpr const char PROBE_NOT_NUMERIC[] = "not a numeric address";
constexpr const char PROBE_INVALID_PORT[] = "invalid port";
constexpr const char PROBE_TIMED_OUT[] = "timed out";

struct probe_target {
    std::string ip;
    int port = 0;
};

struct probe_result {
    bool reachable = false;
    double latency_ms = 0;      // connect time, when reachable
    const char* error = "";     // static text, "" when reachable
};

struct probe_limits {
    int timeout_ms;       // per check, from its connect
    std::size_t window;   // connects in flight at once (at least 1)
};

// Checks every target; results[i] belongs to targets[i]. Returns false,
// with the results incomplete, as soon as `stop_fd` becomes readable
// (-1: never); true when every target has its result.
bool probe_targets(const std::vector<probe_target>& targets, const probe_limits& limits,
                   int stop_fd, std::vector<probe_result>& results);

#endif
