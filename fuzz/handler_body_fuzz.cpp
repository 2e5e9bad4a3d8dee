// handler_body_fuzz.cpp - fuzz target for the request handlers: requests
// separated by '\x1e'; the first byte picks the operation, the rest is the
// body, its fields (separated by '\x1f') the arguments "method" and "name"
// (after the path, for an operation without one). Checked, besides what
// the sanitizers catch: every request gets a reply, a JSON one parses with
// one of the handlers' codes as its "return" (no internal code leaks out),
// and every service-control worker ends.
#include <json-c/json.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "control/services_handler.h"
#include "endpoints/ssci_response.h"
#include "fuzz/fuzz_support.h"
#include "monitor/svcmon_handler.h"
#include "registry/svc_info_map.h"
#include "registry/svcmgr_handler.h"

namespace {

using fields = std::vector<std::string>;
constexpr int RESULTS[] = {SVC_INFO_OK,         SVCMGR_UNKNOWN_METHOD, SVC_INFO_NO_SUCH_NAME,
                           SVC_INFO_EMPTY_NAME, SVCMON_BAD_PATH,       SVCMON_HISTORY_FAILED, SVCMON_NO_NAME};
constexpr const char SVCMGR_PATH[] = "/managerService/svcmgr";
constexpr const char SVCMON_PATH[] = "/managerService/svcmon";
constexpr const char SERVICES_PATH[] = "/managerService/services";

// Picked by a request's first byte, modulo the table's size. The last two
// send the fields as JSON members, so that any bytes reach the registry
// and the action table.
const struct operation {
    const char* method;
    const char* path;  // null: the first field
    decltype(&proc_svcmgr_get) handle;
    std::vector<const char*> members;
} OPERATIONS[] = {
    {"GET", SVCMGR_PATH, proc_svcmgr_get, {}},
    {"POST", SVCMGR_PATH, proc_svcmgr_post, {}},
    {"DELETE", SVCMGR_PATH, proc_svcmgr_delete, {}},
    {"GET", SVCMON_PATH, proc_svcmon_get, {}},
    {"GET", nullptr, proc_svcmon_get, {}},
    {"POST", SERVICES_PATH, proc_services_post, {}},
    {"POST", SVCMGR_PATH, proc_svcmgr_post, {"name", "ip", "port"}},
    {"POST", SERVICES_PATH, proc_services_post, {"method"}},
};

fields split(const std::string& text, char separator) {
    fields parts;
    std::istringstream stream(text + separator);  // an empty last part counts too
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

// {"method": "register"} with the fields as the members named (a "method"
// among them replaces that one, a "port" is an integer).
std::string json_body(const fields& parts, const std::vector<const char*>& names) {
    json_object* body = json_object_new_object();
    json_object_object_add(body, "method", json_object_new_string("register"));
    for (std::size_t i = 0; i < names.size() && i < parts.size(); ++i) {
        json_object_object_add(body, names[i], strcmp(names[i], "port") == 0
            ? json_object_new_int(atoi(parts[i].c_str()))
            : json_object_new_string_len(parts[i].data(), static_cast<int>(parts[i].size())));
    }
    std::string text = json_object_to_json_string(body);
    json_object_put(body);
    return text;
}

bool is_known_json_reply(const httpserver::http_response& reply) {
    auto text = dynamic_cast<const httpserver::string_response*>(&reply);
    json_object* parsed = text != nullptr ? json_tokener_parse(text->get_content().c_str()) : nullptr;
    json_object* result = nullptr;
    const bool known = json_object_object_get_ex(parsed, RETURN_MEMBER, &result) &&
                       json_object_is_type(result, json_type_int) &&
                       std::count(std::begin(RESULTS), std::end(RESULTS), json_object_get_int(result)) == 1;
    json_object_put(parsed);
    return known && reply.get_response_code() == HTTP_STATUS_OK;
}

std::ptrdiff_t thread_count() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

void run_request(const operation& op, const std::string& rest) {
    fields parts = split(rest, '\x1f');
    const std::string path = op.path == nullptr ? parts[0] : op.path;
    const std::string body = op.members.empty() ? rest : json_body(parts, op.members);
    parts.erase(parts.begin(), parts.begin() + (op.path == nullptr ? 1 : 0));
    parts.resize(std::max<std::size_t>(parts.size(), 2));
    const std::ptrdiff_t threads = op.handle == proc_services_post ? thread_count() : 0;
    const auto reply = op.handle(httpserver::http_request(
        op.method, path, {{"method", parts[0]}, {"name", parts[1]}}, {}, body));
    fuzz_check(reply != nullptr && (web_page_path(path) || is_known_json_reply(*reply)), "reply");
    // A service-control worker only runs a missing init script (sandbox).
    for (int polls = 0; threads > 0 && thread_count() > threads; ++polls) {
        fuzz_check(polls < 10000, "a service-control worker did not end");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    svc_info_destroy();
    for (const std::string& request : split(std::string(data, data + size), '\x1e')) {
        if (!request.empty()) {
            run_request(OPERATIONS[static_cast<unsigned char>(request[0]) % std::size(OPERATIONS)],
                         request.substr(1));
        }
    }
    return 0;
}
