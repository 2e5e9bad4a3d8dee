// web_pages_test.cpp - the monitor's web pages: the ".." rule, the request
// validators (ETag lists, HTTP dates), the prepared replies of unchanged
// pages, and kept pages that still change at once (what is served and
// refused is tested over HTTP in tests/blackbox).
#include "monitor/web_pages.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

namespace {

// A page last changed at 1994-11-06 08:49:37 UTC, and that time as an HTTP date.
constexpr time_t MODIFIED = 784111777;
constexpr const char DATE[] = "Sun, 06 Nov 1994 08:49:37 GMT";

std::shared_ptr<httpserver::http_response> serve(const std::string& path, httpserver::header_map headers = {}) {
    return proc_web_service(httpserver::http_request("GET", WEB_PREFIX + path, {}, headers, ""));
}

TEST(WebPages, RelatedPathWithAParentSegmentIsRefused) {
    const std::pair<const char*, bool> cases[] = {
        {"/index.html", true}, {"/..x", true}, {"/x..", true},     {"/.../x", true},  {"/./i", true},
        {"..", false},         {"../x", false}, {"/..", false}, {"/js/../i", false}, {"//..//x", false},
    };
    for (const auto& [path, allowed] : cases) {
        EXPECT_EQ(allowed, web_related_path_allowed(path)) << path;
    }
}

TEST(WebPages, RequestValidatorsSayWhetherTheClientHasThePage) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"\"t\"", "", true}, {"W/\"t\"", "", true}, {"\"a\", \t\"t\" ,\"b\"", "", true}, {"*", "", true},
        {"\"u\"", "", false}, {"\"u\"", "Mon, 07 Nov 1994 00:00:00 GMT", false}, {"", DATE, true},
        {"", "Sun, 06 Nov 1994 08:49:36 GMT", false}, {"", "Sunday, 06-Nov-94 08:49:37 GMT", false},
        {"", "Sun, 06 Xyz 1994 08:49:37 GMT", false}, {"", "Sun, 06 Nov 1994 08:49:37 GMT x", false},
    };
    for (const auto& [tags, since, unchanged] : cases) {
        httpserver::http_request request("GET", "/", {}, {{"If-None-Match", tags}, {"If-Modified-Since", since}}, "");
        EXPECT_EQ(unchanged, web_page_unchanged(request, "\"t\"", MODIFIED)) << tags << since;
    }
}

// The project's own pages have not changed for a while: every request for
// one of them gets the same prepared reply (the same bytes, the same
// headers), and a client that has the page the same 304. The bare prefix
// leads to the start page.
TEST(WebPages, UnchangedPagesGetPreparedReplies) {
    svcmon_set_home_path(FIXTURE_DIR "/../../web");
    auto page = serve("/index.html");
    auto script = serve("/app.js");
    EXPECT_EQ(200, page->get_response_code());
    EXPECT_EQ("application/javascript", script->get_header("Content-Type"));
    EXPECT_EQ(page, serve("/index.html"));
    EXPECT_EQ(script, serve("/app.js"));
    const std::string tag = page->get_header("ETag");
    auto not_modified = serve("/index.html", {{"If-None-Match", tag}});
    EXPECT_EQ(304, not_modified->get_response_code());
    EXPECT_EQ(tag, not_modified->get_header("ETag"));
    EXPECT_EQ(not_modified, serve("/index.html", {{"If-None-Match", tag}}));
    EXPECT_EQ(WEB_START_PAGE, serve("/")->get_header("Location"));
}

// A page kept and served without a stat is still served anew at once after
// each kind of change that inotify sees: written in place, replaced by a
// rename, a directory on its way replaced, removed, its mode changed.
TEST(PageFile, KeptPagesChangeAtOnce) {
    char pattern[] = "/tmp/page_file_test.XXXXXX";
    char home[PATH_MAX];
    ASSERT_NE(nullptr, mkdtemp(pattern));
    ASSERT_NE(nullptr, realpath(pattern, home));
    const std::string root = home;
    auto write = [&](const std::string& path, const std::string& text) {
        std::ofstream(root + path) << text;
    };
    auto served = [&](const std::string& path) {
        page_file page;
        return open_page_file(root, root + path, &page) ? *page.bytes : "(none)";
    };
    mkdir((root + "/dir").c_str(), 0755);
    const char* pages[] = {"/a.html", "/b.html", "/dir/c.html", "/d.html", "/e.html", "/f.html"};
    for (const char* path : pages) {
        write(path, path);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));  // settled: kept from now on
    for (const char* path : pages) {
        EXPECT_EQ(path, served(path));
        EXPECT_EQ(path, served(path));
    }
    // A write through a shared memory map makes no inotify event, so a page
    // served without a stat is served as it was (for up to a second).
    const int fd = open((root + "/f.html").c_str(), O_RDWR);
    auto* map = static_cast<char*>(mmap(nullptr, 7, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ASSERT_NE(MAP_FAILED, map);
    memcpy(map, "/F.HTML", 7);
    EXPECT_EQ("/f.html", served("/f.html"));
    munmap(map, 7);
    close(fd);
    // Readers on other threads, too, see the change once the write is done.
    std::atomic<bool> written{false};
    std::atomic<bool> done{false};
    std::atomic<int> stale{0};
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 4; ++reader) {
        readers.emplace_back([&] {
            while (!done.load()) {
                const bool after_write = written.load();
                const std::string page = served("/a.html");
                if (after_write && page != "a, written") {
                    ++stale;
                }
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    write("/a.html", "a, written");
    written.store(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    done.store(true);
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(0, stale.load());
    EXPECT_EQ("a, written", served("/a.html"));
    write("/b.new", "b, renamed");
    rename((root + "/b.new").c_str(), (root + "/b.html").c_str());
    EXPECT_EQ("b, renamed", served("/b.html"));
    rename((root + "/dir").c_str(), (root + "/old").c_str());
    mkdir((root + "/dir").c_str(), 0755);
    write("/dir/c.html", "c, new directory");
    EXPECT_EQ("c, new directory", served("/dir/c.html"));
    unlink((root + "/d.html").c_str());
    EXPECT_EQ("(none)", served("/d.html"));
    page_file before;
    page_file after;
    ASSERT_TRUE(open_page_file(root, root + "/e.html", &before));
    chmod((root + "/e.html").c_str(), 0600);
    ASSERT_TRUE(open_page_file(root, root + "/e.html", &after));
    EXPECT_FALSE(same_page_version(before.identity, after.identity));
    std::filesystem::remove_all(root);
}

}  // namespace
