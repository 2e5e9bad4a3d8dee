// probe_listeners.h - loopback peers for the prober's tests: a listening
// port, a closed port, and a silent port whose accept queue is full, so
// that a new connect neither completes nor fails until it is given up.
#ifndef MANAGER_SVC_PROBE_LISTENERS_H
#define MANAGER_SVC_PROBE_LISTENERS_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

// A TCP socket bound to an ephemeral loopback port (IPv4 or IPv6),
// listening with `backlog` unless `listening` is false.
class loopback_port {
public:
    loopback_port(int family, bool listening, int backlog = 16)
        : fd_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_storage address;
        socklen_t length = loopback(family, 0, &address);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port_ = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&address)->sin_port
                                        : reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
        if (listening) {
            EXPECT_EQ(listen(fd_, backlog), 0);
        }
    }
    ~loopback_port() { close(fd_); }
    loopback_port(const loopback_port&) = delete;
    loopback_port& operator=(const loopback_port&) = delete;

    int port() const { return port_; }

    static socklen_t loopback(int family, int port, sockaddr_storage* address) {
        std::memset(address, 0, sizeof *address);
        if (family == AF_INET) {
            sockaddr_in* v4 = reinterpret_cast<sockaddr_in*>(address);
            v4->sin_family = AF_INET;
            v4->sin_port = htons(static_cast<uint16_t>(port));
            v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            return sizeof *v4;
        }
        sockaddr_in6* v6 = reinterpret_cast<sockaddr_in6*>(address);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        v6->sin6_addr = in6addr_loopback;
        return sizeof *v6;
    }

private:
    int fd_;
    int port_ = 0;
};

// A listener with backlog 0 whose one queue place is taken by a connection
// never accepted: further SYNs are dropped, so a connect hangs.
class silent_port {
public:
    silent_port() : listener_(AF_INET, true, 0), filler_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_storage address;
        socklen_t length = loopback_port::loopback(AF_INET, listener_.port(), &address);
        EXPECT_EQ(connect(filler_, reinterpret_cast<sockaddr*>(&address), length), 0);
    }
    ~silent_port() { close(filler_); }
    silent_port(const silent_port&) = delete;
    silent_port& operator=(const silent_port&) = delete;

    int port() const { return listener_.port(); }

private:
    loopback_port listener_;
    int filler_;
};

#endif
