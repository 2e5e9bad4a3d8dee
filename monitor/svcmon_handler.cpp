// svcmon_handler.cpp - the monitor resource "/managerService/svcmon": the
// "get_health_status" and "get_history" methods, and the hand-over of the
// web-page paths to proc_web_service.
// Runs on the listener threads, several at once. The registry lock is
// taken only inside svc_info_list and svc_info_get, which hand back copies,
// so it is never held while JSON is built or while a service is asked.
#include "monitor/svcmon_handler.h"

#include <json-c/json.h>

#include <string>

#include "endpoints/ssci_response.h"
#include "main/print_log.h"
#include "monitor/http_get_client.h"
#include "platform/common_http_resource.h"
#include "registry/svc_info_map.h"

namespace {

constexpr const char SVCMON_PATH[] = "/managerService/svcmon";
constexpr const char HISTORY_QUERY[] = "method=get_history";
constexpr const char HISTORY_PATH_SUFFIX[] = "/svcmon";

json_object* new_health_item(const svc_info_entry& entry) {
    json_object* item = json_object_new_object();
    json_object_object_add(item, "name", json_object_new_string(entry.name.c_str()));
    json_object_object_add(item, "ip", json_object_new_string(entry.ip.c_str()));
    json_object_object_add(item, "port", json_object_new_int(entry.port));
    json_object_object_add(item, "health_status",
                           json_object_new_string(entry.health_status.c_str()));
    return item;
}

// Every registered service in name order, from one copy of the registry.
json_object* proc_get_health_status(const httpserver::http_request&) {
    json_object* items = json_object_new_array();
    svc_info_entry_list entries;
    svc_info_list(entries);
    for (const std::unique_ptr<svc_info_entry>& entry : entries) {
        json_object_array_add(items, new_health_item(*entry));
    }
    svc_info_list_free(entries);
    json_object* reply = new_reply_object(SVCMON_OK);
    json_object_object_add(reply, "items", items);
    return reply;
}

// Asks the named service for its history; SVCMON_OK with its body in
// *answer, or the registry's result, or SVCMON_HISTORY_FAILED.
int fetch_history(const std::string& name, std::string* answer) {
    std::string path = "/" + name + HISTORY_PATH_SUFFIX;
    svc_info info;
    int result = svc_info_get(name, info);
    if (result != SVC_INFO_OK) {
        return result;
    }
    long long code = do_curl_GET_request(info.ip.c_str(), info.port, path.c_str(),
                                         HISTORY_QUERY, answer);
    if (code != HTTP_GET_OK) {
        print_log(ERR, "%s() do_curl_GET_request = %lld\n", "proc_get_history", code);
        return SVCMON_HISTORY_FAILED;
    }
    return SVCMON_OK;
}

// The named service's own history, embedded as JSON (null when its answer
// is not JSON).
json_object* proc_get_history(const httpserver::http_request& request) {
    std::string name = request.get_arg("name");
    std::string answer;
    int result = name.empty() ? SVCMON_NO_NAME : fetch_history(name, &answer);
    json_object* reply = new_reply_object(result);
    if (result == SVCMON_OK) {
        json_object_object_add(reply, "service_response", json_tokener_parse(answer.c_str()));
    }
    return reply;
}

struct svcmon_method {
    const char* name;
    json_object* (*run)(const httpserver::http_request&);
};

const svcmon_method SVCMON_METHODS[] = {
    {"get_health_status", proc_get_health_status},
    {"get_history", proc_get_history},
};

json_object* run_method(const httpserver::http_request& request) {
    std::string method = request.get_arg("method");
    for (const svcmon_method& entry : SVCMON_METHODS) {
        if (method == entry.name) {
            return entry.run(request);
        }
    }
    return new_reply_object(SVCMON_UNKNOWN_METHOD);
}

}  // namespace

const std::shared_ptr<httpserver::http_response> proc_svcmon_get(
    const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_svcmon_get");
    std::string str_req_path = request.get_path();
    print_log(DEBUG, "str_req_path=[%s]\n", str_req_path.c_str());
    if (str_req_path.compare(0, WEB_PREFIX_LENGTH, WEB_PREFIX) == 0) {
        return proc_web_service(str_req_path);
    }
    if (str_req_path == SVCMON_PATH) {
        return json_reply(run_method(request));
    }
    return json_reply(new_reply_object(SVCMON_BAD_PATH));
}

common_http_resource svcmon_resource(SVCMON_PATH, proc_svcmon_get, nullptr, nullptr, nullptr);
