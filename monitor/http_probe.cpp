// http_probe.cpp - parallel HTTP-level checks with one poll loop.
// A check goes connecting -> awaiting its status line -> draining: after
// the status line it reads (and throws away) what follows until the service
// closes, so the daemon's close comes second and is an orderly one. Each
// result is handed over when it is known: a hung service's check does not
// hold back the others' results. Every
// socket is non-blocking and close-on-exec (an init script started meanwhile
// never inherits one). No globals, no lock.
#include "monitor/http_probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace {

constexpr int LOWEST_PORT = 1;
constexpr int HIGHEST_PORT = 65535;
constexpr long long MICROSECONDS_PER_MILLISECOND = 1000;
// Enough for "HTTP/1.1 200": a longer version text is not HTTP.
constexpr std::size_t STATUS_HEAD_BYTES = 32;
// What is read after the status line before the check gives up waiting
// for the service to close (then its own close may reset).
constexpr std::size_t DRAIN_LIMIT_BYTES = 64 * 1024;
constexpr std::size_t DRAIN_CHUNK_BYTES = 4096;
constexpr const char STATUS_PREFIX[] = "HTTP/";
constexpr const char LOCALHOST_NAMES[][11] = {"localhost", "localhost."};
constexpr const char LOCALHOST_ADDRESS[] = "127.0.0.1";

enum class check_phase { connecting, awaiting_status, draining };

