// web_path_fuzz.cpp - fuzz target for the monitor's web-page path mapping.
// Any bytes become the request path after the web prefix and go through
// proc_svcmon_get to proc_web_service. A small home directory is made in
// the sandbox at start: pages, a directory, a FIFO, symlinks that stay
// inside and symlinks that lead out, a file beside the home directory and
// one outside it.
//
// The first byte picks the home path (with and without a final "/", a
// doubled "/", a subdirectory), the rest is the path. Checked:
// - 302 only for the bare prefix or the prefix and "/";
// - 200 only for a file whose real path lies inside the real home
//   directory, with the file's bytes as the body;
// - 404 never for a servable file: a regular file inside the home
//   directory, reached by a path without a ".." segment.
// Single-threaded; runs only inside the sandbox.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/fuzz_support.h"
#include "monitor/svcmon_handler.h"

namespace {

constexpr const char HOME_DIR[] = "/tmp/fuzz-home";
constexpr const char* HOME_PATHS[] = {
    "/tmp/fuzz-home/", "/tmp/fuzz-home", "/tmp/fuzz-home//", "/tmp/fuzz-home/sub/",
};
constexpr int STATUS_FOUND = 302;
constexpr int STATUS_NOT_FOUND = 404;

void make_file(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    fuzz_check(file.good(), "cannot make a fixture file", path);
}

void make_link(const char* target, const std::string& link) {
    unlink(link.c_str());
    fuzz_check(symlink(target, link.c_str()) == 0, "cannot make a symlink", link);
}

// The home directory and its neighbours (inside the sandbox's /tmp).
void make_home() {
    std::string home = HOME_DIR;
    mkdir(home.c_str(), 0755);
    mkdir((home + "/sub").c_str(), 0755);
    make_file(home + "/index.html", "<html>index</html>");
    make_file(home + "/app.js", std::string("var a = 1;\0tail", 15));
    make_file(home + "/sub/page.htm", "<p>page</p>");
    make_file(home + "/sub/empty.html", "");
    make_file(home + "-beside.js", "beside");
    make_file("/tmp/outside.html", "outside");
    make_link("/etc", home + "/etc_dir");
    make_link("/tmp/outside.html", home + "/out.html");
    make_link("index.html", home + "/in.html");
    make_link("..", home + "/sub/up");
    make_link("loop", home + "/sub/loop");
    unlink((home + "/fifo").c_str());
    fuzz_check(mkfifo((home + "/fifo").c_str(), 0644) == 0, "cannot make a FIFO");
}

std::string real_path_of(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) == nullptr ? std::string() : resolved;
}

bool inside(const std::string& directory, const std::string& path) {
    return path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0 &&
           path[directory.size()] == '/';
}

bool has_parent_segment(const std::string& related) {
    std::string wrapped = "/" + related + "/";
    return wrapped.find("/../") != std::string::npos;
}

bool is_regular_file(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string file_bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void check_reply(const std::string& home, const std::string& related,
                 const httpserver::http_response& reply) {
    int status = reply.get_response_code();
    std::string abs_path = home + related;
    std::string real_home = real_path_of(home);
    std::string real_file = real_path_of(abs_path);
    bool servable = !has_parent_segment(related) && !real_file.empty() &&
                    inside(real_home, real_file) && is_regular_file(real_file);
    if (related.empty() || related == "/") {
        fuzz_check(status == STATUS_FOUND, "bare prefix not redirected", abs_path);
    } else if (status == HTTP_STATUS_OK) {
        fuzz_check(servable, "served a file outside the home directory", abs_path);
        fuzz_check(fuzz_reply_body(reply) == file_bytes(real_file), "body differs", abs_path);
    } else {
        fuzz_check(status == STATUS_NOT_FOUND, "unexpected status", abs_path);
        fuzz_check(!servable, "servable file refused", abs_path);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start_up();
    make_home();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const char* home = HOME_PATHS[data[0] % (sizeof HOME_PATHS / sizeof HOME_PATHS[0])];
    svcmon_set_home_path(home);
    std::string related(reinterpret_cast<const char*>(data) + 1, size - 1);
    httpserver::http_request request("GET", std::string(WEB_PREFIX) + related, {}, {}, "");
    check_reply(home, related, *proc_svcmon_get(request));
    return 0;
}
