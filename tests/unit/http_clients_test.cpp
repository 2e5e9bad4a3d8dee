// The two outbound HTTP clients against a loopback peer: the service-bus client (URL building, host-name
// characters, the name server's answer, the look-up's time and reply bounds) and the monitor's GET client
// (URL building, plain HTTP only, time and reply bounds).
#include <gtest/gtest.h>

#include <tuple>

#include "monitor/http_get_client.h"
#include "platform/ssci_client.h"
#include "tests/unit/unit_support.h"

namespace {

TEST(SsciClient, BuildsUrlsOnlyFromUsableHostsPortsAndPaths) {
    const std::string query = "?k%2F%20=aZ09-._~%26%3D%C3%A9";
    const std::tuple<const char*, int, const char*, std::string> cases[] = {
        {"fe80::1", 1, "/", "http://[fe80::1]:1/" + query},
        {"az-Z.A09", 65535, "/p", "http://az-Z.A09:65535/p" + query},
        {"", 80, "/", ""}, {"a/b", 80, "/", ""}, {"h:8", 80, "/", ""}, {"h_1", 80, "/", ""},
        {"a b", 80, "/", ""}, {"h", 0, "/", ""}, {"h", 65536, "/", ""}, {"h", 80, "x", ""},
    };
    query_object args;
    args.args["k/ "] = "aZ09-._~&=\xC3\xA9";
    for (const auto& [host, port, path, expected] : cases) {
        std::string url;
        const int result = expected.empty() ? RESULT_BAD_ARGUMENT : RESULT_OK;
        EXPECT_EQ(ssci_build_url(host, port, path, &args, url), result) << host;
        EXPECT_EQ(url, expected) << host;
    }
}

// The look-up and the get with their bounds, through the daemon: tests/blackbox/test_relay_default_port.py.
TEST(SsciClient, TakesTheServiceAddressFromTheNameServersAnswerWithinItsBounds) {
    const std::tuple<std::string, int, const char*, int> cases[] = {
        {R"({"return": 0, "ip": "127.0.0.5", "port": 1})", RESULT_OK, "127.0.0.5", 1},
        {R"({"return": 0, "ip": "::1", "port": 65535})", RESULT_OK, "::1", 65535},
        {R"({"return": 0, "ip": "127.0.0.5", "port": 0})", RESULT_BAD_ARGUMENT, "", 0},
        {R"({"return": 0, "ip": "127.0.0.5", "port": 65536})", RESULT_BAD_ARGUMENT, "", 0},
        {R"({"return": 0, "ip": "127.0.0.5", "port": "80"})", RESULT_BAD_ARGUMENT, "", 0},
        {R"({"return": 0, "ip": "127.0.0.4/x?", "port": 80})", RESULT_BAD_ARGUMENT, "", 0},
        {R"({"return": 0, "ip": 5, "port": 80})", RESULT_BAD_ARGUMENT, "", 0},
        {R"({"return": -2, "ip": "", "port": 0})", RESULT_NOT_FOUND, "", 0},
    };
    for (const auto& [answer, result, host, port] : cases) {
        std::string found_host;
        int found_port = 0;
        EXPECT_EQ(ssci_parse_service_address(answer, found_host, found_port), result) << answer;
        EXPECT_EQ(found_host + ":" + std::to_string(found_port), host + (":" + std::to_string(port)));
    }
    loopback_peer silent;  // a silent name server and no time limit: one second
    ssci_nameserver_init("localhost", silent.port);
    std::string body = "stale";
    EXPECT_EQ(ssci_GET_request("svc", "/x", nullptr, body, 0, false, 0, nullptr), RESULT_TRANSPORT);
    EXPECT_EQ(body, "");
    body.assign(SSCI_REPLY_LIMIT, 'b');  // a reply one byte past its bound fails
    EXPECT_EQ(ssci_collect_reply(body.data(), 1, 1, &body), 0u);
    EXPECT_EQ(body.size(), SSCI_REPLY_LIMIT);
}

TEST(HttpGetClient, BuildsUrlsWithinItsLength) {
    char url[HTTP_GET_URL_SIZE];
    for (const auto& [path, expected] : {std::pair{"/", "h:7//"}, {"//x", "h:7//x"}, {"x", "h:7/x"}}) {
        ASSERT_EQ(build_get_url("h", 7, path, nullptr, url), HTTP_GET_OK);
        EXPECT_STREQ(url, expected);
    }
    const std::string path(500, 'p');  // 1 + 500 + 90 + 433 = 1024 fits
    EXPECT_EQ(build_get_url("h", 7, path.c_str(), std::string(433, 'q').c_str(), url), HTTP_GET_OK);
    EXPECT_EQ(build_get_url("h", 7, path.c_str(), std::string(434, 'q').c_str(), url), HTTP_GET_TOO_LONG);
}

// Another scheme in a registered address never makes the client speak it, even to a peer that would
// answer; a silent peer costs at most the time bound; a reply past its bound fails.
TEST(HttpGetClient, SpeaksOnlyHttpWithinItsBounds) {
    const std::string limit = "HTTP/1.0 200 OK\r\n\r\n" + std::string(HTTP_GET_MAX_REPLY, 'b');
    const std::tuple<const char*, std::string, long long> cases[] = {
        {"dict://127.0.0.1", "HTTP/1.0 200 OK\r\n\r\n", HTTP_GET_TRANSFER_FAILED},
        {"127.0.0.1", limit, HTTP_GET_OK}, {"127.0.0.1", "", HTTP_GET_TRANSFER_FAILED},  // silent
    };
    for (const auto& [host, answer, result] : cases) {
        loopback_peer peer;
        if (!answer.empty()) {
            peer.serve(answer);
        }
        std::string response;
        EXPECT_EQ(do_curl_GET_request(host, peer.port, "/x", "q=1", &response), result) << host;
        EXPECT_EQ(response.size(), result == HTTP_GET_OK ? HTTP_GET_MAX_REPLY : 0u) << host;
    }
    std::string full(HTTP_GET_MAX_REPLY, 'b');  // one more byte past the bound fails
    EXPECT_EQ(curl_write_to_string(full.data(), 1, 1, &full), 0u);
    EXPECT_EQ(full.size(), HTTP_GET_MAX_REPLY);
}

}  // namespace