struct check {
    int fd;
    std::size_t index;
    long long started_us;
    long long deadline_us;
    check_phase phase;
    std::size_t received;  // bytes of the head, then of the drain
    char head[STATUS_HEAD_BYTES];
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

// The numeric text to connect to: "localhost" and "localhost." stand for
// the loopback address, as the device's name service has them.
const char* address_text(const std::string& ip) {
    for (const char* name : LOCALHOST_NAMES) {
        if (ip == name) {
            return LOCALHOST_ADDRESS;
        }
    }
    return ip.c_str();
}

// The socket address of a numeric IPv4 or IPv6 text (inet_pton: dotted
// quads and standard IPv6 texts, no names, no scope ids).
bool numeric_address(const std::string& ip, int port, sockaddr_storage* address,
                     socklen_t* length) {
    std::memset(address, 0, sizeof *address);
    const char* text = address_text(ip);
    sockaddr_in* v4 = reinterpret_cast<sockaddr_in*>(address);
    if (inet_pton(AF_INET, text, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        *length = sizeof *v4;
        return true;
    }
    sockaddr_in6* v6 = reinterpret_cast<sockaddr_in6*>(address);
    if (inet_pton(AF_INET6, text, &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        *length = sizeof *v6;
        return true;
    }
    return false;
}

void set_result(probe_result& result, probe_state state, const char* error) {
    result = probe_result();
    result.state = state;
    result.error = error;
}

// The status code of a status line's start ("HTTP/1.1 200"): > 0 the code,
// 0 not a status line, -1 too short to tell yet.
int status_code_of(const char* head, std::size_t length) {
    const std::size_t prefix = sizeof STATUS_PREFIX - 1;
    std::size_t at = 0;
    for (; at < prefix; ++at) {
        if (at == length) {
            return -1;
        }
        if (head[at] != STATUS_PREFIX[at]) {
            return 0;
        }
    }
    while (at < length && (std::isdigit(static_cast<unsigned char>(head[at])) || head[at] == '.')) {
        ++at;
    }
    if (at < length && head[at++] != ' ') {
        return 0;
    }
    int code = 0;
    for (int digit = 0; digit < 3; ++digit, ++at) {
        if (at >= length) {
            return -1;
        }
        if (!std::isdigit(static_cast<unsigned char>(head[at]))) {
            return 0;
        }
        code = code * 10 + (head[at] - '0');
    }
    return code;
}

// Starts targets[index]'s connect. True when it is in flight (then `out`
// holds it); false when its result is already known.
bool start_check(const probe_target& target, std::size_t index, int timeout_ms,
                 probe_result& result, check* out) {
    sockaddr_storage address;
    socklen_t length = 0;
    if (!numeric_address(target.ip, target.port, &address, &length)) {
        set_result(result, probe_state::down, PROBE_NOT_NUMERIC);
        return false;
    }
    if (target.port < LOWEST_PORT || target.port > HIGHEST_PORT) {
        set_result(result, probe_state::down, PROBE_INVALID_PORT);
        return false;
    }
    int fd = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        set_result(result, probe_state::down, connect_error_text(errno));
        return false;
    }
    long long started = monotonic_us();
    *out = {fd, index, started, started + timeout_ms * MICROSECONDS_PER_MILLISECOND,
            check_phase::connecting, 0, {}};
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 && errno != EINPROGRESS) {
        set_result(result, probe_state::down, connect_error_text(errno));
        close(fd);
        return false;
    }
    return true;
}

// True while the check goes on; false once it is done (socket closed).
bool end_check(check& at) {
    close(at.fd);
    return false;
}

bool fail_check(check& at, probe_result& result, probe_state state, const char* error) {
    set_result(result, state, error);
    return end_check(at);
}

// The connect finished: writable alone means connected, and the request
// goes out; with an error or hang-up, SO_ERROR tells why it failed.
bool on_connected(check& at, short revents, probe_result& result) {
    int error = 0;
    if (revents != POLLOUT) {
        socklen_t size = sizeof error;
        if (getsockopt(at.fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
            error = errno;
        } else if (error == 0) {
            error = ECONNRESET;  // hung up with no error left to read
        }
        return fail_check(at, result, probe_state::down, connect_error_text(error));
    }
    const std::size_t request_length = sizeof PROBE_REQUEST - 1;
    if (send(at.fd, PROBE_REQUEST, request_length, MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request_length)) {
        return fail_check(at, result, probe_state::no_answer, PROBE_CLOSED);
    }
    at.phase = check_phase::awaiting_status;
    return true;
}

// Reads towards the status line; once it is there the check is up and
// goes on draining.
bool on_head_readable(check& at, probe_result& result) {
    ssize_t got = recv(at.fd, at.head + at.received, sizeof at.head - at.received, 0);
    if (got < 0) {
        return errno == EAGAIN || errno == EINTR ||
               fail_check(at, result, probe_state::no_answer, PROBE_CLOSED);
    }
    if (got == 0) {
        return fail_check(at, result, probe_state::no_answer, PROBE_CLOSED);
    }
    at.received += static_cast<std::size_t>(got);
    int code = status_code_of(at.head, at.received);
    if (code < 0 && at.received < sizeof at.head) {
        return true;
    }
    if (code <= 0) {
        set_result(result, probe_state::no_answer, PROBE_NOT_HTTP);
    } else {
        set_result(result, probe_state::up, "");
        result.http_status = code;
        result.latency_ms = static_cast<double>(monotonic_us() - at.started_us) /
                            static_cast<double>(MICROSECONDS_PER_MILLISECOND);
    }
    at.phase = check_phase::draining;
    at.received = 0;
    return true;
}

// Throws away what follows the status line until the service closes.
bool on_drain_readable(check& at) {
    char scratch[DRAIN_CHUNK_BYTES];
    ssize_t got = recv(at.fd, scratch, sizeof scratch, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return true;
    }
    at.received += got > 0 ? static_cast<std::size_t>(got) : 0;
    return got > 0 && at.received < DRAIN_LIMIT_BYTES ? true : end_check(at);
}

bool on_event(check& at, short revents, probe_result& result) {
    switch (at.phase) {
        case check_phase::connecting:
            return on_connected(at, revents, result);
        case check_phase::awaiting_status:
            return on_head_readable(at, result);
        case check_phase::draining:
            return on_drain_readable(at);
    }
    return end_check(at);
}

// The check's time is up: what it has found so far stands.
void on_deadline(check& at, probe_result& result) {
    if (at.phase == check_phase::connecting) {
        fail_check(at, result, probe_state::down, PROBE_TIMED_OUT);
    } else if (at.phase == check_phase::awaiting_status) {
        fail_check(at, result, probe_state::no_answer, PROBE_NO_STATUS);
    } else {
        end_check(at);
    }
}

short events_of(const check& at) {
    return at.phase == check_phase::connecting ? POLLOUT : POLLIN;
}

// Milliseconds until the nearest deadline (rounded up), at least 0.
int poll_timeout_ms(const std::vector<check>& flight, long long now_us) {
    long long nearest = flight.front().deadline_us;
    for (const check& at : flight) {
        nearest = at.deadline_us < nearest ? at.deadline_us : nearest;
    }
    long long wait = nearest - now_us;
    return wait <= 0 ? 0
                     : static_cast<int>((wait + MICROSECONDS_PER_MILLISECOND - 1) /
                                        MICROSECONDS_PER_MILLISECOND);
}

// Moves every check that poll reported or whose time is up; the finished
// ones leave the flight. A check's result is known once it leaves the
// connecting or awaiting phase (ended, or draining on): it goes to `done`
// then, and only then. fds[i] belongs to flight[i].
void settle(std::vector<check>& flight, const std::vector<pollfd>& fds,
            std::vector<probe_result>& results, const probe_done& done) {
    long long now = monotonic_us();
    for (std::size_t i = flight.size(); i-- > 0;) {
        check& at = flight[i];
        probe_result& result = results[at.index];
        const bool reported = at.phase == check_phase::draining;
        bool going_on = true;
        if (fds[i].revents != 0) {
            going_on = on_event(at, fds[i].revents, result);
        } else if (now >= at.deadline_us) {
            on_deadline(at, result);
            going_on = false;
        }
        if (!reported && (!going_on || at.phase == check_phase::draining)) {
            done(at.index, result);
        }
        if (!going_on) {
            flight[i] = flight.back();
            flight.pop_back();
        }
    }
}

void close_all(const std::vector<check>& flight) {
    for (const check& at : flight) {
        close(at.fd);
    }
}

}  // namespace

bool probe_targets(const std::vector<probe_target>& targets, int timeout_ms, int stop_fd,
                   const probe_done& done) {
    std::vector<probe_result> results(targets.size());
    std::vector<check> flight;
    std::vector<pollfd> fds;
    std::size_t next = 0;
    for (;;) {
        while (next < targets.size() && flight.size() < PROBE_IN_FLIGHT) {
            check started;
            if (start_check(targets[next], next, timeout_ms, results[next], &started)) {
                flight.push_back(started);
            } else {
                done(next, results[next]);
            }
            ++next;
        }
        if (flight.empty()) {
            return true;
        }
        fds.clear();
        for (const check& at : flight) {
            fds.push_back({at.fd, events_of(at), 0});
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
        settle(flight, fds, results, done);
    }
}
