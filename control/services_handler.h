// services_handler.h - the service-control resource "/managerService/services":
// a POST names an action that runs one of the init scripts on its own
// detached thread, which records the run in the control-run log. The
// handler keeps nothing between requests and takes no lock; the action
// table is constant.
#ifndef MANAGER_SVC_SERVICES_HANDLER_H
#define MANAGER_SVC_SERVICES_HANDLER_H

#include <memory>

#include "platform/httpserver.h"

#include <cstddef>

// The "method" text: at most 31 characters; longer values are cut and so
// never match an action.
constexpr unsigned SERVICE_METHOD_SIZE = 32;
// The command line "<script> <verb>".
constexpr std::size_t SERVICE_COMMAND_SIZE = 256;

// Result codes of the reply's "return" member.
constexpr int SERVICES_STARTED = 0;
constexpr int SERVICES_UNKNOWN_METHOD = -1;

// One recognised "method": the script it runs and the verb passed to it.
struct service_action {
    const char* method;
    const char* script;
    const char* verb;
};

// The row whose method equals `method` exactly (first match in table
// order), or null.
const service_action* find_service_action(const char* method);

const std::shared_ptr<httpserver::http_response> proc_services_post(
    const httpserver::http_request& request);

// Worker thread: runs the heap job's command line through the shell,
// records the run (control_runs.h), frees the job.
void* service_cmd_thread(void* job);

#endif
