// tcp_probe.h - reachability checks: for each target address and port, can
// a TCP connection be opened within a time limit? All targets of one call
// are checked in parallel with non-blocking connects and one poll loop, at
// most `window` connects in flight at a time (each holds one descriptor).
// No name is ever resolved: only numeric IPv4/IPv6 addresses are tried.
// No globals: a call's sockets come from the probe_sockets it is given (or
// its own), so calls on different threads with their own do not meet.
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

// Sockets kept from one check to the next. A finished check's socket is
// disconnected (a connected one with a reset, as a close with linger 0
// would) and serves a later check of the same family: the kernel is spared
// a socket's set-up and teardown per check, most of what a refused check
// costs. Belongs to one thread; closes what it holds when destroyed.
class probe_sockets {
public:
    probe_sockets() = default;
    probe_sockets(const probe_sockets&) = delete;
    probe_sockets& operator=(const probe_sockets&) = delete;
    ~probe_sockets();

    // An idle socket of `family`, or a new one; -1 (errno set) on failure.
    int take(int family);
    // Keeps the socket for a later check while fewer than `keep` sockets
    // are idle; closes it otherwise, or when it cannot be readied.
    void give_back(int fd, int family, bool connected, std::size_t keep);

private:
    std::vector<int>& idle_of(int family);

    std::vector<int> idle_v4;
    std::vector<int> idle_v6;
};

// Checks every target; results[i] belongs to targets[i]. Returns false,
// with the results incomplete, as soon as `stop_fd` becomes readable
// (-1: never); true when every target has its result. Sockets come from
// and go back to `kept` (null: a set of the call's own), which keeps at
// most `limits.window` idle.
bool probe_targets(const std::vector<probe_target>& targets, const probe_limits& limits,
                   int stop_fd, std::vector<probe_result>& results,
                   probe_sockets* kept = nullptr);

#endif
