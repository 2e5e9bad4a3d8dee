// web_pages.h - the monitor's web pages: static files under the home path,
// served for every GET below "/managerService/svcmon/web".
// g_svcmon_home_path is written once by svcmon_set_home_path on the main
// thread before the server starts and only read afterwards (no lock).
// proc_web_service runs on any listener thread, several at once; the only
// state it shares between calls is the table of page bytes (page_file.h,
// under its own lock).
#ifndef MANAGER_SVC_WEB_PAGES_H
#define MANAGER_SVC_WEB_PAGES_H

#include <cstddef>
#include <ctime>
#include <memory>
#include <string>

#include "monitor/page_file.h"
#include "platform/httpserver.h"

constexpr std::size_t SVCMON_HOME_PATH_SIZE = 128;
extern char g_svcmon_home_path[SVCMON_HOME_PATH_SIZE];

// The request paths that the web pages own (a plain 26-character prefix).
constexpr const char WEB_PREFIX[] = "/managerService/svcmon/web";
constexpr std::size_t WEB_PREFIX_LENGTH = sizeof WEB_PREFIX - 1;
constexpr const char WEB_START_PAGE[] = "/managerService/svcmon/web/index.html";

struct mime_type_row {
    const char* extension;
    const char* content_type;
};
// Extension (after the last ".") to content type, searched in order.
extern const mime_type_row mime_type_table[3];

// Keeps the monitor's copy of the web-page root (cut to 127 characters)
// and makes the descriptor that watches kept pages (page_watch.h).
void svcmon_set_home_path(const char* path);

// The content type for a file path: the text after the last "." of the
// whole path, compared case-sensitively with mime_type_table; "text/html"
// when nothing matches or there is no ".".
const char* web_content_type(const std::string& abs_path);

// False when the related path has a ".." segment.
bool web_related_path_allowed(const std::string& related_path);

// True when the request's If-None-Match (or, without it, its
// If-Modified-Since) says that the client holds this version already.
bool web_page_unchanged(const httpserver::http_request& request, const std::string& etag,
                        time_t modified);

// The reply for a request whose path begins with WEB_PREFIX: a redirect to
// the start page for the bare prefix (with or without "/"), the file's
// bytes with its validators (ETag, Last-Modified), 304 Not Modified when
// the request's validators match the file, or the 404 page.
std::shared_ptr<httpserver::http_response> proc_web_service(
    const httpserver::http_request& request);

#endif
