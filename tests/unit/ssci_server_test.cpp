// Tests of the service-bus server over real sockets: dispatch, the server's
// own 404 / 405 / 413 / 500 answers, what reaches a handler, the lifecycle
// calls and their order, and clients that stall or vanish.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "platform/common_http_resource.h"
#include "platform/httpserver.h"
#include "platform/ssci_server.h"

namespace {

constexpr int IO_TIMEOUT_SECONDS = 10;
constexpr std::size_t BIG_BODY_SIZE = 8 * 1024 * 1024;

std::atomic<int> handler_calls{0};

// Reports what reached it: method, path, the "name" argument, an absent
// argument, the "X-Probe" header, then the body.
const std::shared_ptr<httpserver::http_response> echo(const httpserver::http_request& request) {
    ++handler_calls;
    std::string text = request.get_method() + "\n" + request.get_path() + "\n" +
                       request.get_arg("name") + "\n" + request.get_arg("missing") + "\n" +
                       request.get_header("x-probe") + "\n" + request.get_content();
    auto response = std::make_shared<httpserver::string_response>(text, 200, "text/echo");
    response->with_header("X-Echo", "yes");
    return response;
}

const std::shared_ptr<httpserver::http_response> deeper(const httpserver::http_request&) {
    return std::make_shared<httpserver::string_response>("deeper");
}

const std::shared_ptr<httpserver::http_response> throws(const httpserver::http_request&) {
    throw std::bad_alloc();
}

const std::shared_ptr<httpserver::http_response> null_reply(const httpserver::http_request&) {
    return nullptr;
}

const std::shared_ptr<httpserver::http_response> big(const httpserver::http_request&) {
    return std::make_shared<httpserver::string_response>(std::string(BIG_BODY_SIZE, 'b'));
}

// A handler that waits on "another service" (the gate) when asked with
// relay=1, and answers at once otherwise.
std::mutex gate_lock;
std::condition_variable gate_changed;
bool gate_open = false;    // guarded by gate_lock
int waiting_at_gate = 0;   // guarded by gate_lock

const std::shared_ptr<httpserver::http_response> gated(const httpserver::http_request& request) {
    if (request.get_arg("relay") != "1") {
        return std::make_shared<httpserver::string_response>("at once");
    }
    std::unique_lock<std::mutex> hold(gate_lock);
    ++waiting_at_gate;
    gate_changed.notify_all();
    gate_changed.wait(hold, [] { return gate_open; });
    return std::make_shared<httpserver::string_response>("relayed");
}

const std::shared_ptr<httpserver::http_response> not_relayed(const httpserver::http_request&) {
    return std::make_shared<httpserver::string_response>("not relayed");
}

bool asks_relay(const httpserver::http_request& request) {
    return request.get_arg("relay") == "1";
}

const relay_marking gated_relay = {asks_relay, not_relayed};

common_http_resource echo_resource("/echo", echo, echo, echo, echo);
common_http_resource gated_resource("/gated", gated, nullptr, nullptr, nullptr, &gated_relay);
common_http_resource deeper_resource("/echo/deeper", deeper, nullptr, nullptr, nullptr);
common_http_resource get_only_resource("/get-only", echo, nullptr, nullptr, nullptr);
common_http_resource post_delete_resource("/post-delete", nullptr, echo, nullptr, echo);
common_http_resource throws_resource("/throws", throws, nullptr, nullptr, nullptr);
common_http_resource null_resource("/null", null_reply, nullptr, nullptr, nullptr);
common_http_resource big_resource("/big", big, nullptr, nullptr, nullptr);

struct http_reply {
    int status = 0;
    std::string headers;
    std::string body;

