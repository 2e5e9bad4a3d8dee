// unit_support.h - what the unit tests share: a file read whole, polling for a condition, and a loopback TCP
// peer that answers with a given text. Header-only; each test binary is one source file.
#ifndef MANAGER_SVC_UNIT_SUPPORT_H
#define MANAGER_SVC_UNIT_SUPPORT_H

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

inline std::string contents_of(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Polls every 10 ms, for 30 s at most, until the condition holds; says whether it does.
template <typename Condition>
bool poll_until(Condition condition) {
    for (int polls = 0; polls < 3000 && !condition(); ++polls) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

// A bound loopback port: listening, or refusing connects when not.
struct loopback_peer {
    explicit loopback_peer(bool listening = true) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        bind(fd, reinterpret_cast<sockaddr*>(&address), length);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        if (listening) {
            listen(fd, 16);
        }
    }
    ~loopback_peer() {
        stopping = true;
        if (server.joinable()) {
            server.join();
        }
        close(fd);
    }
    // Answers every connection, until destroyed, with `text` after reading its first segment, then closes it.
    void serve(const std::string& text) {
        server = std::thread([this, text] {
            while (!stopping) {
                pollfd listener{fd, POLLIN, 0};
                if (poll(&listener, 1, 20) != 1) {
                    continue;
                }
                const int client = accept(fd, nullptr, nullptr);
                char request[4096];
                recv(client, request, sizeof request, 0);
                send(client, text.data(), text.size(), MSG_NOSIGNAL);
                close(client);
            }
        });
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int port = 0;
    std::atomic<bool> stopping{false};
    std::thread server;
};

#endif
