// web_pages.cpp - the monitor's web pages (see the header).
// Owns g_svcmon_home_path and its resolved form g_real_home_path: written by
// svcmon_set_home_path on the main thread before the server starts,
// read-only afterwards (no lock). Every request has its own texts and
// descriptors; page bytes are shared through page_file (its own lock), and
// the replies made for the pages that its table keeps are shared through
// prepared_pages (prepared_pages_lock).
//
// What is served: only regular files of at most WEB_MAX_FILE_SIZE bytes
// whose real path, taken from the opened file itself, lies inside the real
// home directory. A related path with a ".." segment, a directory, a device
// or FIFO, a symlink that leads out of the home directory, and a file beside
// the home directory (a -D path without a final "/" joined to "foo.js") all
// get the 404 page, as a missing file does.
//
// For browsers: every served page carries an ETag (from the file's inode,
// size and times) and Last-Modified, and "Cache-Control: no-cache" so that
// a browser asks again each time and a page changed on the device shows at
// once. A request whose If-None-Match names the ETag (or "*"), or, without
// If-None-Match, whose If-Modified-Since (IMF-fixdate, as sent back by
// browsers; other forms are ignored) is not older than the file, gets 304
// with no body and the same validators.
#include "monitor/web_pages.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/calendar_names.h"
#include "common/print_log.h"
#include "monitor/page_watch.h"
#include "endpoints/ssci_response.h"

char g_svcmon_home_path[SVCMON_HOME_PATH_SIZE];

const mime_type_row mime_type_table[3] = {
    {"html", "text/html"},
    {"htm", "text/html"},
    {"js", "application/javascript"},
};

namespace {

constexpr const char DEFAULT_CONTENT_TYPE[] = "text/html";
constexpr int HTTP_STATUS_FOUND = 302;
constexpr int HTTP_STATUS_NOT_MODIFIED = 304;
constexpr int HTTP_STATUS_NOT_FOUND = 404;
constexpr const char NOT_FOUND_BODY[] = "404 Not Found";
constexpr const char PARENT_SEGMENT[] = "..";

constexpr const char HEADER_ETAG[] = "ETag";
constexpr const char HEADER_LAST_MODIFIED[] = "Last-Modified";
constexpr const char HEADER_CACHE_CONTROL[] = "Cache-Control";
constexpr const char HEADER_IF_NONE_MATCH[] = "If-None-Match";
constexpr const char HEADER_IF_MODIFIED_SINCE[] = "If-Modified-Since";
constexpr const char REVALIDATE_EACH_TIME[] = "no-cache";
constexpr const char WEAK_TAG_PREFIX[] = "W/";

// The canonical absolute form of an existing path, or "" when it has none.
std::string real_path_of(const std::string& path) {
    char resolved[PATH_MAX];
    if (path.empty() || realpath(path.c_str(), resolved) == nullptr) {
        return std::string();
    }
    return resolved;
}

// The home path with its symlinks resolved, taken once when the home path
// is set (written before the server starts, read-only afterwards), so that
// a request resolves nothing but its own file. Empty while the home
// directory does not exist; requests then resolve it themselves, so pages
// installed after start-up are still served.
std::string g_real_home_path;

long long nanoseconds_of(const timespec& time) {
    return static_cast<long long>(time.tv_sec) * 1000000000LL + time.tv_nsec;
}

std::string entity_tag(const page_identity& identity) {
    char tag[96];
    snprintf(tag, sizeof tag, "\"%llx-%llx-%llx-%llx\"",
             static_cast<unsigned long long>(identity.inode),
             static_cast<unsigned long long>(identity.size),
             static_cast<unsigned long long>(nanoseconds_of(identity.modified)),
             static_cast<unsigned long long>(nanoseconds_of(identity.changed)));
    return tag;
}

// IMF-fixdate: "Sun, 06 Nov 1994 08:49:37 GMT".
std::string http_date(time_t seconds) {
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[40];
    snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", WEEKDAY_NAMES[parts.tm_wday],
             parts.tm_mday, MONTH_NAMES[parts.tm_mon], parts.tm_year + TM_YEAR_BASE, parts.tm_hour,
             parts.tm_min, parts.tm_sec);
    return text;
}

// Reads an IMF-fixdate; false for any other text.
bool parse_http_date(const std::string& text, time_t* seconds) {
    char weekday[4] = "";
    char month[4] = "";
    tm parts{};
    int used = 0;
    if (text.empty() ||
        sscanf(text.c_str(), "%3[A-Za-z], %2d %3[A-Za-z] %4d %2d:%2d:%2d GMT%n", weekday,
               &parts.tm_mday, month, &parts.tm_year, &parts.tm_hour, &parts.tm_min,
               &parts.tm_sec, &used) != 7 ||
        static_cast<std::size_t>(used) != text.size()) {
        return false;
    }
    parts.tm_mon = -1;
    for (int index = 0; index < MONTH_COUNT; ++index) {
        if (strcmp(month, MONTH_NAMES[index]) == 0) {
            parts.tm_mon = index;
        }
    }
    if (parts.tm_mon < 0) {
        return false;
    }
    parts.tm_year -= TM_YEAR_BASE;
    *seconds = timegm(&parts);
    return *seconds != static_cast<time_t>(-1);
}

// True when one entry of the If-None-Match list ("*" or tags separated by
// commas, weak or strong) names this tag.
bool tag_list_names(const std::string& list, const std::string& tag) {
    std::size_t start = 0;
    while (start < list.size()) {
        std::size_t comma = list.find(',', start);
        std::size_t end = comma == std::string::npos ? list.size() : comma;
        std::size_t first = list.find_first_not_of(" \t", start);
        std::size_t last = list.find_last_not_of(" \t", end - 1);
        if (first < end && last != std::string::npos && last >= first) {
            std::string entry = list.substr(first, last - first + 1);
            if (entry.compare(0, sizeof WEAK_TAG_PREFIX - 1, WEAK_TAG_PREFIX) == 0) {
                entry.erase(0, sizeof WEAK_TAG_PREFIX - 1);
            }
            if (entry == "*" || entry == tag) {
                return true;
            }
        }
        start = end + 1;
    }
    return false;
}

