// handler_guard.h - the boundary between a resource's handlers and the
// service-bus server: every resource registers its handlers (and the reply
// of a relay that could not be made) as guarded<handler>, so that nothing a
// handler's use of the standard library throws (std::bad_alloc when memory
// runs out, ...) leaves its module. Such a handler answers null, which the
// server sends as "500 Internal Server Error", the reply of any handler
// that fails. A resource's rules that the server asks before the handler
// (which requests wait on another service, which are held) are registered
// as guarded_rule<rule, failed>, answering `failed` when they throw: a
// relay rule says "waits" (so that no listener thread waits on a service),
// a hold rule "not held". The daemon throws no exception of its own.
// Stateless; runs on whichever thread calls the handler or rule.
#ifndef MANAGER_SVC_HANDLER_GUARD_H
#define MANAGER_SVC_HANDLER_GUARD_H

#include <exception>
#include <memory>

#include "platform/common_http_resource.h"
#include "platform/httpserver.h"

template <http_handler handler>
const std::shared_ptr<httpserver::http_response> guarded(
    const httpserver::http_request& request) noexcept {
    try {
        return handler(request);
    } catch (const std::exception&) {
        return nullptr;
    }
}

template <auto rule, bool failed, typename... Args>
bool guarded_rule(Args... args) noexcept {
    try {
        return rule(args...);
    } catch (const std::exception&) {
        return failed;
    }
}

#endif
