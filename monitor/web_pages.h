// web_pages.h - the monitor's web pages: static files under the home path,
// served for every GET (and HEAD) below "/managerService/svcmon/web".
// svcmon_set_home_path runs once on the main thread before the server
// starts. proc_web_service runs on any listener thread, several at once,
// and shares nothing between calls.
#ifndef MANAGER_SVC_WEB_PAGES_H
#define MANAGER_SVC_WEB_PAGES_H

#include <memory>
#include <string>

#include "platform/httpserver.h"

// The request paths that the web pages own (a plain 26-character prefix).
constexpr const char WEB_PREFIX[] = "/managerService/svcmon/web";

// Keeps the monitor's copy of the web-page root (cut to 127 characters).
void svcmon_set_home_path(const char* path);

// True when the request path begins with WEB_PREFIX.
bool web_page_path(const std::string& request_path);

// The reply for a request below WEB_PREFIX: a redirect to the start page
// for the bare prefix (with or without "/"), the file with its validators,
// 304 when the request's validators match it, or the 404 page; each one
// forbids framing. Null when memory runs out (the server then answers 500).
std::shared_ptr<httpserver::http_response> proc_web_service(
    const httpserver::http_request& request) noexcept;

#endif
