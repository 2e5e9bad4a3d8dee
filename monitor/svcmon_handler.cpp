// svcmon_handler.cpp - the monitor resource "/managerService/svcmon": the
// "get_health_status", "get_history", "get_reachability" (prober.h),
// "get_events" (reach_events.h) and "get_control_runs" (control_runs.h)
// methods, and the hand-over of the web-page paths to proc_web_service.
// The last three are views that a request may wait on (held_requests.h):
// with "index" equal to the view's current index and a "wait" in seconds
// (default HOLD_WAIT_DEFAULT_SECONDS, at most HOLD_WAIT_MAX_SECONDS, 0: no
// wait), it is answered once the view changes or the wait is over.
// Runs on the listener threads, several at once; "get_history" runs on the
// server's relay workers instead (history_relay marks it). The registry lock is
// taken only inside svc_info_list and svc_info_get, which hand back copies,
// so it is never held while JSON is built or while a service is asked.
// health_cache_lock guards the last health reply and the registry
// generation it shows; it is never held while the reply is built.
#include "monitor/svcmon_handler.h"

#include <json-c/json.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <string>

#include "common/print_log.h"
#include "control/control_runs.h"
#include "endpoints/handler_guard.h"
#include "endpoints/ssci_response.h"
#include "monitor/http_get_client.h"
#include "monitor/prober.h"
#include "monitor/reach_events.h"
#include "platform/common_http_resource.h"
#include "registry/svc_info_map.h"

namespace {

constexpr const char SVCMON_PATH[] = "/managerService/svcmon";
constexpr const char HISTORY_METHOD[] = "get_history";
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
std::string build_health_status() {
    json_object* items = json_object_new_array();
    svc_info_entry_list entries;
    svc_info_list(entries);
    for (const std::unique_ptr<svc_info_entry>& entry : entries) {
        json_object_array_add(items, new_health_item(*entry));
    }
    svc_info_list_free(entries);
    json_object* reply = new_reply_object(SVCMON_OK);
    json_object_object_add(reply, "items", items);
    return take_json_text(reply);
}

// The last health reply built and the registry generation it shows.
constexpr unsigned long long NO_GENERATION = ULLONG_MAX;
std::mutex health_cache_lock;
unsigned long long health_cache_generation = NO_GENERATION;  // guarded by health_cache_lock
std::string health_cache_text;                               // guarded by health_cache_lock

// The health reply is built once per registry change and served from the
// cache while the registry stays the same; its bytes are those a fresh build
// would give. The generation is read before the list is taken, so a change
// in between only makes the next request build again.
std::string proc_get_health_status(const httpserver::http_request&) {
    const unsigned long long generation = svc_info_generation();
    {
        std::lock_guard<std::mutex> hold(health_cache_lock);
        if (health_cache_generation == generation) {
            return health_cache_text;
        }
    }
    std::string text = build_health_status();
    std::lock_guard<std::mutex> hold(health_cache_lock);
    health_cache_generation = generation;
    health_cache_text = text;
    return text;
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
std::string proc_get_history(const httpserver::http_request& request) {
    std::string name = request.get_arg("name");
    std::string answer;
    int result = name.empty() ? SVCMON_NO_NAME : fetch_history(name, &answer);
    json_object* reply = new_reply_object(result);
    if (result == SVCMON_OK) {
        json_object_object_add(reply, "service_response", json_tokener_parse(answer.c_str()));
    }
    return take_json_text(reply);
}

// What the prober found for every registered service.
std::string proc_get_reachability(const httpserver::http_request&) {
    return prober_reachability_reply();
}

// The last events, newest first.
std::string proc_get_events(const httpserver::http_request&) {
    return reach_events_reply();
}

// The last service-control runs, newest first.
std::string proc_get_control_runs(const httpserver::http_request&) {
    return control_runs_reply();
}

// A method's reply text, and the view a request may wait on (null: none).
struct svcmon_method {
    const char* name;
    std::string (*run)(const httpserver::http_request&);
    const change_view* view;
};

const svcmon_method SVCMON_METHODS[] = {
    {"get_health_status", proc_get_health_status, nullptr},
    {HISTORY_METHOD, proc_get_history, nullptr},
    {"get_reachability", proc_get_reachability, &reachability_view},
    {"get_events", proc_get_events, &reach_events_view},
    {"get_control_runs", proc_get_control_runs, &control_runs_view},
};

const svcmon_method* find_method(const httpserver::http_request& request) {
    std::string method = request.get_arg("method");
    for (const svcmon_method& entry : SVCMON_METHODS) {
        if (method == entry.name) {
            return &entry;
        }
    }
    return nullptr;
}

std::string run_method(const httpserver::http_request& request) {
    const svcmon_method* method = find_method(request);
    return method != nullptr ? method->run(request)
                             : take_json_text(new_reply_object(SVCMON_UNKNOWN_METHOD));
}

}  // namespace

const std::shared_ptr<httpserver::http_response> proc_svcmon_get(
    const httpserver::http_request& request) {
    print_log(DEBUG, "%s()\n", "proc_svcmon_get");
    std::string str_req_path = request.get_path();
    print_log(DEBUG, "str_req_path=[%s]\n", str_req_path.c_str());
    if (web_page_path(str_req_path)) {
        return proc_web_service(request);
    }
    if (str_req_path == SVCMON_PATH) {
        return make_ssci_response(run_method(request), HTTP_STATUS_OK, JSON_CONTENT_TYPE);
    }
    return json_reply(new_reply_object(SVCMON_BAD_PATH));
}

namespace {

// "get_history" waits on another service; everything else here answers at once.
bool is_history_request(const httpserver::http_request& request) {
    return request.get_path() == SVCMON_PATH && request.get_arg("method") == HISTORY_METHOD;
}

// The reply of a history request whose service could not be asked.
const std::shared_ptr<httpserver::http_response> history_not_asked(
    const httpserver::http_request&) {
    return json_reply(new_reply_object(SVCMON_HISTORY_FAILED));
}

const relay_marking history_relay = {guarded_rule<is_history_request, true>,
                                     guarded<history_not_asked>};

constexpr unsigned HOLD_WAIT_DEFAULT_SECONDS = 30;

// A whole decimal number (no sign, no blanks) into *value; false otherwise.
bool parse_count(const std::string& text, unsigned long long* value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    *value = strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}

unsigned wait_seconds_of(const httpserver::http_request& request) {
    unsigned long long wait = HOLD_WAIT_DEFAULT_SECONDS;
    if (!parse_count(request.get_arg("wait"), &wait)) {
        wait = HOLD_WAIT_DEFAULT_SECONDS;
    }
    return static_cast<unsigned>(std::min<unsigned long long>(wait, HOLD_WAIT_MAX_SECONDS));
}

// A view's request with the view's current "index" and a wait waits for a
// change; any other index (or none) is answered at once.
bool holds_until_changed(const httpserver::http_request& request, hold_terms* terms) {
    if (request.get_path() != SVCMON_PATH) {
        return false;
    }
    const svcmon_method* method = find_method(request);
    unsigned long long index = 0;
    if (method == nullptr || method->view == nullptr ||
        !parse_count(request.get_arg("index"), &index) || index != method->view->index()) {
        return false;
    }
    *terms = {method->view, index, wait_seconds_of(request)};
    return terms->wait_seconds > 0;
}

}  // namespace

common_http_resource svcmon_resource(SVCMON_PATH, guarded<proc_svcmon_get>, nullptr, nullptr,
                                     nullptr, &history_relay, web_page_path,
                                     guarded_rule<holds_until_changed, false>);
