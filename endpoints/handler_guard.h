// handler_guard.h - the boundary between a resource's handlers and the
// service-bus server: every resource registers its handlers (and the reply
// of a relay that could not be made) as guarded<handler>, so that nothing a
// handler's use of the standard library throws (std::bad_alloc when memory
// runs out, ...) leaves its module. Such a handler answers null, which the
// server sends as "500 Internal Server Error", the reply of any handler
// that fails. The daemon throws no exception of its own. Stateless; runs on
// whichever thread calls the handler.
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

#endif