// The file to serve for this request; false when none may be.
bool find_page(const std::string& related_path, const std::string& abs_path, page_file* page) {
    if (!web_related_path_allowed(related_path)) {
        return false;
    }
    if (!g_real_home_path.empty()) {
        return open_page_file(g_real_home_path, abs_path, page);
    }
    return open_page_file(real_path_of(g_svcmon_home_path), abs_path, page);
}

// Both replies for one version of a page served with one content type.
// They never change once made, so every request for that version may send
// the same reply objects.
struct page_replies {
    std::shared_ptr<const std::string> bytes;  // identifies the version
    const char* content_type = nullptr;
    std::string etag;
    std::shared_ptr<httpserver::http_response> full;
    std::shared_ptr<httpserver::http_response> not_modified;
};

// The replies of the last pages served whose bytes the page table keeps,
// so that a page asked for again and again costs no reply to be made (the
// libmicrohttpd response with its headers is built once, too). Each holds
// a kept page's bytes (at most 64 KiB), so at most 1 MiB is held; the
// oldest entry is replaced first. prepared_pages_lock guards both.
constexpr std::size_t PREPARED_PAGES = 16;
std::mutex prepared_pages_lock;
std::shared_ptr<const page_replies> prepared_pages[PREPARED_PAGES];
std::size_t prepared_pages_next = 0;

std::shared_ptr<const page_replies> make_replies(const page_file& page,
                                                 const char* content_type) {
    auto replies = std::make_shared<page_replies>();
    replies->bytes = page.bytes;
    replies->content_type = content_type;
    replies->etag = entity_tag(page.identity);
    replies->full = std::make_shared<httpserver::string_response>(page.bytes, HTTP_STATUS_OK,
                                                                  content_type);
    replies->not_modified =
        std::make_shared<httpserver::string_response>("", HTTP_STATUS_NOT_MODIFIED, "");
    const std::string last_modified = http_date(page.identity.modified.tv_sec);
    for (httpserver::http_response* reply : {replies->full.get(), replies->not_modified.get()}) {
        reply->with_header(HEADER_ETAG, replies->etag);
        reply->with_header(HEADER_LAST_MODIFIED, last_modified);
        reply->with_header(HEADER_CACHE_CONTROL, REVALIDATE_EACH_TIME);
    }
    return replies;
}

// The prepared replies for this page version and content type, or null.
// prepared_pages_lock held.
std::shared_ptr<const page_replies> find_prepared(const page_file& page,
                                                  const char* content_type) {
    for (const std::shared_ptr<const page_replies>& prepared : prepared_pages) {
        if (prepared && prepared->bytes == page.bytes &&
            strcmp(prepared->content_type, content_type) == 0) {
            return prepared;
        }
    }
    return nullptr;
}

// The replies for this page version and content type: the prepared ones
// when the page table keeps the page (made here on the first request, out
// of the lock), else new ones for this request.
std::shared_ptr<const page_replies> replies_for(const page_file& page,
                                                const char* content_type) {
    if (!page.kept) {
        return make_replies(page, content_type);
    }
    {
        std::lock_guard<std::mutex> hold(prepared_pages_lock);
        if (std::shared_ptr<const page_replies> prepared = find_prepared(page, content_type)) {
            return prepared;
        }
    }
    std::shared_ptr<const page_replies> replies = make_replies(page, content_type);
    std::lock_guard<std::mutex> hold(prepared_pages_lock);
    if (std::shared_ptr<const page_replies> prepared = find_prepared(page, content_type)) {
        return prepared;  // made meanwhile by another request
    }
    prepared_pages[prepared_pages_next] = replies;
    prepared_pages_next = (prepared_pages_next + 1) % PREPARED_PAGES;
    return replies;
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

// The page's bytes, shared with every other reply for the same version of
// the file (no copy per request), or 304 when the client has them already.
std::shared_ptr<httpserver::http_response> page_reply(const httpserver::http_request& request,
                                                      const page_file& page,
                                                      const std::string& abs_path) {
    std::shared_ptr<const page_replies> replies = replies_for(page, web_content_type(abs_path));
    if (web_page_unchanged(request, replies->etag, page.identity.modified.tv_sec)) {
        return replies->not_modified;
    }
    return replies->full;
}

}  // namespace

void svcmon_set_home_path(const char* path) {
    snprintf(g_svcmon_home_path, sizeof g_svcmon_home_path, "%s", path);
    g_real_home_path = real_path_of(g_svcmon_home_path);
    page_watch_start();  // without it, pages are served with a stat each
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

bool web_page_unchanged(const httpserver::http_request& request, const std::string& etag,
                        time_t modified) {
    const std::string tags = request.get_header(HEADER_IF_NONE_MATCH);
    if (!tags.empty()) {
        return tag_list_names(tags, etag);
    }
    time_t since = 0;
    return parse_http_date(request.get_header(HEADER_IF_MODIFIED_SINCE), &since) &&
           since >= modified;
}

std::shared_ptr<httpserver::http_response> proc_web_service(
    const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_web_service");
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
    page_file page;
    if (!find_page(str_related_path, str_abs_path, &page)) {
        return not_found_page(str_url);
    }
    print_log(DEBUG, "str_url=[%s]\n", str_abs_path.c_str());
    return page_reply(request, page, str_abs_path);
}
