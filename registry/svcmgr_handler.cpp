// svcmgr_handler.cpp - the service-manager resource "/managerService/svcmgr".
// Runs on the server's listener threads, several at once; every buffer is
// local to one request and the registry operations take the registry lock
// themselves, so the handlers take none.
#include "registry/svcmgr_handler.h"

#include <json-c/json.h>

#include <string>

#include "common/print_log.h"
#include "endpoints/handler_guard.h"
#include "endpoints/ssci_response.h"
#include "platform/common_http_resource.h"
#include "platform/utils.h"
#include "registry/svc_info_map.h"

namespace {

constexpr const char GET_INFO_METHOD[] = "get_info";
constexpr const char REGISTER_METHOD[] = "register";
constexpr const char UNREGISTER_METHOD[] = "unregister";

// Size of each text member copied from a register body (31 bytes of text).
constexpr unsigned REGISTER_FIELD_SIZE = 32;

// The members of a register request body; absent or unusable members keep
// their cleared values.
struct register_params {
    char method[REGISTER_FIELD_SIZE] = {};
    char name[REGISTER_FIELD_SIZE] = {};
    char ip[REGISTER_FIELD_SIZE] = {};
    int port = 0;
};

register_params read_register_body(const std::string& content) {
    register_params params;
    json_object* body = json_tokener_parse(content.c_str());
    if (body != nullptr) {
        get_json_str_by_key(body, "method", params.method, sizeof params.method);
        get_json_str_by_key(body, "name", params.name, sizeof params.name);
        get_json_str_by_key(body, "ip", params.ip, sizeof params.ip);
        get_json_int_by_key(body, "port", params.port);
        json_object_put(body);
    }
    return params;
}

void log_register_params(const std::string& content, const register_params& params) {
    print_log(DEBUG, "get_content=%s\n", content.c_str());
    print_log(DEBUG, "param_method=%s\n", params.method);
    print_log(DEBUG, "param_name=%s\n", params.name);
    print_log(DEBUG, "param_ip=%s\n", params.ip);
    print_log(DEBUG, "param_port=%d\n", params.port);
    print_log(DEBUG, "do register \n");
}

}  // namespace

const std::shared_ptr<httpserver::http_response> proc_svcmgr_get(
    const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_svcmgr_get");
    std::string name = request.get_arg("name");
    // A fresh record: a failed look-up leaves it as made, so the reply then
    // carries "ip" "" and "port" 0.
    svc_info info;
    int result = SVCMGR_UNKNOWN_METHOD;
    if (request.get_arg("method") == GET_INFO_METHOD) {
        result = svc_info_get(name, info);
    }
    json_object* reply = new_reply_object(result);
    json_object_object_add(reply, "name", json_object_new_string(name.c_str()));
    json_object_object_add(reply, "ip", json_object_new_string(info.ip.c_str()));
    json_object_object_add(reply, "port", json_object_new_int(info.port));
    return json_reply(reply);
}

const std::shared_ptr<httpserver::http_response> proc_svcmgr_post(
    const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_svcmgr_post");
    const std::string& content = request.get_content();
    register_params params = read_register_body(content);
    log_register_params(content, params);
    int result = SVCMGR_UNKNOWN_METHOD;
    if (std::string(params.method) == REGISTER_METHOD) {
        svc_info info;
        info.ip = params.ip;
        info.port = params.port;
        result = svc_info_add(params.name, info);
    }
    return json_reply(new_reply_object(result));
}

const std::shared_ptr<httpserver::http_response> proc_svcmgr_delete(
    const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_svcmgr_delete");
    std::string name = request.get_arg("name");
    print_log(DEBUG, "param_name=%s\n", name.c_str());
    print_log(DEBUG, "do delete\n");
    int result = SVCMGR_UNKNOWN_METHOD;
    if (request.get_arg("method") == UNREGISTER_METHOD) {
        result = svc_info_delete(name);
    }
    return json_reply(new_reply_object(result));
}

common_http_resource svcmgr_resource("/managerService/svcmgr", guarded<proc_svcmgr_get>,
                                     guarded<proc_svcmgr_post>, nullptr,
                                     guarded<proc_svcmgr_delete>);
