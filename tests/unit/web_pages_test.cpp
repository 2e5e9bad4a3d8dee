// Unit tests of the monitor's web pages: the content-type table, the ".."
// rule, containment in the home directory (symlinks included), and what
// proc_web_service refuses or serves at the size limit (redirects and
// ordinary files are covered over HTTP by test_monitor_web.py).
#include "monitor/web_pages.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>


namespace {

struct type_case {
    const char* path;
    const char* expected;
};

const type_case TYPE_CASES[] = {
    {"/home/httpd/manager_svc//index.html", "text/html"},
    {"/h/page.htm", "text/html"},
    {"/h/app.js", "application/javascript"},
    {"/h/app.JS", "text/html"},
    {"/h/page.HTML", "text/html"},
    {"/h/style.css", "text/html"},
    {"/h/logo.png", "text/html"},
    {"/h/noextension", "text/html"},
    {"/h.d/noextension", "text/html"},
    {"/h/archive.html.js", "application/javascript"},
    {"/h/trailing.", "text/html"},
    {"app.jsx", "text/html"},
};

TEST(WebContentType, FollowsTheMimeTable) {
    for (const type_case& test : TYPE_CASES) {
        EXPECT_STREQ(web_content_type(test.path), test.expected) << test.path;
    }
}

const std::pair<const char*, bool> RELATED_CASES[] = {
    {"/index.html", true}, {"/js/app.js", true},  {"foo.js", true},
    {"/..x", true},        {"/x..", true},        {"/.../x", true},
    {"/./index.html", true}, {"/..", false},      {"..", false},
    {"/../etc/passwd", false}, {"/js/../index.html", false}, {"//..//x", false},
    {"/a/..", false},      {"../x", false},
};

TEST(WebRelatedPathAllowed, RefusesParentSegments) {
    for (const auto& test : RELATED_CASES) {
        EXPECT_EQ(web_related_path_allowed(test.first), test.second) << test.first;
    }
}

// A scratch tree: ROOT/home/{index.html, sub/app.js, links}, ROOT/outside.
class ScratchTree : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/web_pages_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root = pattern;
        home = root + "/home";
        mkdir(home.c_str(), 0755);
        mkdir((home + "/sub").c_str(), 0755);
        mkdir((root + "/outside").c_str(), 0755);
        write_file(home + "/index.html", "<p>index</p>");
        write_file(home + "/sub/app.js", "let a = 1;");
        write_file(root + "/outside/secret.js", "secret");
        write_file(root + "/homefoo.js", "beside");
        ASSERT_EQ(symlink("../outside/secret.js", (home + "/out.js").c_str()), 0);
        ASSERT_EQ(symlink("../outside", (home + "/outdir").c_str()), 0);
        ASSERT_EQ(symlink("sub/app.js", (home + "/in.js").c_str()), 0);
    }
    void TearDown() override {
        std::string command = "rm -rf '" + root + "'";
        ASSERT_EQ(system(command.c_str()), 0);
    }
    static void write_file(const std::string& path, const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
    }
    std::string root;
    std::string home;
};

struct reply_view {
    int status;
    std::string content_type;
    std::string body;
};

reply_view serve(const std::string& url, httpserver::header_map headers = {}) {
    httpserver::http_request request("GET", url, {}, std::move(headers), "");
    std::shared_ptr<httpserver::http_response> reply = proc_web_service(request);
    const auto* text = dynamic_cast<const httpserver::string_response*>(reply.get());
    EXPECT_NE(text, nullptr);
    return {reply->get_response_code(), reply->get_header("Content-Type"),
            text ? text->get_content() : ""};
}

TEST_F(ScratchTree, ContainmentFollowsSymlinks) {
    const std::pair<std::string, int> cases[] = {
        {"/index.html", 200},     {"//index.html", 200},    {"/sub/app.js", 200},
        {"/in.js", 200},          {"/out.js", 404},         {"/outdir/secret.js", 404},
        {"/missing.html", 404},
    };
    for (const std::string& home_path : {home + "/", home}) {
        svcmon_set_home_path(home_path.c_str());
        for (const auto& test : cases) {
            EXPECT_EQ(serve(WEB_PREFIX + test.first).status, test.second) << test.first;
        }
    }
}

TEST_F(ScratchTree, RefusesWhatIsNotAServableFile) {
    ASSERT_EQ(mkfifo((home + "/pipe.html").c_str(), 0644), 0);
    std::string big = home + "/big.html";
    write_file(big, "");
    ASSERT_EQ(truncate(big.c_str(), WEB_MAX_FILE_SIZE + 1), 0);
    svcmon_set_home_path(home.c_str());
    const char* urls[] = {
        "/managerService/svcmon/web/missing.html", "/managerService/svcmon/web/sub",
        "/managerService/svcmon/web/sub/",         "/managerService/svcmon/web/pipe.html",
        "/managerService/svcmon/web/big.html",     "/managerService/svcmon/web/out.js",
        "/managerService/svcmon/web/../outside/secret.js",
        "/managerService/svcmon/web/sub/../index.html",
        // Without a final "/" on the home path this names ROOT/homefoo.js.
        "/managerService/svcmon/webfoo.js",
    };
    for (const char* url : urls) {
        reply_view reply = serve(url);
        EXPECT_EQ(reply.status, 404) << url;
        EXPECT_EQ(reply.content_type, "text/html") << url;
        EXPECT_EQ(reply.body, "404 Not Found") << url;
    }
}

