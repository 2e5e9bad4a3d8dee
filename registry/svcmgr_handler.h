// svcmgr_handler.h - the service-manager resource "/managerService/svcmgr":
// services register (POST), look each other up (GET) and unregister
// (DELETE). The handlers keep nothing between requests; the registry they
// reach takes its own lock.
#ifndef MANAGER_SVC_SVCMGR_HANDLER_H
#define MANAGER_SVC_SVCMGR_HANDLER_H

#include <memory>

#include "platform/httpserver.h"

// Result code of a request whose method this verb does not accept.
constexpr int SVCMGR_UNKNOWN_METHOD = -1;

const std::shared_ptr<httpserver::http_response> proc_svcmgr_get(
    const httpserver::http_request& request);
const std::shared_ptr<httpserver::http_response> proc_svcmgr_post(
    const httpserver::http_request& request);
const std::shared_ptr<httpserver::http_response> proc_svcmgr_delete(
    const httpserver::http_request& request);

#endif