    // The value of a header, or "" (names without regard to case).
    std::string header(const char* name) const {
        std::size_t line = 0;
        while ((line = headers.find("\r\n", line)) != std::string::npos) {
            line += 2;
            std::size_t colon = headers.find(':', line);
            if (colon != std::string::npos && colon - line == strlen(name) &&
                strncasecmp(headers.c_str() + line, name, colon - line) == 0) {
                std::size_t end = headers.find("\r\n", colon);
                return headers.substr(colon + 2, end - colon - 2);
            }
        }
        return "";
    }
};

int connect_loopback(int family, int port) {
    int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval limit{IO_TIMEOUT_SECONDS, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_storage address{};
    socklen_t length;
    if (family == AF_INET6) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(static_cast<uint16_t>(port));
        in6->sin6_addr = in6addr_loopback;
        length = sizeof *in6;
    } else {
        auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
        in4->sin_family = AF_INET;
        in4->sin_port = htons(static_cast<uint16_t>(port));
        in4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof *in4;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool send_all(int fd, const std::string& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

// Reads until the server closes (every request asks for Connection: close).
http_reply read_reply(int fd) {
    std::string raw;
    char buffer[16384];
    ssize_t n;
    while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0) {
        raw.append(buffer, static_cast<std::size_t>(n));
    }
    http_reply reply;
    std::size_t end = raw.find("\r\n\r\n");
    if (end == std::string::npos || sscanf(raw.c_str(), "HTTP/1.%*d %d", &reply.status) != 1) {
        return reply;
    }
    reply.headers = raw.substr(0, end + 2);
    reply.body = raw.substr(end + 4);
    return reply;
}

http_reply round_trip(int port, const std::string& request, int family = AF_INET) {
    int fd = connect_loopback(family, port);
    if (fd < 0) {
        return http_reply{};
    }
    http_reply reply = send_all(fd, request) ? read_reply(fd) : http_reply{};
    close(fd);
    return reply;
}

std::string request_text(const std::string& method, const std::string& target,
                          const std::string& body = "", const std::string& extra = "") {
    std::string text = method + " " + target + " HTTP/1.1\r\nHost: test\r\nConnection: close\r\n" +
                       extra;
    if (!body.empty() || method == "POST") {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return text + "\r\n" + body;
}

std::string chunked_request(const std::string& target, const std::string& body) {
    std::string text = "POST " + target +
                       " HTTP/1.1\r\nHost: test\r\nConnection: close\r\n"
                       "Transfer-Encoding: chunked\r\n\r\n";
    constexpr std::size_t CHUNK = 4096;
    for (std::size_t at = 0; at < body.size(); at += CHUNK) {
        std::string piece = body.substr(at, CHUNK);
        char size_line[32];
        snprintf(size_line, sizeof size_line, "%zx\r\n", piece.size());
        text += size_line + piece + "\r\n";
    }
    return text + "0\r\n\r\n";
}

// A port that was free a moment ago.
int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

long long create_server(const char* address, int port, int threads) {
    return ssci_server_create("localhost", address, port, threads, "localhost", 0, true, 0, "");
}

// One server with a pool of listener threads for the whole suite.
class ServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        port = free_port();
        ASSERT_EQ(create_server("localhost", port, 4), SSCI_STATUS_OK);
        ASSERT_EQ(ssci_server_start(), SSCI_STATUS_OK);
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OK);
        EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OK);
    }
    static http_reply ask(const std::string& request) { return round_trip(port, request); }
    static int port;
};
int ServerTest::port = 0;

TEST_F(ServerTest, DispatchByLongestCoveringPath) {
    const struct {
        const char* target;
        int status;
        const char* body_start;
    } cases[] = {
        {"/echo", 200, "GET\n/echo\n"},
        {"/echo/page.html", 200, "GET\n/echo/page.html\n"},
        {"/echo/deeper", 200, "deeper"},
        {"/echo/deeper/more", 200, "deeper"},
        {"/echo/deeperx", 200, "GET\n/echo/deeperx\n"},
        {"/echoes", 404, "404 Not Found"},
        {"/", 404, "404 Not Found"},
        {"/nothing/echo", 404, "404 Not Found"},
    };
    for (const auto& c : cases) {
        http_reply reply = ask(request_text("GET", c.target));
        EXPECT_EQ(reply.status, c.status) << c.target;
        EXPECT_EQ(reply.body.rfind(c.body_start, 0), 0u) << c.target << ": " << reply.body;
    }
    EXPECT_EQ(ask(request_text("GET", "/nothing")).header("Content-Type"), "text/plain");
}

