// web_pages.cpp - the monitor's web pages (see the header). Owns
// g_svcmon_home_path, written before the server starts, then only read.
// A page is opened non-blocking (a FIFO cannot hold the thread) in the
// first of three ways that applies, each safe however directories and
// symlinks are swapped meanwhile. A path with no ".." and no symlink cannot
// leave the home directory: openat2 (Linux 5.6) opens it whole, refusing
// symlinks. A symlink on it: the home directory is opened, and the page
// below it with RESOLVE_BENEATH. An absolute symlink, or a kernel (or
// seccomp filter) without openat2: the file opened with O_PATH must, as
// /proc/self/fd names it, lie inside the home directory. Only a regular
// file is served, up to its size at open; else the 404 page.
// ETag (device, inode, size, modification time), Last-Modified and
// "Cache-Control: no-cache" make a browser ask again each time; a matching
// If-None-Match (or "*"), or else an If-Modified-Since not older than the
// file, gets 304 with the page's length and no body.
#include "monitor/web_pages.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <exception>

#include "common/print_log.h"
#include "endpoints/handler_guard.h"
#include "endpoints/ssci_response.h"

namespace {

using reply_ptr = std::shared_ptr<httpserver::http_response>;

constexpr std::size_t SVCMON_HOME_PATH_SIZE = 128;
char g_svcmon_home_path[SVCMON_HOME_PATH_SIZE];

constexpr std::size_t WEB_PREFIX_LENGTH = sizeof WEB_PREFIX - 1;
constexpr const char WEB_START_PAGE[] = "/managerService/svcmon/web/index.html";
constexpr const char* const mime_type_table[3][2] = {
    {"html", "text/html"}, {"htm", "text/html"}, {"js", "application/javascript"}};
constexpr const char DEFAULT_CONTENT_TYPE[] = "text/html";
constexpr int HTTP_STATUS_FOUND = 302;
constexpr int HTTP_STATUS_NOT_MODIFIED = 304;
constexpr int HTTP_STATUS_NOT_FOUND = 404;
constexpr const char NOT_FOUND_BODY[] = "404 Not Found";
constexpr const char PARENT_SEGMENT[] = "/../";
constexpr int PAGE_OPEN_FLAGS = O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
constexpr const char HEADER_ETAG[] = "ETag";
constexpr const char HEADER_LAST_MODIFIED[] = "Last-Modified";
constexpr const char HEADER_CACHE_CONTROL[] = "Cache-Control";
constexpr const char HEADER_IF_NONE_MATCH[] = "If-None-Match";
constexpr const char HEADER_IF_MODIFIED_SINCE[] = "If-Modified-Since";
constexpr const char REVALIDATE_EACH_TIME[] = "no-cache";
// No other site may show a page in a frame (clickjacking).
constexpr const char* const FRAMING_HEADERS[][2] = {
    {"X-Frame-Options", "DENY"}, {"Content-Security-Policy", "frame-ancestors 'none'"}};

std::string entity_tag(const struct stat& info) {
    using number = unsigned long long;
    const number modified = number(info.st_mtim.tv_sec) * 1000000000ULL + info.st_mtim.tv_nsec;
    char tag[96];
    snprintf(tag, sizeof tag, "\"%llx-%llx-%llx-%llx\"", number(info.st_dev), number(info.st_ino),
             number(info.st_size), modified);
    return tag;
}

// IMF-fixdate, "Sun, 06 Nov 1994 08:49:37 GMT" (the daemon keeps the C locale).
constexpr const char HTTP_DATE_FORMAT[] = "%a, %d %b %Y %H:%M:%S GMT";
std::string http_date(time_t seconds) {
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[40];
    return std::string(text, strftime(text, sizeof text, HTTP_DATE_FORMAT, &parts));
}

// The type for the text after the last "." of the whole path (a "." in a
// directory name included), case-sensitive; "text/html" otherwise.
const char* web_content_type(const std::string& abs_path) {
    const std::size_t dot = abs_path.find_last_of('.');
    for (const auto& row : mime_type_table) {
        if (dot != std::string::npos && abs_path.compare(dot + 1, std::string::npos, row[0]) == 0) {
            return row[1];
        }
    }
    return DEFAULT_CONTENT_TYPE;
}

// False when the related path has a ".." segment, or when no "/" joins it
// to the home path (the two would name a file beside the home directory).
bool web_related_path_allowed(const std::string& related_path) {
    const std::string home = g_svcmon_home_path;
    return ("/" + related_path + "/").find(PARENT_SEGMENT) == std::string::npos &&
           (related_path[0] == '/' || (!home.empty() && home.back() == '/'));
}

// True when the request's If-None-Match (or, without it, If-Modified-Since)
// says that the client holds this version already. A tag holds no comma or
// space, so a list names it when the tag occurs in it; "*" names every tag.
bool web_page_unchanged(const httpserver::http_request& request, const std::string& etag,
                        time_t modified) {
    const std::string tags = request.get_header(HEADER_IF_NONE_MATCH);
    if (!tags.empty()) {
        return tags == "*" || tags.find(etag) != std::string::npos;
    }
    const std::string since = request.get_header(HEADER_IF_MODIFIED_SINCE);
    tm parts{};
    const char* end = strptime(since.c_str(), HTTP_DATE_FORMAT, &parts);
    return end != nullptr && *end == '\0' && timegm(&parts) >= modified;  // -1: unrepresentable
}

std::string fd_link(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// The path of an open file as the kernel names it, or "".
std::string opened_path(int fd) {
    char target[PATH_MAX];
    const ssize_t length = readlink(fd_link(fd).c_str(), target, sizeof target);
    return length > 0 && static_cast<std::size_t>(length) < sizeof target
               ? std::string(target, length)
               : "";
}

// True when the file opened as fd lies strictly below the directory home.
bool opened_inside(int fd, int home) {
    const std::string target = opened_path(fd), directory = opened_path(home);
    const std::string below = directory == "/" ? directory : directory + "/";
    return !directory.empty() && target.size() > below.size() &&
           target.compare(0, below.size(), below) == 0;
}

// Opens path (relative to dir) for reading, resolved as `resolve` allows.
int open_resolved(int dir, const std::string& path, std::uint64_t resolve) {
    open_how how{};
    how.flags = PAGE_OPEN_FLAGS;
    how.resolve = resolve | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(syscall(SYS_openat2, dir, path.c_str(), &how, sizeof how));
}

// Opens abs_path (symlinks followed) without reading it and checks that
// the file actually opened lies inside home before it opens that same file
// (not the same name) for reading; -1 otherwise.
int open_checked_file(int home, const std::string& abs_path) {
    const int found = open(abs_path.c_str(), O_PATH | O_CLOEXEC);
    if (found < 0) {
        return -1;
    }
    const int fd = opened_inside(found, home) ? open(fd_link(found).c_str(), PAGE_OPEN_FLAGS) : -1;
    close(found);
    return fd;
}

// For a path with a symlink (see the top of this file).
int open_through_home(const std::string& related_path, const std::string& abs_path) {
    const int home = open(g_svcmon_home_path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (home < 0) {
        return -1;
    }
    int fd = open_resolved(home, "./" + related_path, RESOLVE_BENEATH);
    if (fd < 0 && (errno == EXDEV || errno == ENOSYS || errno == EPERM)) {
        fd = open_checked_file(home, abs_path);
    }
    close(home);
    return fd;
}

// The page file for this request, a regular file inside the home
// directory, or -1; *info is its fstat.
int open_page(const std::string& related_path, const std::string& abs_path, struct stat* info) {
    if (!web_related_path_allowed(related_path)) {
        return -1;
    }
    int fd = open_resolved(AT_FDCWD, abs_path, RESOLVE_NO_SYMLINKS);
    if (fd < 0 && (errno == ELOOP || errno == ENOSYS || errno == EPERM)) {
        fd = open_through_home(related_path, abs_path);
    }
    if (fd >= 0 && (fstat(fd, info) != 0 || !S_ISREG(info->st_mode))) {
        close(fd);
        fd = -1;
    }
    return fd;
}

reply_ptr redirect_to_start_page(const std::string& str_url) {
    print_log(WARN, "Proc 302 Found: str_req_path=[%s]\n", str_url.c_str());
    reply_ptr reply =
        make_ssci_response("", HTTP_STATUS_FOUND, httpserver::http::http_utils::text_plain);
    reply->with_header(httpserver::http::http_utils::http_header_location, WEB_START_PAGE);
    return reply;
}

reply_ptr not_found_page(const std::string& str_url) {
    print_log(WARN, "Proc 404 Not Found : str_url=[%s]\n", str_url.c_str());
    return make_ssci_response(NOT_FOUND_BODY, HTTP_STATUS_NOT_FOUND, DEFAULT_CONTENT_TYPE);
}

// The file itself, or 304 when the client has it already; both with the
// page's length and validators. The reply owns the descriptor; null (the
// descriptor closed) when memory runs out before it does.
reply_ptr page_reply(const httpserver::http_request& request, int fd, const struct stat& info,
                     const std::string& abs_path) {
    std::string etag;
    reply_ptr reply;
    try {
        etag = entity_tag(info);
        const bool unchanged = web_page_unchanged(request, etag, info.st_mtim.tv_sec);
        reply = std::make_shared<httpserver::file_response>(
            fd, static_cast<std::uint64_t>(info.st_size),
            unchanged ? HTTP_STATUS_NOT_MODIFIED : HTTP_STATUS_OK,
            unchanged ? "" : web_content_type(abs_path));
    } catch (const std::exception&) {  // no reply owns the descriptor yet
        close(fd);
        return nullptr;
    }
    reply->with_header(HEADER_ETAG, etag);
    reply->with_header(HEADER_LAST_MODIFIED, http_date(info.st_mtim.tv_sec));
    reply->with_header(HEADER_CACHE_CONTROL, REVALIDATE_EACH_TIME);
    return reply;
}

// The reply for a path below the web prefix, before the framing headers.
reply_ptr web_reply(const httpserver::http_request& request) {
    const std::string str_url = request.get_path();
    std::string str_related_path =
        str_url.size() > WEB_PREFIX_LENGTH ? str_url.substr(WEB_PREFIX_LENGTH) : "";
    if (str_related_path.empty() || str_related_path == "/") {
        return redirect_to_start_page(str_url);
    }
    std::string str_abs_path = g_svcmon_home_path + str_related_path;
    print_log(DEBUG, "str_url=[%s]\n", str_url.c_str());
    print_log(DEBUG, "str_related_path=[%s]\n", str_related_path.c_str());
    print_log(DEBUG, "str_abs_path=[%s]\n", str_abs_path.c_str());
    struct stat info;
    const int fd = open_page(str_related_path, str_abs_path, &info);
    if (fd < 0) {
        return not_found_page(str_url);
    }
    print_log(DEBUG, "str_url=[%s]\n", str_abs_path.c_str());
    return page_reply(request, fd, info, str_abs_path);
}

// The web reply with the headers that forbid framing it.
const reply_ptr framed_web_reply(const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_web_service");
    reply_ptr reply = web_reply(request);
    if (reply) {
        for (const auto& header : FRAMING_HEADERS) {
            reply->with_header(header[0], header[1]);
        }
    }
    return reply;
}

}  // namespace

void svcmon_set_home_path(const char* path) {
    snprintf(g_svcmon_home_path, sizeof g_svcmon_home_path, "%s", path);
}

bool web_page_path(const std::string& request_path) {
    return request_path.compare(0, WEB_PREFIX_LENGTH, WEB_PREFIX) == 0;
}

reply_ptr proc_web_service(const httpserver::http_request& request) noexcept {
    return guarded<framed_web_reply>(request);
}
