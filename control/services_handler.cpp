// services_handler.cpp - the service-control resource. proc_services_post
// runs on the server's listener threads, several at once; every buffer is
// local to one request. Each recognised request hands its heap command line
// to a new detached worker thread (service_cmd_thread), which alone touches
// it from then on and frees it. No shared state, no lock.
#include "control/services_handler.h"

#include <json-c/json.h>
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "endpoints/ssci_response.h"
#include "main/device_paths.h"
#include "main/print_log.h"
#include "platform/common_http_resource.h"
#include "platform/utils.h"

namespace {

// The "method" text: at most 31 characters; longer values are cut and so
// never match an action.
constexpr unsigned SERVICE_METHOD_SIZE = 32;
// The command line "<script> <verb>".
constexpr std::size_t SERVICE_COMMAND_SIZE = 256;

// Tested in this order; the first equal method wins.
constexpr service_action SERVICE_ACTIONS[] = {
    {"start", SERVICES_SCRIPT_PATH, "start"},
    {"stop", SERVICES_SCRIPT_PATH, "stop"},
    {"restart", SERVICES_SCRIPT_PATH, "restart"},
    {"fdr_restart", FDR_SERVICES_SCRIPT_PATH, "restart"},
};

// The body's "method" string into `method`; left empty when the body is not
// JSON or has no string "method".
void read_method(const std::string& content, char* method, unsigned size) {
    std::memset(method, 0, size);
    json_object* body = json_tokener_parse(content.c_str());
    if (body != nullptr) {
        get_json_str_by_key(body, "method", method, size);
        json_object_put(body);
    }
}

// Hands the action's command line to a new detached worker thread. When the
// thread cannot be created the command is freed and not run. An allocation
// failure is recorded in the debug log; the reply stays SERVICES_STARTED in
// both cases, because "return" tells whether the method was recognised,
// never whether the script ran.
void start_service_command(const service_action& action) {
    char* command = static_cast<char*>(malloc(SERVICE_COMMAND_SIZE));
    if (command == nullptr) {
        debug_log("no memory for the command of method %s, not run", action.method);
        return;
    }
    snprintf(command, SERVICE_COMMAND_SIZE, "%s %s", action.script, action.verb);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t worker;
    if (pthread_create(&worker, &attributes, service_cmd_thread, command) != 0) {
        free(command);
    }
    pthread_attr_destroy(&attributes);
}

}  // namespace

const service_action* find_service_action(const char* method) {
    for (const service_action& action : SERVICE_ACTIONS) {
        if (std::strcmp(method, action.method) == 0) {
            return &action;
        }
    }
    return nullptr;
}

const std::shared_ptr<httpserver::http_response> proc_services_post(
    const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_services_post");
    char method[SERVICE_METHOD_SIZE];
    read_method(request.get_content(), method, sizeof method);
    print_log(DEBUG, "param_method=%s\n", method);
    const service_action* action = find_service_action(method);
    if (action == nullptr) {
        return json_reply(new_reply_object(SERVICES_UNKNOWN_METHOD));
    }
    start_service_command(*action);
    return json_reply(new_reply_object(SERVICES_STARTED));
}

// The worker inherits the listener thread's signal mask; system() passes
// the caller's mask on to the shell, so the mask is cleared first and the
// script (and every service it starts) can be stopped by its signals.
// Dispositions are the process's: an ignored SIGPIPE stays ignored in the
// script, which then sees EPIPE on a closed pipe instead of being killed.
void* service_cmd_thread(void* command) {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    char* command_line = static_cast<char*>(command);
    int status = system(command_line);
    (void)status;
    free(command_line);
    pthread_exit(nullptr);
}

common_http_resource services_resource("/managerService/services", nullptr,
                                       proc_services_post, nullptr, nullptr);
