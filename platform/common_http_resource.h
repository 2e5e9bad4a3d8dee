// common_http_resource.h - binds one URL path to its GET, POST, PUT and
// DELETE handlers, and the table of all such bindings that the service-bus
// server dispatches through.
// The table is filled by the constructors, which run during static
// initialisation (or, in tests, while no server runs); the server only
// reads it. No lock: it never changes while listener threads exist.
#ifndef MANAGER_SVC_COMMON_HTTP_RESOURCE_H
#define MANAGER_SVC_COMMON_HTTP_RESOURCE_H

#include <array>
#include <memory>
#include <string>

#include "platform/httpserver.h"

// The form of every request handler.
typedef const std::shared_ptr<httpserver::http_response> (*http_handler)(
    const httpserver::http_request&);

class common_http_resource {
public:
    // Registers the path with its four handlers (null: no handler).
    common_http_resource(const char* path, http_handler get, http_handler post,
                         http_handler put, http_handler del);
    ~common_http_resource();
    common_http_resource(const common_http_resource&) = delete;
    common_http_resource& operator=(const common_http_resource&) = delete;

    const std::string& get_path() const { return path; }
    // The handler for an HTTP method name, or null.
    http_handler handler_for(const std::string& method) const;
    // The methods that have a handler, as an Allow header value ("GET, POST").
    std::string allowed_methods() const;

private:
    std::string path;
    // The handlers in the order GET, POST, PUT, DELETE.
    std::array<http_handler, 4> handlers;
};

// The resource whose path is the request path or lies above it (the longest
// such path wins), or null.
const common_http_resource* find_http_resource(const std::string& request_path);

#endif
