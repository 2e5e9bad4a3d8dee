// web_pages.cpp - the monitor's web pages (see the header).
// Owns g_svcmon_home_path and its resolved form g_real_home_path: written by
// svcmon_set_home_path on the main thread before the server starts,
// read-only afterwards (no lock).
// Every request has its own texts, file descriptor and body.
//
// What is served: only regular files whose real path (symlinks resolved)
// lies inside the real home directory, at most WEB_MAX_FILE_SIZE bytes.
// A related path with a ".." segment, a directory, a device or FIFO, a
// symlink that leads out of the home directory, and a file beside the home
// directory (a -D path without a final "/" joined to "foo.js") all get the
// 404 page, as a missing file does.
#include "monitor/web_pages.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "endpoints/ssci_response.h"
#include "main/print_log.h"

char g_svcmon_home_path[SVCMON_HOME_PATH_SIZE];

const mime_type_row mime_type_table[3] = {
    {"html", "text/html"},
    {"htm", "text/html"},
    {"js", "application/javascript"},
};

namespace {

constexpr const char DEFAULT_CONTENT_TYPE[] = "text/html";
constexpr int HTTP_STATUS_FOUND = 302;
constexpr int HTTP_STATUS_NOT_FOUND = 404;
constexpr const char NOT_FOUND_BODY[] = "404 Not Found";
constexpr const char PARENT_SEGMENT[] = "..";

// The canonical absolute form of an existing path, or "" when it has none.
std::string real_path_of(const std::string& path) {
    char resolved[PATH_MAX];
    if (path.empty() || realpath(path.c_str(), resolved) == nullptr) {
        return std::string();
    }
    return resolved;
}

bool inside_directory(const std::string& directory, const std::string& path) {
    if (directory == "/") {
        return true;
    }
    return path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0 &&
           path[directory.size()] == '/';
}

// Reads up to `size` bytes of the open file straight into `body`, in one
// read unless the system hands out less; a read error ends the reading
// like the end of the file, keeping what was read.
void read_whole_file(int fd, long long size, std::string& body) {
    body.resize(static_cast<std::size_t>(size));
    std::size_t done = 0;
    while (done < body.size()) {
        ssize_t got = read(fd, &body[done], body.size() - done);
        if (got <= 0) {
            break;
        }
        done += static_cast<std::size_t>(got);
    }
    body.resize(done);
}

// Opens the file for serving: a regular file of at most WEB_MAX_FILE_SIZE
// bytes. Returns the descriptor and its size, or -1. O_NONBLOCK keeps a
// FIFO from blocking the open; it is refused right after.
int open_servable_file(const std::string& path, long long& size) {
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > WEB_MAX_FILE_SIZE) {
        close(fd);
        return -1;
    }
    size = info.st_size;
    return fd;
}

// The home path with its symlinks resolved, taken once when the home path
// is set (written before the server starts, read-only afterwards), so that
// a request resolves only its own file. Empty while the home directory does
// not exist; requests then resolve it themselves, so pages installed after
// start-up are still served.
std::string g_real_home_path;

// True when the file named by abs_path resolves to a place inside the
// resolved directory; *resolved (when given) receives the file's real path.
bool file_inside(const std::string& real_directory, const std::string& abs_path,
                 std::string* resolved) {
    std::string real_file = real_path_of(abs_path);
    if (real_directory.empty() || real_file.empty() ||
        !inside_directory(real_directory, real_file)) {
        return false;
    }
    if (resolved != nullptr) {
        *resolved = real_file;
    }
    return true;
}

// The resolved file to serve for this request, or "" when none may be.
std::string servable_path(const std::string& related_path, const std::string& abs_path) {
    const std::string real_home =
        g_real_home_path.empty() ? real_path_of(g_svcmon_home_path) : g_real_home_path;
    std::string resolved;
    if (web_related_path_allowed(related_path) && file_inside(real_home, abs_path, &resolved)) {
        return resolved;
    }
    return std::string();
}

std::shared_ptr<httpserver::http_response> redirect_to_start_page(const std::string& str_url) {
    print_log(WARN, "Proc 302 Found: str_req_path=[%s]\n", str_url.c_str());
    std::shared_ptr<httpserver::http_response> reply = make_ssci_response(
        "", HTTP_STATUS_FOUND, httpserver::http::http_utils::text_plain);
    reply->with_header(httpserver::http::http_utils::http_header_location, WEB_START_PAGE);
    return reply;
}

std::shared_ptr<httpserver::http_response> not_found_page(const std::string& str_url) {
    print_log(WARN, "Proc 404 Not Found : str_url=[%s]\n", str_url.c_str());
    return make_ssci_response(NOT_FOUND_BODY, HTTP_STATUS_NOT_FOUND, DEFAULT_CONTENT_TYPE);
}

}  // namespace

void svcmon_set_home_path(const char* path) {
    snprintf(g_svcmon_home_path, sizeof g_svcmon_home_path, "%s", path);
    g_real_home_path = real_path_of(g_svcmon_home_path);
}

const char* web_content_type(const std::string& abs_path) {
    std::size_t dot = abs_path.find_last_of('.');
    if (dot == std::string::npos) {
        return DEFAULT_CONTENT_TYPE;
    }
    std::string extension = abs_path.substr(dot + 1);
    for (const mime_type_row& row : mime_type_table) {
        if (extension == row.extension) {
            return row.content_type;
        }
    }
    return DEFAULT_CONTENT_TYPE;
}

bool web_related_path_allowed(const std::string& related_path) {
    std::size_t start = 0;
    while (start <= related_path.size()) {
        std::size_t slash = related_path.find('/', start);
        std::size_t end = slash == std::string::npos ? related_path.size() : slash;
        if (related_path.compare(start, end - start, PARENT_SEGMENT) == 0) {
            return false;
        }
        start = end + 1;
    }
    return true;
}

bool web_path_inside_home(const std::string& home, const std::string& abs_path,
                          std::string* resolved) {
    return file_inside(real_path_of(home), abs_path, resolved);
}

std::shared_ptr<httpserver::http_response> proc_web_service(const std::string& str_url) {
    print_log(DEBUG, "%s()\n", "proc_web_service");
    std::string str_related_path =
        str_url.size() > WEB_PREFIX_LENGTH ? str_url.substr(WEB_PREFIX_LENGTH) : "";
    if (str_related_path.empty() || str_related_path == "/") {
        return redirect_to_start_page(str_url);
    }
    std::string str_abs_path = g_svcmon_home_path + str_related_path;
    print_log(DEBUG, "str_url=[%s]\n", str_url.c_str());
    print_log(DEBUG, "str_related_path=[%s]\n", str_related_path.c_str());
    print_log(DEBUG, "str_abs_path=[%s]\n", str_abs_path.c_str());
    std::string real_file = servable_path(str_related_path, str_abs_path);
    long long size = 0;
    int fd = real_file.empty() ? -1 : open_servable_file(real_file, size);
    if (fd < 0) {
        return not_found_page(str_url);
    }
    print_log(DEBUG, "str_url=[%s]\n", str_abs_path.c_str());
    std::string body;
    read_whole_file(fd, size, body);
    close(fd);
    return make_ssci_response(body, HTTP_STATUS_OK, web_content_type(str_abs_path));
}