TEST_F(ServerTest, MissingMethodSlotGets405WithAllow) {
    const struct {
        const char* method;
        const char* target;
        const char* allow;
    } cases[] = {
        {"PUT", "/get-only", "GET"},
        {"DELETE", "/get-only", "GET"},
        {"GET", "/post-delete", "POST, DELETE"},
        {"HEAD", "/echo", "GET, POST, PUT, DELETE"},
        {"OPTIONS", "/echo", "GET, POST, PUT, DELETE"},
        {"PATCH", "/get-only/x", "GET"},
    };
    const int calls_before = handler_calls;
    for (const auto& c : cases) {
        http_reply reply = ask(request_text(c.method, c.target));
        EXPECT_EQ(reply.status, 405) << c.method << " " << c.target;
        EXPECT_EQ(reply.header("Allow"), c.allow) << c.method << " " << c.target;
    }
    http_reply with_body = ask(request_text("POST", "/get-only", "{\"a\":1}"));
    EXPECT_EQ(with_body.status, 405);
    EXPECT_EQ(handler_calls, calls_before);
}

TEST_F(ServerTest, RequestPartsReachTheHandler) {
    http_reply reply = ask(request_text("POST", "/echo/a%20b?name=first&name=second&x=1",
                                        "{\"json\": true}", "x-PROBE: probed\r\n"));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "POST\n/echo/a b\nfirst\n\nprobed\n{\"json\": true}");
    EXPECT_EQ(reply.header("content-type"), "text/echo");
    EXPECT_EQ(reply.header("X-Echo"), "yes");
}

TEST_F(ServerTest, ArgumentWithoutValueIsEmpty) {
    http_reply reply = ask(request_text("DELETE", "/echo?name&missing="));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "DELETE\n/echo\n\n\n\n");
}

TEST_F(ServerTest, BodyAtTheLimitPassesIntact) {
    std::string body(SSCI_MAX_REQUEST_BODY, 'x');
    for (std::size_t i = 0; i < body.size(); i += 97) {
        body[i] = static_cast<char>('a' + i % 26);
    }
    const std::string expected = "POST\n/echo\n\n\n\n" + body;
    for (const std::string& request : {request_text("POST", "/echo", body),
                                       chunked_request("/echo", body)}) {
        http_reply reply = ask(request);
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.body.size(), expected.size());
        EXPECT_TRUE(reply.body == expected);  // no 64 KiB dump on failure
    }
}

TEST_F(ServerTest, BodyOverTheLimitGets413WithoutTheHandler) {
    const int calls_before = handler_calls;
    const std::string over(SSCI_MAX_REQUEST_BODY + 1, 'x');
    http_reply chunked = ask(chunked_request("/echo", over));
    EXPECT_EQ(chunked.status, 413);
    // A declared over-long body is refused before the client sends it.
    http_reply declared = ask("POST /echo HTTP/1.1\r\nHost: test\r\nConnection: close\r\n"
                              "Expect: 100-continue\r\nContent-Length: 65537\r\n\r\n");
    EXPECT_EQ(declared.status, 413);
    EXPECT_EQ(declared.header("Content-Type"), "text/plain");
    EXPECT_EQ(handler_calls, calls_before);
    EXPECT_EQ(ask(request_text("GET", "/echo")).status, 200);
}

// An unannounced body is thrown away up to a bound; a sender that goes on
// far past it is cut off without an answer.
TEST_F(ServerTest, EndlessChunkedBodyIsCutOff) {
    const std::string endless(SSCI_MAX_REQUEST_BODY + 2 * 1024 * 1024, 'x');
    http_reply reply = ask(chunked_request("/echo", endless));
    EXPECT_EQ(reply.status, 0);
    EXPECT_EQ(ask(request_text("GET", "/echo")).status, 200);
}

TEST_F(ServerTest, FailingHandlerGets500AndServerGoesOn) {
    EXPECT_EQ(ask(request_text("GET", "/throws")).status, 500);
    EXPECT_EQ(ask(request_text("GET", "/null")).status, 500);
    EXPECT_EQ(ask(request_text("GET", "/echo")).status, 200);
}

