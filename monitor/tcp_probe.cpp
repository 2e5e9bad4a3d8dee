// tcp_probe.cpp - parallel TCP connect checks with one poll loop.
// Every socket is non-blocking and close-on-exec (an init script started
// meanwhile never inherits one) and lives only inside one call. A connect
// that completes is closed at once with a reset (linger 0): the check
// leaves no TIME_WAIT socket behind (a thousand services checked every
// second would otherwise keep tens of thousands of them) and costs the
// device half the packets. Stateless: no globals, no lock.
#include "monitor/tcp_probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace {

constexpr int LOWEST_PORT = 1;
constexpr int HIGHEST_PORT = 65535;
constexpr long long MICROSECONDS_PER_MILLISECOND = 1000;

struct connect_attempt {
    int fd;
    std::size_t index;
    long long started_us;
    long long deadline_us;
};

long long monotonic_us() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

struct errno_text {
    int error;
    const char* text;
};

const errno_text CONNECT_ERRORS[] = {
    {ECONNREFUSED, "connection refused"},   {ETIMEDOUT, PROBE_TIMED_OUT},
    {EHOSTUNREACH, "host unreachable"},     {ENETUNREACH, "network unreachable"},
    {EADDRNOTAVAIL, "address not available"}, {ECONNRESET, "connection reset"},
    {EACCES, "not permitted"},              {EPERM, "not permitted"},
    {EMFILE, "out of descriptors"},         {ENFILE, "out of descriptors"},
    {EAFNOSUPPORT, "address family not supported"},
};

const char* connect_error_text(int error) {
    for (const errno_text& entry : CONNECT_ERRORS) {
        if (entry.error == error) {
            return entry.text;
        }
    }
    return "connect failed";
}

// The socket address of a numeric IPv4 or IPv6 text (inet_pton: dotted
// quads and standard IPv6 texts, no names, no scope ids).
bool numeric_address(const std::string& ip, int port, sockaddr_storage* address,
                     socklen_t* length) {
    std::memset(address, 0, sizeof *address);
    sockaddr_in* v4 = reinterpret_cast<sockaddr_in*>(address);
    if (inet_pton(AF_INET, ip.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        *length = sizeof *v4;
        return true;
    }
    sockaddr_in6* v6 = reinterpret_cast<sockaddr_in6*>(address);
    if (inet_pton(AF_INET6, ip.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        *length = sizeof *v6;
        return true;
    }
    return false;
}

void set_failed(probe_result& result, const char* error) {
    result.reachable = false;
    result.latency_ms = 0;
    result.error = error;
}

// Closes a check's socket: a connected one with a reset rather than the
// FIN exchange; one that never connected has nothing to reset.
void close_check(int fd, bool connected) {
    if (connected) {
        const linger reset = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    close(fd);
}

void set_reachable(probe_result& result, long long started_us, long long now_us) {
    result.reachable = true;
    result.latency_ms = static_cast<double>(now_us - started_us) /
                        static_cast<double>(MICROSECONDS_PER_MILLISECOND);
    result.error = "";
}

// Starts the connect of targets[index]. True when it is in flight (then
// `attempt` holds it); false when its result is already known.
bool start_connect(const probe_target& target, std::size_t index, int timeout_ms,
                   connect_attempt* attempt, std::vector<probe_result>& results) {
    sockaddr_storage address;
    socklen_t length = 0;
    if (!numeric_address(target.ip, target.port, &address, &length)) {
        set_failed(results[index], PROBE_NOT_NUMERIC);
        return false;
    }
    if (target.port < LOWEST_PORT || target.port > HIGHEST_PORT) {
        set_failed(results[index], PROBE_INVALID_PORT);
        return false;
    }
    int fd = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        set_failed(results[index], connect_error_text(errno));
        return false;
    }
    long long started = monotonic_us();
    int error = connect(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 ? 0 : errno;
    if (error != EINPROGRESS) {
        error == 0 ? set_reachable(results[index], started, monotonic_us())
                   : set_failed(results[index], connect_error_text(error));
        close_check(fd, error == 0);
        return false;
    }
    *attempt = {fd, index, started, started + timeout_ms * MICROSECONDS_PER_MILLISECOND};
    return true;
}

// The outcome of a connect that poll reported: writable alone means
// connected; with an error or hang-up, SO_ERROR tells why it failed.
void finish_reported(const connect_attempt& attempt, short revents, long long now_us,
                     std::vector<probe_result>& results) {
    int error = 0;
    if (revents != POLLOUT) {
        socklen_t size = sizeof error;
        if (getsockopt(attempt.fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
            error = errno;
        } else if (error == 0) {
            error = ECONNRESET;  // hung up with no error left to read
        }
    }
    error == 0 ? set_reachable(results[attempt.index], attempt.started_us, now_us)
               : set_failed(results[attempt.index], connect_error_text(error));
    close_check(attempt.fd, error == 0);
}

// Milliseconds until the nearest deadline (rounded up), at least 0.
int poll_timeout_ms(const std::vector<connect_attempt>& flight, long long now_us) {
    long long nearest = flight.front().deadline_us;
    for (const connect_attempt& attempt : flight) {
        nearest = attempt.deadline_us < nearest ? attempt.deadline_us : nearest;
    }
    long long wait = nearest - now_us;
    return wait <= 0 ? 0
                     : static_cast<int>((wait + MICROSECONDS_PER_MILLISECOND - 1) /
                                        MICROSECONDS_PER_MILLISECOND);
}

// Settles every attempt that poll reported or whose time is up; the rest
// stay in flight. fds[i] belongs to flight[i].
void settle(std::vector<connect_attempt>& flight, const std::vector<pollfd>& fds,
            std::vector<probe_result>& results) {
    long long now = monotonic_us();
    for (std::size_t i = flight.size(); i-- > 0;) {
        if (fds[i].revents != 0) {
            finish_reported(flight[i], fds[i].revents, now, results);
        } else if (now >= flight[i].deadline_us) {
            set_failed(results[flight[i].index], PROBE_TIMED_OUT);
            close_check(flight[i].fd, false);
        } else {
            continue;
        }
        flight[i] = flight.back();
        flight.pop_back();
    }
}

void close_all(const std::vector<connect_attempt>& flight) {
    for (const connect_attempt& attempt : flight) {
        close_check(attempt.fd, false);
    }
}

}  // namespace

bool probe_targets(const std::vector<probe_target>& targets, const probe_limits& limits,
                   int stop_fd, std::vector<probe_result>& results) {
    results.assign(targets.size(), probe_result());
    std::vector<connect_attempt> flight;
    std::vector<pollfd> fds;
    std::size_t next = 0;
    for (;;) {
        while (next < targets.size() && flight.size() < limits.window) {
            connect_attempt attempt;
            if (start_connect(targets[next], next, limits.timeout_ms, &attempt, results)) {
                flight.push_back(attempt);
            }
            ++next;
        }
        if (flight.empty()) {
            return true;
        }
        fds.clear();
        for (const connect_attempt& attempt : flight) {
            fds.push_back({attempt.fd, POLLOUT, 0});
        }
        fds.push_back({stop_fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), poll_timeout_ms(flight, monotonic_us())) < 0 &&
            errno != EINTR) {
            fds.back().revents = POLLERR;  // cannot wait any more: give up the round
        }
        if (fds.back().revents != 0) {
            close_all(flight);
            return false;
        }
        settle(flight, fds, results);
    }
}
