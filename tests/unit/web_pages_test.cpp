// web_pages_test.cpp - the monitor's web pages: the ".." rule, which files
// of a scratch home directory are served (symlinks followed, containment
// checked), the validators and their HTTP dates, and one shared copy of an
// unchanged page.
#include "monitor/web_pages.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

TEST(WebPages, RelatedPathWithAParentSegmentIsRefused) {
    const std::pair<const char*, bool> cases[] = {
        {"/index.html", true}, {"/..x", true},   {"/x..", true},     {"/.../x", true},
        {"/./i", true},        {"..", false},    {"../x", false},    {"/..", false},
        {"/js/../i", false},   {"//..//x", false},
    };
    for (const auto& [path, allowed] : cases) {
        EXPECT_EQ(allowed, web_related_path_allowed(path)) << path;
    }
}

// A file last modified at 1994-11-06 08:49:37 UTC, and that time as an HTTP date.
constexpr time_t MODIFIED = 784111777;
constexpr const char DATE[] = "Sun, 06 Nov 1994 08:49:37 GMT";

std::shared_ptr<httpserver::http_response> serve(const std::string& path,
                                                 httpserver::header_map headers = {}) {
    return proc_web_service(httpserver::http_request("GET", WEB_PREFIX + path, {}, headers, ""));
}

TEST(WebPages, RequestValidatorsSayWhetherTheClientHasThePage) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"\"t\"", "", true},
        {"W/\"t\"", "", true},
        {"\"a\", \t\"t\" ,\"b\"", "", true},
        {"*", "", true},
        {"\"u\"", "", false},
        {"\"u\"", "Mon, 07 Nov 1994 00:00:00 GMT", false},
        {"", DATE, true},
        {"", "Sun, 06 Nov 1994 08:49:36 GMT", false},
        {"", "Sunday, 06-Nov-94 08:49:37 GMT", false},
        {"", "Sun, 06 Xyz 1994 08:49:37 GMT", false},
        {"", "Sun, 06 Nov 1994 08:49:37 GMT x", false},
    };
    for (const auto& [tags, since, unchanged] : cases) {
        httpserver::http_request request("GET", "/", {}, {{"If-None-Match", tags}, {"If-Modified-Since", since}}, "");
        EXPECT_EQ(unchanged, web_page_unchanged(request, "\"t\"", MODIFIED)) << tags << since;
    }
}

// ROOT/home/{index.html, sub/app.js, in.js -> sub/app.js,
// out.js -> ../secret.js}, ROOT/secret.js.
TEST(WebPages, OnlyRegularFilesInsideTheHomeDirectoryAreServed) {
    char root[] = "/tmp/web_pages_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(root));
    const std::string home = std::string(root) + "/home";
    mkdir(home.c_str(), 0755);
    mkdir((home + "/sub").c_str(), 0755);
    std::ofstream(home + "/index.html") << "<p>index</p>";
    std::ofstream(home + "/sub/app.js") << "let a;";
    std::ofstream(std::string(root) + "/secret.js") << "secret";
    symlink("sub/app.js", (home + "/in.js").c_str());
    symlink("../secret.js", (home + "/out.js").c_str());
    const utimbuf times = {MODIFIED, MODIFIED};
    utime((home + "/index.html").c_str(), &times);
    svcmon_set_home_path(home.c_str());
    const std::tuple<const char*, int, const char*> cases[] = {
        {"/index.html", 200, "text/html"},  {"/in.js", 200, "application/javascript"},
        {"/out.js", 404, "text/html"},      {"/../secret.js", 404, "text/html"},
        {"/sub", 404, "text/html"},         {"/missing.js", 404, "text/html"},
    };
    for (const auto& [path, status, type] : cases) {
        auto reply = serve(path);
        EXPECT_EQ(status, reply->get_response_code()) << path;
        EXPECT_EQ(type, reply->get_header("Content-Type")) << path;
    }
    auto page = serve("/index.html");
    EXPECT_EQ(DATE, page->get_header("Last-Modified"));
    EXPECT_EQ(304, serve("/index.html", {{"If-None-Match", page->get_header("ETag")}})->get_response_code());
    EXPECT_EQ(WEB_START_PAGE, serve("/")->get_header("Location"));
    EXPECT_EQ(0, system(("rm -rf " + std::string(root)).c_str()));
}

const std::string& content_of(const std::shared_ptr<httpserver::http_response>& reply) {
    return dynamic_cast<const httpserver::string_response&>(*reply).get_content();
}

// The project's own pages have not changed for a while: their replies
// share one copy of the bytes.
TEST(WebPages, RepliesShareOneCopyOfAnUnchangedPage) {
    svcmon_set_home_path(FIXTURE_DIR "/../../web");
    auto first = serve("/index.html");
    EXPECT_EQ(200, first->get_response_code());
    EXPECT_EQ(content_of(first).data(), content_of(serve("/index.html")).data());
}

}  // namespace
