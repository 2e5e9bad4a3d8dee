// Unit tests of the service-bus client: URL building, the name server's
// answer, the reply bound, and failures that must leave the body empty.
#include "platform/ssci_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace {

struct url_case {
    const char* host;
    int port;
    const char* path;
    std::map<std::string, std::string> args;
    const char* expected;
};

TEST(SsciClientUrl, BuildsHostPortPathAndEncodedQuery) {
    const url_case cases[] = {
        {"127.0.0.1", 8080, "/recStreamService/sys_state", {}, "http://127.0.0.1:8080/recStreamService/sys_state"},
        {"::1", 10182, "/a", {}, "http://[::1]:10182/a"},
        {"fe80::1:2", 1, "/", {}, "http://[fe80::1:2]:1/"},
        {"localhost", 65535, "/managerService/svcmgr",
         {{"method", "get_info"}, {"name", "rec Stream&x=1"}},
         "http://localhost:65535/managerService/svcmgr?method=get_info&name=rec%20Stream%26x%3D1"},
        {"dev-1.local", 80, "/p", {{"k/ey", "v?#"}}, "http://dev-1.local:80/p?k%2Fey=v%3F%23"},
    };
    for (const url_case& c : cases) {
        query_object query;
        query.args = c.args;
        std::string url;
        EXPECT_EQ(ssci_build_url(c.host, c.port, c.path, &query, url), SSCI_OK) << c.host;
        EXPECT_EQ(url, c.expected);
    }
}

TEST(SsciClientUrl, RefusesHostsPortsAndPathsThatWouldBendTheUrl) {
    const url_case cases[] = {
        {"", 80, "/", {}, ""},           {"a/b", 80, "/", {}, ""},
        {"a b", 80, "/", {}, ""},        {"host:81", 80, "/", {}, ""},
        {"[::1]", 80, "/", {}, ""},      {"1.2.3.4@evil", 80, "/", {}, ""},
        {"127.0.0.1", 0, "/", {}, ""},   {"127.0.0.1", 65536, "/", {}, ""},
        {"127.0.0.1", -1, "/", {}, ""},  {"127.0.0.1", 80, "x", {}, ""},
        {"127.0.0.1", 80, "", {}, ""},   {"127.0.0.1", 80, nullptr, {}, ""},
    };
    for (const url_case& c : cases) {
        std::string url = "untouched";
        EXPECT_EQ(ssci_build_url(c.host, c.port, c.path, nullptr, url), SSCI_ERR_ARGUMENT)
            << c.host << ":" << c.port;
        EXPECT_EQ(url, "untouched");
    }
}

TEST(SsciClientUrl, EncodesEveryByteButTheUnreserved) {
    EXPECT_EQ(ssci_url_encode(""), "");
    EXPECT_EQ(ssci_url_encode("aZ09-._~"), "aZ09-._~");
    EXPECT_EQ(ssci_url_encode("a b/\xC3\xA9\x01%"), "a%20b%2F%C3%A9%01%25");
    EXPECT_EQ(ssci_url_encode(std::string("a\0b", 3)), "a%00b");
}

TEST(SsciClientAddress, ReadsTheNameServersAnswer) {
    std::string host;
    int port = 0;
    EXPECT_EQ(ssci_parse_service_address(
                  R"({"return": 0, "name": "x", "ip": "10.0.0.7", "port": 9000})", host, port),
              SSCI_OK);
    EXPECT_EQ(host, "10.0.0.7");
    EXPECT_EQ(port, 9000);
    EXPECT_EQ(ssci_parse_service_address(R"({"return": 0, "ip": "::1", "port": 1})", host, port),
              SSCI_OK);
    EXPECT_EQ(host, "::1");
}

