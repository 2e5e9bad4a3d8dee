// web_pages_test.cpp - the monitor's web pages on a home directory of their own: the ".." rule, content
// types, the validators (ETag lists, HTTP dates) and their 304, the headers of every kind of reply, and that
// each reply's descriptor is closed with it (what is served and refused over HTTP, HEAD and the lengths are
// tested in tests/blackbox).
#include "monitor/web_pages.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

namespace {

// A page last changed at 1994-11-06 08:49:37 UTC, and that time as an HTTP date.
constexpr time_t MODIFIED = 784111777;
constexpr const char DATE[] = "Sun, 06 Nov 1994 08:49:37 GMT";

std::ptrdiff_t open_descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

class WebPages : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/web_pages_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        root = pattern;
        std::filesystem::create_directories(root + "/home/js");
        for (const char* page : {"/index.html", "/..x", "/x..", "/i", "/p.htm", "/app.JS", "/js/x"})
            std::ofstream(root + "/home" + page) << page;
        const timespec times[2] = {{MODIFIED, 0}, {MODIFIED, 0}};
        utimensat(AT_FDCWD, (root + "/home/index.html").c_str(), times, 0);
        svcmon_set_home_path((root + "/home/").c_str());
        descriptors = open_descriptors();
    }
    void TearDown() override {
        EXPECT_EQ(descriptors, open_descriptors());
        std::filesystem::remove_all(root);
    }

    std::string root;
    std::ptrdiff_t descriptors = 0;
};

std::shared_ptr<httpserver::http_response> serve(const std::string& path, httpserver::header_map headers = {}) {
    return proc_web_service(httpserver::http_request("GET", WEB_PREFIX + path, {}, headers, ""));
}

// A ".." segment is refused even where it leads inside; the type comes from the last dot of the whole path; no
// reply may be framed. The related path is the home path's continuation: without a "/" between them they name
// a file beside the home directory, which is not served.
TEST_F(WebPages, ParentSegmentsAreRefusedOnlyASlashJoinsAndTypesComeFromTheLastDot) {
    const std::pair<const char*, int> cases[] = {
        {"/p.htm", 200}, {"/app.JS", 200}, {"/i", 200}, {"/..x", 200}, {"/x..", 200}, {"/./i", 200},
        {"/js//x", 200}, {"index.html", 200}, {"/js//..//i", 404}, {"/js", 404}, {"/", 302}, {"", 302},
    };
    for (const auto& [path, status] : cases) {
        const auto reply = serve(path);
        EXPECT_EQ(status, reply->get_response_code()) << path;
        EXPECT_EQ(status == 302 ? "text/plain" : "text/html", reply->get_header("Content-Type")) << path;
        EXPECT_EQ("DENY", reply->get_header("X-Frame-Options")) << path;
    }
    std::ofstream(root + "/homeindex.html") << "beside";
    svcmon_set_home_path((root + "/home").c_str());
    EXPECT_EQ(200, serve("/index.html")->get_response_code());
    EXPECT_EQ(404, serve("index.html")->get_response_code());
}

TEST_F(WebPages, RequestValidatorsSayWhetherTheClientHasThePage) {
    struct stat info;
    ASSERT_EQ(0, stat((root + "/home/index.html").c_str(), &info));
    std::ostringstream tag;
    tag << std::hex << '"' << info.st_dev << '-' << info.st_ino << '-' << info.st_size << '-'
        << MODIFIED * 1000000000ULL << '"';
    EXPECT_EQ(tag.str(), serve("/index.html")->get_header("ETag"));
    EXPECT_EQ(DATE, serve("/index.html")->get_header("Last-Modified"));
    const std::tuple<std::string, const char*, int> cases[] = {
        {"\"a\", \t" + tag.str() + " ,\"b\"", "", 304}, {"*", "", 304}, {"\"u\"", DATE, 200},
        {"", "Mon, 07 Nov 1994 00:00:00 GMT", 304}, {"", "Sun, 06 Xyz 1994 08:49:37 GMT", 200},
        {"", "Sun, 06 Nov 1994 08:49:37 GMT x", 200},
    };
    for (const auto& [tags, since, status] : cases) {
        auto reply = serve("/index.html", {{"If-None-Match", tags}, {"If-Modified-Since", since}});
        EXPECT_EQ(status, reply->get_response_code()) << tags << since;
        EXPECT_EQ(status == 200 ? "text/html" : "", reply->get_header("Content-Type"));
    }
}

}  // namespace
