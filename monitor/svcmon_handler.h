// svcmon_handler.h - the monitor resource "/managerService/svcmon": health
// status, history relayed from a service, and the monitor's web pages.
// g_svcmon_home_path is written once by svcmon_set_home_path on the main
// thread before the server starts and only read afterwards (no lock).
#ifndef MANAGER_SVC_SVCMON_HANDLER_H
#define MANAGER_SVC_SVCMON_HANDLER_H

#include <memory>

#include "platform/httpserver.h"

constexpr std::size_t SVCMON_HOME_PATH_SIZE = 128;
extern char g_svcmon_home_path[SVCMON_HOME_PATH_SIZE];

// Keeps the monitor's copy of the web-page root (cut to 127 characters).
void svcmon_set_home_path(const char* path);

const std::shared_ptr<httpserver::http_response> proc_svcmon_get(
    const httpserver::http_request& request);

#endif