TEST(SsciClientAddress, RefusesUnknownNamesAndUnusableAnswers) {
    const std::pair<const char*, int> cases[] = {
        {R"({"return": -2, "name": "x", "ip": "", "port": 0})", SSCI_ERR_NOT_FOUND},
        {R"({"return": -3, "ip": "1.2.3.4", "port": 80})", SSCI_ERR_NOT_FOUND},
        {R"({"ip": "1.2.3.4", "port": 80})", SSCI_ERR_ARGUMENT},
        {R"({"return": "0", "ip": "1.2.3.4", "port": 80})", SSCI_ERR_ARGUMENT},
        {R"({"return": 0, "port": 80})", SSCI_ERR_ARGUMENT},
        {R"({"return": 0, "ip": 5, "port": 80})", SSCI_ERR_ARGUMENT},
        {R"({"return": 0, "ip": "1.2.3.4", "port": "80"})", SSCI_ERR_ARGUMENT},
        {R"({"return": 0, "ip": "1.2.3.4", "port": 0})", SSCI_ERR_ARGUMENT},
        {R"({"return": 0, "ip": "1.2.3.4", "port": 65536})", SSCI_ERR_ARGUMENT},
        {R"({"return": 0, "ip": "1.2.3.4", "port": 4294967376})", SSCI_ERR_ARGUMENT},
        {R"({"return": 0, "ip": "1.2.3.4/x?", "port": 80})", SSCI_ERR_ARGUMENT},
        {R"({"return": 0, "ip": "", "port": 80})", SSCI_ERR_ARGUMENT},
        {R"([0, "1.2.3.4", 80])", SSCI_ERR_ARGUMENT},
        {"not json", SSCI_ERR_ARGUMENT},
        {"", SSCI_ERR_ARGUMENT},
    };
    for (const auto& c : cases) {
        std::string host = "kept";
        int port = 7;
        EXPECT_EQ(ssci_parse_service_address(c.first, host, port), c.second) << c.first;
        EXPECT_EQ(host, "kept");
        EXPECT_EQ(port, 7);
    }
}

TEST(SsciClientReply, AcceptsUpToTheLimitAndNotOneByteMore) {
    std::string reply;
    std::string chunk(SSCI_REPLY_LIMIT - 1, 'x');
    EXPECT_EQ(ssci_collect_reply(&chunk[0], 1, chunk.size(), &reply), chunk.size());
    char one = 'y';
    EXPECT_EQ(ssci_collect_reply(&one, 1, 1, &reply), 1u);
    EXPECT_EQ(reply.size(), SSCI_REPLY_LIMIT);
    EXPECT_EQ(ssci_collect_reply(&one, 1, 1, &reply), 0u);
    EXPECT_EQ(reply.size(), SSCI_REPLY_LIMIT);
}

TEST(SsciClientReply, RefusesOversizeChunksWithoutOverflow) {
    std::string reply;
    std::string big(SSCI_REPLY_LIMIT + 1, 'x');
    EXPECT_EQ(ssci_collect_reply(&big[0], 1, big.size(), &reply), 0u);
    char byte = 'x';
    EXPECT_EQ(ssci_collect_reply(&byte, 2, SIZE_MAX / 2 + 1, &reply), 0u);
    EXPECT_TRUE(reply.empty());
}

// A loopback socket that listens but never accepts: connections complete,
// nothing ever answers. The port is free again once it is closed.
class listening_socket {
public:
    listening_socket() {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(fd, reinterpret_cast<sockaddr*>(&address), length);
        listen(fd, 4);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~listening_socket() { close(fd); }
    int fd;
    int port;
};

TEST(SsciClientRequest, FailuresLeaveTheBodyEmpty) {
    int closed_port = 0;
    {
        listening_socket probe;
        closed_port = probe.port;
    }
    ssci_nameserver_init("127.0.0.1", closed_port);
    query_object query;
    std::string body = "stale";
    EXPECT_EQ(ssci_GET_request("recStreamService", "/x", &query, body, 1, false, 0, nullptr),
              SSCI_ERR_TRANSPORT);
    EXPECT_EQ(body, "");
    body = "stale";
    EXPECT_EQ(ssci_GET_request(nullptr, "/x", &query, body, 1, false, 0, nullptr),
              SSCI_ERR_ARGUMENT);
    EXPECT_EQ(body, "");
}

TEST(SsciClientRequest, SilentNameServerTimesOutEvenWithoutALimit) {
    listening_socket silent;
    ssci_nameserver_init("localhost", silent.port);
    query_object query;
    std::string body;
    EXPECT_EQ(ssci_GET_request("recStreamService", "/x", &query, body, 0, false, 0, nullptr),
              SSCI_ERR_TRANSPORT);
    EXPECT_EQ(body, "");
}

}  // namespace
