// web_path_fuzz.cpp - fuzz target for the monitor's web-page paths: the
// first byte picks the home path, the rest follows the web prefix. Checked:
// no 302 but for the bare prefix (and "/"); 200 only for a file whose real
// path lies inside the real home, and that very file (its ETag names its
// device, inode and size); else 404, and never for a regular file inside the
// home reached without a ".." segment.
#include <sys/stat.h>

#include <climits>
#include <cstdint>
#include <sstream>

#include "fuzz/fuzz_support.h"
#include "monitor/svcmon_handler.h"

namespace {

constexpr const char* HOME_PATHS[] = {
    "/tmp/fuzz-home/", "/tmp/fuzz-home", "/tmp/fuzz-home//", "/tmp/fuzz-home/sub/"};
constexpr const char MAKE_HOME[] =
    "cd /tmp && rm -rf fuzz-home && mkdir -p fuzz-home/sub && cd fuzz-home && mkfifo fifo && "
    "echo '<html>index</html>' > index.html && printf 'var a = 1;\\0tail' > app.js && "
    "echo '<p>page</p>' > sub/page.htm && : > sub/empty.html && echo outside > ../outside.html"
    " && echo beside > ../fuzz-home-beside.js && ln -s /etc etc_dir && ln -s index.html in.html"
    " && ln -s ../outside.html out.html && ln -s .. sub/up && ln -s loop sub/loop";

std::string real_path_of(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) == nullptr ? "" : resolved;
}

bool servable(const std::string& home, const std::string& related, const std::string& real) {
    const std::string real_home = real_path_of(home) + "/";
    struct stat info;
    return ("/" + related + "/").find("/../") == std::string::npos &&
           real.compare(0, real_home.size(), real_home) == 0 && stat(real.c_str(), &info) == 0 &&
           S_ISREG(info.st_mode);
}

std::string etag_start_of(const std::string& path) {
    struct stat info{};
    stat(path.c_str(), &info);
    std::ostringstream tag;
    tag << std::hex << '"' << info.st_dev << '-' << info.st_ino << '-' << info.st_size << '-';
    return tag.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const bool home_made = system(MAKE_HOME) == 0;
    fuzz_check(home_made, "cannot make the home directory");
    if (size == 0) {
        return 0;
    }
    const std::string home = HOME_PATHS[data[0] % std::size(HOME_PATHS)];
    const std::string related(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string real = real_path_of(home + related);
    svcmon_set_home_path(home.c_str());
    const auto reply = proc_svcmon_get(
        httpserver::http_request("GET", std::string(WEB_PREFIX) + related, {}, {}, ""));
    const int status = reply->get_response_code();
    const bool bare = related.empty() || related == "/";
    if (status == 200) {
        fuzz_check(servable(home, related, real) &&
                       reply->get_header("ETag").rfind(etag_start_of(real), 0) == 0,
                   "served a file outside the home directory, or another file");
    } else if (!bare) {
        fuzz_check(status == 404 && !servable(home, related, real), "404");
    }
    return 0;
}
