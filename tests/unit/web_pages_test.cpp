// web_pages_test.cpp - the monitor's web pages on a home directory of their
// own: the ".." rule, content types, the validators (ETag lists, HTTP
// dates) and their 304, the headers of every kind of reply, and that each
// reply's descriptor is closed with it (what is served and refused over
// HTTP, HEAD and the lengths are tested in tests/blackbox).
#include "monitor/web_pages.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

// A page last changed at 1994-11-06 08:49:37 UTC, and that time as an HTTP date.
constexpr time_t MODIFIED = 784111777;
constexpr const char DATE[] = "Sun, 06 Nov 1994 08:49:37 GMT";

class WebPages : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/web_pages_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        root = pattern;
        for (const char* dir : {"/home", "/home/js", "/home/a.b"}) {
            mkdir((root + dir).c_str(), 0755);
        }
        for (const char* page : {"/index.html", "/..x", "/x..", "/i", "/p.htm", "/app.js",
                                 "/app.JS", "/s.css", "/js/x", "/a.b/page"}) {
            std::ofstream(root + "/home" + page) << page;
        }
        const timespec times[2] = {{MODIFIED, 0}, {MODIFIED, 0}};
        utimensat(AT_FDCWD, (root + "/home/index.html").c_str(), times, 0);
        svcmon_set_home_path((root + "/home/").c_str());
    }
    void TearDown() override { std::filesystem::remove_all(root); }

    std::string root;
};

std::shared_ptr<httpserver::http_response> serve(const std::string& path,
                                                 httpserver::header_map headers = {}) {
    return proc_web_service(httpserver::http_request("GET", WEB_PREFIX + path, {}, headers, ""));
}

int status_of(const std::string& path) {
    return serve(path)->get_response_code();
}

std::size_t open_descriptors() {
    std::size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

TEST_F(WebPages, ParentSegmentsAreRefusedEvenWhenTheyLeadInside) {
    for (const char* path : {"/index.html", "/..x", "/x..", "/./i", "/js//x"}) {
        EXPECT_EQ(200, status_of(path)) << path;
    }
    for (const char* path : {"/js/../i", "/js//..//i", "/js/../../home/i", "/js", "/missing"}) {
        EXPECT_EQ(404, status_of(path)) << path;
    }
}

TEST_F(WebPages, ContentTypeComesFromTheLastDotOfTheWholePath) {
    const std::pair<const char*, const char*> cases[] = {
        {"/index.html", "text/html"}, {"/p.htm", "text/html"},
        {"/app.js", "application/javascript"}, {"/app.JS", "text/html"},
        {"/s.css", "text/html"}, {"/i", "text/html"}, {"/a.b/page", "text/html"},
    };
    for (const auto& [path, type] : cases) {
        EXPECT_EQ(type, serve(path)->get_header("Content-Type")) << path;
    }
}

TEST_F(WebPages, RequestValidatorsSayWhetherTheClientHasThePage) {
    auto page = serve("/index.html");
    const std::string tag = page->get_header("ETag");
    struct stat info;
    ASSERT_EQ(0, stat((root + "/home/index.html").c_str(), &info));
    char expected[96];
    snprintf(expected, sizeof expected, "\"%llx-%llx-%llx-%llx\"",
             static_cast<unsigned long long>(info.st_dev),
             static_cast<unsigned long long>(info.st_ino),
             static_cast<unsigned long long>(info.st_size), MODIFIED * 1000000000ULL);
    EXPECT_EQ(expected, tag);
    EXPECT_EQ(DATE, page->get_header("Last-Modified"));
    EXPECT_EQ("no-cache", page->get_header("Cache-Control"));
    const std::tuple<std::string, const char*, int> cases[] = {
        {tag, "", 304}, {"W/" + tag, "", 304}, {"\"a\", \t" + tag + " ,\"b\"", "", 304},
        {"*", "", 304}, {"\"u\"", "", 200}, {"\"u\"", DATE, 200}, {"", DATE, 304},
        {"", "Mon, 07 Nov 1994 00:00:00 GMT", 304},
        {"", "Sun, 06 Nov 1994 08:49:36 GMT", 200}, {"", "Sunday, 06-Nov-94 08:49:37 GMT", 200},
        {"", "Sun, 06 Xyz 1994 08:49:37 GMT", 200}, {"", "Sun, 06 Nov 1994 08:49:37 GMT x", 200},
    };
    for (const auto& [tags, since, status] : cases) {
        auto reply = serve("/index.html", {{"If-None-Match", tags}, {"If-Modified-Since", since}});
        EXPECT_EQ(status, reply->get_response_code()) << tags << since;
        EXPECT_EQ(tag, reply->get_header("ETag"));
        EXPECT_EQ(status == 200 ? "text/html" : "", reply->get_header("Content-Type"));
    }
}

TEST_F(WebPages, EveryReplyForbidsFramingAndTheBarePrefixLeadsToTheStartPage) {
    const std::string tag = serve("/index.html")->get_header("ETag");
    auto redirect = serve("/");
    EXPECT_EQ(302, redirect->get_response_code());
    EXPECT_EQ("/managerService/svcmon/web/index.html", redirect->get_header("Location"));
    for (const auto& reply : {serve("/index.html"), serve("/index.html", {{"If-None-Match", tag}}),
                              serve("/missing"), serve(""), redirect}) {
        EXPECT_EQ("DENY", reply->get_header("X-Frame-Options"));
        EXPECT_EQ("frame-ancestors 'none'", reply->get_header("Content-Security-Policy"));
    }
}

// A reply holds its page's descriptor until it is made into a raw response
// or destroyed; none is left open afterwards.
TEST_F(WebPages, EachReplyClosesItsDescriptor) {
    const std::size_t before = open_descriptors();
    {
        auto page = serve("/index.html");
        EXPECT_EQ(before + 1, open_descriptors());
        for (int round = 0; round < 50; ++round) {
            serve("/app.js");
            serve("/missing");
        }
    }
    EXPECT_EQ(before, open_descriptors());
}

}  // namespace
