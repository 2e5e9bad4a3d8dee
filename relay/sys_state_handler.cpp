// sys_state_handler.cpp - the system-state relay. Marked as waiting on
// another service, so it runs on the server's relay workers, several at
// once; each relay blocks only its own worker (for at most the client's time
// limit per step) and touches no shared state of this daemon, so it takes no
// lock.
#include "relay/sys_state_handler.h"

#include <string>

#include "common/print_log.h"
#include "endpoints/handler_guard.h"
#include "endpoints/ssci_response.h"
#include "platform/common_http_resource.h"
#include "platform/ssci_client.h"

namespace {

// The service that holds the device's system state, and its resource.
constexpr const char SYS_STATE_SERVICE[] = "recStreamService";
constexpr const char SYS_STATE_PATH[] = "/recStreamService/sys_state";
// Seconds that each step of the relayed request may take.
constexpr long SYS_STATE_TIME_LIMIT = 5;

}  // namespace

// Nothing of the caller's request is passed on; the other service's body
// (empty when it could not be reached) is returned byte for byte.
const std::shared_ptr<httpserver::http_response> proc_sys_state_get(
    const httpserver::http_request&) {
    print_log(DEBUG, "%s()\n", "proc_sys_state_get");
    query_object query;
    std::string body;
    ssci_GET_request(SYS_STATE_SERVICE, SYS_STATE_PATH, &query, body, SYS_STATE_TIME_LIMIT,
                     false, 0, nullptr);
    return make_ssci_response(body, HTTP_STATUS_OK, JSON_CONTENT_TYPE);
}

namespace {

// A relay that could not be made answers as a failed one: an empty body.
const std::shared_ptr<httpserver::http_response> sys_state_not_asked(
    const httpserver::http_request&) {
    return make_ssci_response("", HTTP_STATUS_OK, JSON_CONTENT_TYPE);
}

// Every request of the resource waits on the service.
const relay_marking sys_state_relay = {nullptr, guarded<sys_state_not_asked>};

}  // namespace

common_http_resource sys_state_resource("/managerService/sys_state", guarded<proc_sys_state_get>,
                                        nullptr, nullptr, nullptr, &sys_state_relay);
