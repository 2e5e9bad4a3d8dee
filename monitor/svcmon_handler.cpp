// svcmon_handler.cpp - the monitor resource "/managerService/svcmon".
// g_svcmon_home_path: written by svcmon_set_home_path before the server
// starts, read-only afterwards.
#include "monitor/svcmon_handler.h"

#include <cstdio>

#include "endpoints/ssci_response.h"
#include "main/print_log.h"
#include "platform/common_http_resource.h"

char g_svcmon_home_path[SVCMON_HOME_PATH_SIZE];

constexpr int SVCMON_UNKNOWN_METHOD = -1;

void svcmon_set_home_path(const char* path) {
    snprintf(g_svcmon_home_path, sizeof g_svcmon_home_path, "%s", path);
}

const std::shared_ptr<httpserver::http_response> proc_svcmon_get(
    const httpserver::http_request&) {
    print_log(DEBUG, "%s()\n", "proc_svcmon_get");
    return json_reply(new_reply_object(SVCMON_UNKNOWN_METHOD));
}

common_http_resource svcmon_resource("/managerService/svcmon", proc_svcmon_get,
                                     nullptr, nullptr, nullptr);
