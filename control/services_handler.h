// services_handler.h - the service-control resource "/managerService/services":
// a POST names an action that runs one of the init scripts on its own
// detached thread (small stack: it only starts a shell, reads its output and
// waits), which records the run in the control-run log; at most
// MAX_RUNNING_SCRIPTS (in the .cpp) at once. Between requests the handler
// keeps only the atomic count of running scripts; it takes no lock; the
// action table is constant.
#ifndef MANAGER_SVC_SERVICES_HANDLER_H
#define MANAGER_SVC_SERVICES_HANDLER_H

#include <memory>

#include "control/control_runs.h"
#include "platform/httpserver.h"

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

// Worker thread: runs the heap job's command line through the shell with
// its output on a pipe, records the run with the output's tail
// (control_runs.h), frees the job.
void* service_cmd_thread(void* job);

#endif
