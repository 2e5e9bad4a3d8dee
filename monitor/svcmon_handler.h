// svcmon_handler.h - the monitor resource "/managerService/svcmon": health
// status, history relayed from a service, and the monitor's web pages
// (web_pages.h, which also holds the home path and svcmon_set_home_path).
// The handlers run on any listener thread, several at once, and keep no
// state; the registry is reached only through its own locked operations.
#ifndef MANAGER_SVC_SVCMON_HANDLER_H
#define MANAGER_SVC_SVCMON_HANDLER_H

#include <memory>

#include "monitor/web_pages.h"
#include "platform/httpserver.h"

// The monitor's "return" codes (the registry's -2 is passed through): the
// numbers that the monitor page and the device's clients read, fixed here
// and never reused for anything else (internal calls use result_codes.h).
constexpr int SVCMON_OK = 0;
constexpr int SVCMON_UNKNOWN_METHOD = -1;
constexpr int SVCMON_BAD_PATH = -4;
constexpr int SVCMON_HISTORY_FAILED = -5;
constexpr int SVCMON_NO_NAME = -6;

const std::shared_ptr<httpserver::http_response> proc_svcmon_get(
    const httpserver::http_request& request);

#endif
