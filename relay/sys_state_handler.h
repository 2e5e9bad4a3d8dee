// sys_state_handler.h - the system-state resource "/managerService/sys_state":
// a GET is relayed to the service registered as "recStreamService" and its
// answer returned unchanged. The handler keeps nothing between requests and
// takes no lock.
#ifndef MANAGER_SVC_SYS_STATE_HANDLER_H
#define MANAGER_SVC_SYS_STATE_HANDLER_H

#include <memory>

#include "platform/httpserver.h"

const std::shared_ptr<httpserver::http_response> proc_sys_state_get(
    const httpserver::http_request& request);

#endif