TEST_F(ScratchTree, ServesAFileOfTheLargestSize) {
    std::string big = home + "/big.js";
    write_file(big, "");
    ASSERT_EQ(truncate(big.c_str(), WEB_MAX_FILE_SIZE), 0);
    svcmon_set_home_path((home + "/").c_str());
    reply_view reply = serve("/managerService/svcmon/web/big.js");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body.size(), static_cast<std::size_t>(WEB_MAX_FILE_SIZE));
}

TEST_F(ScratchTree, ServesAHomeDirectoryMadeAfterStartUp) {
    std::string late = root + "/late/";
    svcmon_set_home_path(late.c_str());
    EXPECT_EQ(serve("/managerService/svcmon/web/index.html").status, 404);
    mkdir(late.c_str(), 0755);
    write_file(late + "index.html", "late");
    reply_view reply = serve("/managerService/svcmon/web/index.html");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "late");
}

// Validators of a file last modified at 1994-11-06 08:49:37 UTC.
constexpr time_t MODIFIED = 784111777;
constexpr const char TAG[] = "\"1f-2e-3d-4c\"";

struct validator_case {
    const char* if_none_match;
    const char* if_modified_since;
    bool unchanged;
};

const validator_case VALIDATOR_CASES[] = {
    {"\"1f-2e-3d-4c\"", nullptr, true},
    {"W/\"1f-2e-3d-4c\"", nullptr, true},
    {"\"a\", \t\"1f-2e-3d-4c\" ,\"b\"", nullptr, true},
    {"*", nullptr, true},
    {"\"1f-2e-3d-4d\"", nullptr, false},
    {"1f-2e-3d-4c", nullptr, false},
    {",,", nullptr, false},
    {nullptr, "Sun, 06 Nov 1994 08:49:37 GMT", true},
    {nullptr, "Mon, 07 Nov 1994 00:00:00 GMT", true},
    {nullptr, "Sun, 06 Nov 1994 08:49:36 GMT", false},
    {nullptr, "Sunday, 06-Nov-94 08:49:37 GMT", false},
    {nullptr, "Sun, 06 Xyz 2030 08:49:37 GMT", false},
    {nullptr, "Sun, 06 Nov 1994 08:49:37 GMT trailing", false},
    // If-None-Match decides alone when it is there.
    {"\"other\"", "Mon, 07 Nov 1994 00:00:00 GMT", false},
    {nullptr, nullptr, false},
};

TEST(WebPageUnchanged, FollowsTheRequestValidators) {
    for (const validator_case& test : VALIDATOR_CASES) {
        httpserver::header_map headers;
        if (test.if_none_match != nullptr) {
            headers["if-none-match"] = test.if_none_match;
        }
        if (test.if_modified_since != nullptr) {
            headers["If-Modified-Since"] = test.if_modified_since;
        }
        httpserver::http_request request("GET", "/", {}, headers, "");
        EXPECT_EQ(web_page_unchanged(request, TAG, MODIFIED), test.unchanged)
            << (test.if_none_match ? test.if_none_match : "-") << " / "
            << (test.if_modified_since ? test.if_modified_since : "-");
    }
}

// The bytes of one reply, kept alive as a reply in flight would keep them.
std::shared_ptr<httpserver::http_response> page_reply(const std::string& url) {
    return proc_web_service(httpserver::http_request("GET", url, {}, {}, ""));
}

const std::string& content_of(const std::shared_ptr<httpserver::http_response>& reply) {
    return dynamic_cast<const httpserver::string_response&>(*reply).get_content();
}

TEST_F(ScratchTree, RepliesShareOneCopyUntilTheFileChanges) {
    svcmon_set_home_path(home.c_str());
    const std::string url = std::string(WEB_PREFIX) + "/index.html";
    std::shared_ptr<httpserver::http_response> first = page_reply(url);
    // A file changed moments ago is read afresh each time, until it has
    // settled; from then on replies share one copy.
    auto shares_with_first = [&] {
        first = page_reply(url);
        return content_of(page_reply(url)).data() == content_of(first).data();
    };
    for (int tries = 0; tries < 100 && !shares_with_first(); ++tries) {
        usleep(50 * 1000);
    }
    ASSERT_EQ(content_of(page_reply(url)).data(), content_of(first).data());
    // Listener threads look the table up and store in it at once.
    std::vector<std::thread> readers;
    std::atomic<int> unshared{0};
    for (int thread = 0; thread < 4; ++thread) {
        readers.emplace_back([&] {
            for (int request = 0; request < 200; ++request) {
                unshared += content_of(page_reply(url)).data() != content_of(first).data();
            }
        });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(unshared, 0);
    write_file(home + "/index.html", "<p>INDEX</p>");
    EXPECT_EQ(content_of(page_reply(url)), "<p>INDEX</p>");
    EXPECT_EQ(content_of(first), "<p>index</p>");
}

TEST(SvcmonSetHomePath, CutsTo127Characters) {
    std::string long_path = "/" + std::string(200, 'h');
    svcmon_set_home_path(long_path.c_str());
    EXPECT_EQ(std::string(g_svcmon_home_path), long_path.substr(0, 127));
    svcmon_set_home_path("/home/httpd/manager_svc/");
    EXPECT_STREQ(g_svcmon_home_path, "/home/httpd/manager_svc/");
}

}  // namespace