TEST_F(ServerTest, ParallelClientsGetTheirOwnReplies) {
    constexpr int CLIENTS = 8;
    constexpr int REQUESTS = 25;
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < CLIENTS; ++c) {
        clients.emplace_back([c, &wrong] {
            for (int r = 0; r < REQUESTS; ++r) {
                std::string name = std::to_string(c) + "-" + std::to_string(r);
                http_reply reply = ask(request_text("GET", "/echo?name=" + name));
                if (reply.body != "GET\n/echo\n" + name + "\n\n\n") {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(ServerTest, ClientLeavingMidReplyDoesNotKillTheProcess) {
    struct sigaction current{};
    sigaction(SIGPIPE, nullptr, &current);
    EXPECT_EQ(current.sa_handler, SIG_IGN);
    for (int attempt = 0; attempt < 3; ++attempt) {
        int fd = connect_loopback(AF_INET, port);
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(send_all(fd, request_text("GET", "/big")));
        char first[1024];
        EXPECT_GT(recv(fd, first, sizeof first, 0), 0);
        linger reset{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(fd);
    }
    http_reply reply = ask(request_text("GET", "/big"));
    EXPECT_EQ(reply.body.size(), BIG_BODY_SIZE);
}

TEST(ServerCreate, RejectsBadArguments) {
    const struct {
        const char* address;
        int port;
        int threads;
    } cases[] = {
        {"localhost", 0, 1},     {"localhost", -1, 1},    {"localhost", 65536, 1},
        {"localhost", 10182, 0}, {"localhost", 10182, -3}, {nullptr, 10182, 1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(create_server(c.address, c.port, c.threads), SSCI_STATUS_BAD_ARGUMENT)
            << (c.address ? c.address : "(null)") << " " << c.port << " " << c.threads;
    }
    EXPECT_EQ(create_server("", free_port(), 1), SSCI_STATUS_NO_ADDRESS);
    EXPECT_EQ(create_server("300.1.2.3", free_port(), 1), SSCI_STATUS_NO_ADDRESS);
    // Nothing was left half made: a valid create still works.
    ASSERT_EQ(create_server("127.0.0.1", free_port(), 1), SSCI_STATUS_OK);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OK);
}

TEST(ServerCreate, PortInUseFailsAtCreate) {
    int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(listen(holder, 1), 0);
    getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length);
    EXPECT_EQ(create_server("localhost", ntohs(address.sin_port), 2), -EADDRINUSE);
    close(holder);
    EXPECT_EQ(ssci_server_start(), SSCI_STATUS_OUT_OF_ORDER);
}

TEST(ServerLifecycle, CallsOutOfOrderAreRefused) {
    EXPECT_EQ(ssci_server_start(), SSCI_STATUS_OUT_OF_ORDER);
    EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OUT_OF_ORDER);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OUT_OF_ORDER);
    const int port = free_port();
    ASSERT_EQ(create_server("localhost", port, 1), SSCI_STATUS_OK);
    EXPECT_EQ(create_server("localhost", free_port(), 1), SSCI_STATUS_OUT_OF_ORDER);
    EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OUT_OF_ORDER);
    ASSERT_EQ(ssci_server_start(), SSCI_STATUS_OK);
    EXPECT_EQ(ssci_server_start(), SSCI_STATUS_OUT_OF_ORDER);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OUT_OF_ORDER);
    EXPECT_EQ(create_server("localhost", free_port(), 1), SSCI_STATUS_OUT_OF_ORDER);
    EXPECT_EQ(round_trip(port, request_text("GET", "/echo")).status, 200);
    EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OK);
    EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OUT_OF_ORDER);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OK);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OUT_OF_ORDER);
}

