// Unit tests of the monitor's GET client: URL building with its length
// guard, and the write callback with its reply cap.
#include "monitor/http_get_client.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct url_case {
    const char* host;
    int port;
    const char* path;
    const char* query;
    const char* expected;
};

const url_case URL_CASES[] = {
    {"127.0.0.1", 10182, "/name/svcmon", "method=get_history",
     "127.0.0.1:10182/name/svcmon?method=get_history"},
    {"127.0.0.1", 10182, "name/svcmon", "method=get_history",
     "127.0.0.1:10182/name/svcmon?method=get_history"},
    {"10.0.0.7", 80, "//x", nullptr, "10.0.0.7:80//x"},
    {"10.0.0.7", 80, "/", nullptr, "10.0.0.7:80//"},
    {"10.0.0.7", 80, "/", "q=1", "10.0.0.7:80//?q=1"},
    {"localhost", 1, "/a", "", "localhost:1/a"},
    {"localhost", -5, "", nullptr, "localhost:-5/"},
    // The address text holds at most 30 characters.
    {"abcdefghijklmnopqrstuvwxyz0123456789", 10182, "/p", nullptr,
     "abcdefghijklmnopqrstuvwxyz0123/p"},
    {"abcdefghijklmnopqrstuvwxyz", 10182, "/p", nullptr, "abcdefghijklmnopqrstuvwxyz:101/p"},
};

TEST(BuildGetUrl, FormsHostPortPathAndQuery) {
    for (const url_case& test : URL_CASES) {
        char url[HTTP_GET_URL_SIZE];
        ASSERT_EQ(build_get_url(test.host, test.port, test.path, test.query, url), HTTP_GET_OK)
            << test.expected;
        EXPECT_STREQ(url, test.expected);
    }
}

// host + path + query of `total` characters: host "h", the rest split
// between path and query.
struct guard_case {
    std::size_t path_length;
    std::size_t query_length;
    bool query_given;
    long long expected;
};

const guard_case GUARD_CASES[] = {
    {500, 433, true, HTTP_GET_OK},        // 934
    {500, 434, true, HTTP_GET_TOO_LONG},  // 935
    {933, 0, false, HTTP_GET_OK},         // 934, null query
    {934, 0, false, HTTP_GET_TOO_LONG},   // 935, null query
    {934, 0, true, HTTP_GET_TOO_LONG},    // 935, empty query
};

TEST(BuildGetUrl, GuardsTheTotalLength) {
    for (const guard_case& test : GUARD_CASES) {
        std::string path = "/" + std::string(test.path_length - 1, 'p');
        std::string query(test.query_length, 'q');
        char url[HTTP_GET_URL_SIZE];
        memset(url, '#', sizeof url);
        long long result = build_get_url("h", 7, path.c_str(),
                                         test.query_given ? query.c_str() : nullptr, url);
        ASSERT_EQ(result, test.expected) << test.path_length << "+" << test.query_length;
        if (result == HTTP_GET_TOO_LONG) {
            EXPECT_EQ(url[0], '#');
            continue;
        }
        // Accepted input is never cut.
        std::string expected = "h:7/" + path.substr(1);
        if (!query.empty()) {
            expected += "?" + query;
        }
        EXPECT_EQ(std::string(url), expected);
    }
}

TEST(DoCurlGetRequest, RefusesTooLongInputWithoutRequest) {
    std::string path(935, 'p');
    std::string response = "kept";
    EXPECT_EQ(do_curl_GET_request("", 1, path.c_str(), nullptr, &response), HTTP_GET_TOO_LONG);
    EXPECT_EQ(response, "kept");
}

int closed_loopback_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

TEST(DoCurlGetRequest, ClosedPortIsATransferFailure) {
    std::string response;
    EXPECT_EQ(do_curl_GET_request("127.0.0.1", closed_loopback_port(), "/x/svcmon",
                                  "method=get_history", &response),
              HTTP_GET_TRANSFER_FAILED);
    EXPECT_TRUE(response.empty());
}

// A registered address that carries a scheme of its own never makes
// libcurl speak another protocol: the transfer fails, nothing reaches the
// listening port and no local file is read.
TEST(DoCurlGetRequest, OtherSchemesFailWithoutAConnection) {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 8), 0);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const int port = ntohs(address.sin_port);
    // file:///tmp/hgc:1/x/svcmon is what the file case would read.
    ASSERT_EQ(system("mkdir -p '/tmp/hgc:1/x' && echo '{}' > '/tmp/hgc:1/x/svcmon'"), 0);
    const struct {
        const char* host;
        int port;
    } cases[] = {
        {"dict://127.0.0.1", port}, {"gopher://127.0.0.1", port}, {"telnet://127.0.0.1", port},
        {"ftp://127.0.0.1", port},  {"file:///tmp/hgc", 1},
    };
    for (const auto& c : cases) {
        std::string response;
        EXPECT_EQ(do_curl_GET_request(c.host, c.port, "/x/svcmon", "method=get_history",
                                      &response),
                  HTTP_GET_TRANSFER_FAILED)
            << c.host;
        EXPECT_EQ(response, "") << c.host;
    }
    pollfd pending{listener, POLLIN, 0};
    EXPECT_EQ(poll(&pending, 1, 0), 0);
    close(listener);
}

TEST(CurlWriteToString, AppendsAndReportsEveryByte) {
    std::string response = "ab";
    char data[] = {'c', '\0', 'd', 'e'};
    EXPECT_EQ(curl_write_to_string(data, 1, sizeof data, &response), sizeof data);
    EXPECT_EQ(response, std::string("abc\0de", 6));
    EXPECT_EQ(curl_write_to_string(data, 2, 2, &response), 4u);
    EXPECT_EQ(response.size(), 10u);
    EXPECT_EQ(curl_write_to_string(data, 1, 0, &response), 0u);
    EXPECT_EQ(response.size(), 10u);
}

TEST(CurlWriteToString, StopsAtTheReplyCap) {
    std::string chunk(HTTP_GET_MAX_REPLY - 1, 'x');
    std::string response;
    ASSERT_EQ(curl_write_to_string(&chunk[0], 1, chunk.size(), &response), chunk.size());
    char one[2] = {'y', 'z'};
    // One more byte fits exactly; two do not, and nothing of them is kept.
    EXPECT_EQ(curl_write_to_string(one, 1, 2, &response), 0u);
    EXPECT_EQ(response.size(), HTTP_GET_MAX_REPLY - 1);
    EXPECT_EQ(curl_write_to_string(one, 1, 1, &response), 1u);
    EXPECT_EQ(response.size(), HTTP_GET_MAX_REPLY);
    EXPECT_EQ(curl_write_to_string(one, 1, 1, &response), 0u);
    EXPECT_EQ(response.size(), HTTP_GET_MAX_REPLY);
}

TEST(CurlWriteToString, RefusesACountWhoseProductOverflows) {
    std::string response;
    char data[1] = {'x'};
    EXPECT_EQ(curl_write_to_string(data, 2, SIZE_MAX / 2 + 1, &response), 0u);
    EXPECT_TRUE(response.empty());
}

}  // namespace
