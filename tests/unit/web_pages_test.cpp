// Unit tests of the monitor's web pages: the content-type table, the ".."
// rule, containment in the home directory (symlinks included), and what
// proc_web_service refuses or serves at the size limit (redirects and
// ordinary files are covered over HTTP by test_monitor_web.py).
#include "monitor/web_pages.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "endpoints/ssci_response.h"

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

TEST_F(ScratchTree, ContainmentFollowsSymlinks) {
    const std::pair<std::string, bool> cases[] = {
        {home + "/index.html", true},
        {home + "//index.html", true},
        {home + "/sub/app.js", true},
        {home + "/in.js", true},
        {home + "/sub/../index.html", true},
        {home + "/out.js", false},
        {home + "/outdir/secret.js", false},
        {home + "/../outside/secret.js", false},
        {home + "/missing.html", false},
        {home, false},
        {home + "foo.js", false},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(web_path_inside_home(home + "/", test.first), test.second) << test.first;
        EXPECT_EQ(web_path_inside_home(home, test.first), test.second) << test.first;
    }
    EXPECT_FALSE(web_path_inside_home("", home + "/index.html"));
    EXPECT_FALSE(web_path_inside_home(root + "/nohome", root + "/nohome/x"));
}

struct reply_view {
    int status;
    std::string content_type;
    std::string body;
};

reply_view serve(const std::string& url) {
    std::shared_ptr<httpserver::http_response> reply = proc_web_service(url);
    const ssci_response* response = dynamic_cast<const ssci_response*>(reply.get());
    EXPECT_NE(response, nullptr);
    return {reply->get_response_code(), reply->get_header("Content-Type"),
            response ? response->body : ""};
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

TEST(SvcmonSetHomePath, CutsTo127Characters) {
    std::string long_path = "/" + std::string(200, 'h');
    svcmon_set_home_path(long_path.c_str());
    EXPECT_EQ(std::string(g_svcmon_home_path), long_path.substr(0, 127));
    svcmon_set_home_path("/home/httpd/manager_svc/");
    EXPECT_STREQ(g_svcmon_home_path, "/home/httpd/manager_svc/");
}

}  // namespace
