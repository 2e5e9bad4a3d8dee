// tcp_probe.cpp - parallel TCP connect checks with one poll loop, and the
// sockets kept between checks.
// Every socket is non-blocking and close-on-exec (an init script started
// meanwhile never inherits one). A connect that completes is ended at once
// with a reset, by disconnecting the socket for its next check or by a
// close with linger 0: the check leaves no TIME_WAIT socket behind (a
// thousand services checked every second would otherwise keep tens of
// thousands of them) and costs the device half the packets. No globals, no
// lock: a probe_sockets belongs to the thread that uses it.
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
    int family;
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

// One call's share of work: its limits, its sockets and its results.
struct probe_round {
    const probe_limits& limits;
    probe_sockets& sockets;
    std::vector<probe_result>& results;
};

// Hands a finished check's socket back for later checks.
void end_check(probe_round& round, const connect_attempt& attempt, bool connected) {
    round.sockets.give_back(attempt.fd, attempt.family, connected, round.limits.window);
}

// Starts the connect of targets[index]. True when it is in flight (then
// `attempt` holds it); false when its result is already known.
bool start_connect(const probe_target& target, std::size_t index, probe_round& round,
                   connect_attempt* attempt) {
    std::vector<probe_result>& results = round.results;
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
    int fd = round.sockets.take(address.ss_family);
    if (fd < 0) {
        set_failed(results[index], connect_error_text(errno));
        return false;
    }
    long long started = monotonic_us();
    *attempt = {fd, address.ss_family, index, started,
                started + round.limits.timeout_ms * MICROSECONDS_PER_MILLISECOND};
    int error = connect(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 ? 0 : errno;
    if (error != EINPROGRESS) {
        error == 0 ? set_reachable(results[index], started, monotonic_us())
                   : set_failed(results[index], connect_error_text(error));
        end_check(round, *attempt, error == 0);
        return false;
    }
    return true;
}

// The outcome of a connect that poll reported: writable alone means
// connected; with an error or hang-up, SO_ERROR tells why it failed.
void finish_reported(probe_round& round, const connect_attempt& attempt, short revents,
                     long long now_us) {
    std::vector<probe_result>& results = round.results;
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
    end_check(round, attempt, error == 0);
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
void settle(probe_round& round, std::vector<connect_attempt>& flight,
            const std::vector<pollfd>& fds) {
    long long now = monotonic_us();
    for (std::size_t i = flight.size(); i-- > 0;) {
        if (fds[i].revents != 0) {
            finish_reported(round, flight[i], fds[i].revents, now);
        } else if (now >= flight[i].deadline_us) {
            set_failed(round.results[flight[i].index], PROBE_TIMED_OUT);
            end_check(round, flight[i], false);
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

// Makes a finished check's socket ready for another connect: disconnecting
// sends the reset of a connected socket and ends a pending connect (the
// error that leaves behind is cleared by the next connect).
bool ready_for_reuse(int fd) {
    sockaddr unspecified = {};
    unspecified.sa_family = AF_UNSPEC;
    return connect(fd, &unspecified, sizeof unspecified) == 0;
}

}  // namespace

probe_sockets::~probe_sockets() {
    for (const std::vector<int>* idle : {&idle_v4, &idle_v6}) {
        for (int fd : *idle) {
            close(fd);
        }
    }
}

std::vector<int>& probe_sockets::idle_of(int family) {
    return family == AF_INET6 ? idle_v6 : idle_v4;
}

int probe_sockets::take(int family) {
    std::vector<int>& idle = idle_of(family);
    if (idle.empty()) {
        return socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    }
    int fd = idle.back();
    idle.pop_back();
    return fd;
}

void probe_sockets::give_back(int fd, int family, bool connected, std::size_t keep) {
    if (idle_v4.size() + idle_v6.size() < keep && ready_for_reuse(fd)) {
        idle_of(family).push_back(fd);
        return;
    }
    close_check(fd, connected);
}

bool probe_targets(const std::vector<probe_target>& targets, const probe_limits& limits,
                   int stop_fd, std::vector<probe_result>& results, probe_sockets* kept) {
    results.assign(targets.size(), probe_result());
    probe_sockets own;
    probe_round round = {limits, kept != nullptr ? *kept : own, results};
    std::vector<connect_attempt> flight;
    std::vector<pollfd> fds;
    std::size_t next = 0;
    for (;;) {
        while (next < targets.size() && flight.size() < limits.window) {
            connect_attempt attempt;
            if (start_connect(targets[next], next, round, &attempt)) {
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
        settle(round, flight, fds);
    }
}