TEST(ServerLifecycle, RestartAndRecreateOnTheSamePort) {
    const int port = free_port();
    // Any thread count above 0 is served as given.
    ASSERT_EQ(create_server("localhost", port, 65), SSCI_STATUS_OK);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(ssci_server_start(), SSCI_STATUS_OK);
        EXPECT_EQ(round_trip(port, request_text("GET", "/echo")).status, 200) << round;
        ASSERT_EQ(ssci_server_stop(), SSCI_STATUS_OK);
    }
    ASSERT_EQ(ssci_server_destory(), SSCI_STATUS_OK);
    EXPECT_LT(connect_loopback(AF_INET, port), 0);
    ASSERT_EQ(create_server("127.0.0.1", port, 1), SSCI_STATUS_OK);
    ASSERT_EQ(ssci_server_start(), SSCI_STATUS_OK);
    EXPECT_EQ(round_trip(port, request_text("GET", "/echo")).status, 200);
    EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OK);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OK);
}

TEST(ServerLifecycle, ListensOnIpv6Loopback) {
    int probe = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 loopback{};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    const bool has_ipv6 =
        probe >= 0 && bind(probe, reinterpret_cast<sockaddr*>(&loopback), sizeof loopback) == 0;
    close(probe);
    if (!has_ipv6) {
        GTEST_SKIP() << "no IPv6 loopback here";
    }
    const int port = free_port();
    ASSERT_EQ(create_server("::1", port, 2), SSCI_STATUS_OK);
    ASSERT_EQ(ssci_server_start(), SSCI_STATUS_OK);
    EXPECT_EQ(round_trip(port, request_text("GET", "/echo"), AF_INET6).status, 200);
    EXPECT_LT(connect_loopback(AF_INET, port), 0);
    EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OK);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OK);
}

// A request marked as waiting on another service runs off the listener
// threads: with a single one, others are answered while it waits.
TEST(ServerRelay, WaitingRequestHoldsNoListenerThread) {
    const int port = free_port();
    ASSERT_EQ(create_server("localhost", port, 1), SSCI_STATUS_OK);
    ASSERT_EQ(ssci_server_start(), SSCI_STATUS_OK);
    int relayed = connect_loopback(AF_INET, port);
    ASSERT_GE(relayed, 0);
    ASSERT_TRUE(send_all(relayed, request_text("GET", "/gated?relay=1")));
    {
        std::unique_lock<std::mutex> hold(gate_lock);
        ASSERT_TRUE(gate_changed.wait_for(hold, std::chrono::seconds(IO_TIMEOUT_SECONDS),
                                          [] { return waiting_at_gate == 1; }));
    }
    EXPECT_EQ(round_trip(port, request_text("GET", "/gated")).body, "at once");
    EXPECT_EQ(round_trip(port, request_text("GET", "/echo")).status, 200);
    {
        std::lock_guard<std::mutex> hold(gate_lock);
        gate_open = true;
        gate_changed.notify_all();
    }
    http_reply reply = read_reply(relayed);
    close(relayed);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "relayed");
    EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OK);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OK);
}

// With a single listener thread, a client that sends half a request must
// neither hold up the others nor stay connected for ever.
TEST(ServerLifecycle, StalledClientBlocksNobodyAndIsDropped) {
    const int port = free_port();
    ASSERT_EQ(create_server("localhost", port, 1), SSCI_STATUS_OK);
    ASSERT_EQ(ssci_server_start(), SSCI_STATUS_OK);
    int stalled = connect_loopback(AF_INET, port);
    ASSERT_GE(stalled, 0);
    ASSERT_TRUE(send_all(stalled, "POST /echo HTTP/1.1\r\nHost: test\r\nContent-Length: 10\r\n"));
    EXPECT_EQ(round_trip(port, request_text("GET", "/echo")).status, 200);
    pollfd watch{stalled, POLLIN, 0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    char byte;
    bool closed = false;
    while (!closed && std::chrono::steady_clock::now() < deadline) {
        closed = poll(&watch, 1, 1000) == 1 && recv(stalled, &byte, 1, MSG_DONTWAIT) <= 0;
    }
    EXPECT_TRUE(closed);
    close(stalled);
    EXPECT_EQ(ssci_server_stop(), SSCI_STATUS_OK);
    EXPECT_EQ(ssci_server_destory(), SSCI_STATUS_OK);
}

}  // namespace
