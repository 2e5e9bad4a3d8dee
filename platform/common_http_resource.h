// common_http_resource.h - binds one URL path to its GET, POST, PUT and
// DELETE handlers (and, for a resource whose handler waits on another
// service, the marking of those requests), and the table of all such
// bindings that the service-bus server dispatches through.
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

// Marks the requests of a resource that wait on another service: the
// server runs their handler on a relay worker, never on a listener thread.
struct relay_marking {
    // True for the requests that wait (null: every request of the resource).
    bool (*waits)(const httpserver::http_request&);
    // The handler's own reply for a relay that could not be made, sent at
    // once when no relay can be taken on.
    http_handler refused;
};

class change_view;

// What a request that may be held (held_requests.h) waits for: the view,
// the index it has seen, and how long it waits at most.
struct hold_terms {
    const change_view* view;
    unsigned long long index;
    unsigned wait_seconds;
};
// True, with the terms filled in, for a request that asks to be held.
typedef bool (*hold_rule)(const httpserver::http_request&, hold_terms*);

class common_http_resource {
public:
    // Registers the path with its four handlers (null: no handler) and,
    // for a resource that relays, its marking (which must outlive it), and
    // for one whose requests may be held, its hold rule.
    common_http_resource(const char* path, http_handler get, http_handler post,
                         http_handler put, http_handler del,
                         const relay_marking* relay = nullptr, hold_rule hold = nullptr);
    ~common_http_resource();
    common_http_resource(const common_http_resource&) = delete;
    common_http_resource& operator=(const common_http_resource&) = delete;

    const std::string& get_path() const { return path; }
    // The handler for an HTTP method name, or null.
    http_handler handler_for(const std::string& method) const;
    // The methods that have a handler, as an Allow header value ("GET, POST").
    std::string allowed_methods() const;
    // The marking when this request waits on another service, else null.
    const relay_marking* relay_for(const httpserver::http_request& request) const;

    // True, with the terms filled in, when this request asks to be held.
    bool hold_for(const httpserver::http_request& request, hold_terms* terms) const;

private:
    std::string path;
    // The handlers in the order GET, POST, PUT, DELETE.
    std::array<http_handler, 4> handlers;
    const relay_marking* relay;
    hold_rule hold;
};

// The resource whose path is the request path or lies above it (the longest
// such path wins), or null.
const common_http_resource* find_http_resource(const std::string& request_path);

#endif
