// probe_listeners.h - loopback peers for the probe tests: a port that
// listens, one that refuses connects, and a silent one whose accept queue
// is full, so that a connect neither completes nor fails until given up.
#ifndef MANAGER_SVC_PROBE_LISTENERS_H
#define MANAGER_SVC_PROBE_LISTENERS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

// Listens with `backlog`, or only binds (refuses) when it is negative;
// `silent` takes the one place of a backlog of 0.
class loopback_port {
public:
    loopback_port(int family, int backlog, bool silent = false)
        : fd_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_storage address{};
        sockaddr_in* v4 = reinterpret_cast<sockaddr_in*>(&address);
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET) {
            v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        } else {
            reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr = in6addr_loopback;
        }
        socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        sockaddr* any = reinterpret_cast<sockaddr*>(&address);
        if (bind(fd_, any, length) != 0 || getsockname(fd_, any, &length) != 0 ||
            (backlog >= 0 && listen(fd_, backlog) != 0)) {
            throw std::runtime_error("cannot make a loopback port");
        }
        port_ = ntohs(v4->sin_port);  // where sin6_port lies too
        filler_ = silent ? socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
        if (silent && connect(filler_, any, length) != 0) {
            throw std::runtime_error("cannot fill the accept queue");
        }
    }
    ~loopback_port() {
        close(fd_);
        close(filler_);
    }
    int port() const { return port_; }

private:
    int fd_;
    int filler_ = -1;
    int port_ = 0;
};

#endif
