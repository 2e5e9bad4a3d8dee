// handler_body_fuzz.cpp - fuzz target for the request handlers, called with
// a request object: requests separated by '\x1e'; a request's first byte
// picks the operation, the rest is its body, and its fields (separated by
// '\x1f') are the arguments "method" and "name" (after the path, for a
// path of its own). The registry is emptied before every input. Checked: a
// JSON reply is 200 "application/json" with an integer "return" among the
// handler's codes, a web path gets 200, 302 or 404, and a register that
// succeeded left name, ip and port as the 32-byte buffers cut them.
#include <json-c/json.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
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
const std::vector<int> SVCMGR = {SVC_INFO_OK, SVCMGR_UNKNOWN_METHOD, SVC_INFO_NO_SUCH_NAME,
                                 SVC_INFO_EMPTY_NAME};
const std::vector<int> SVCMON = {SVCMON_OK, SVCMON_UNKNOWN_METHOD, SVC_INFO_NO_SUCH_NAME,
                                 SVCMON_BAD_PATH, SVCMON_HISTORY_FAILED, SVCMON_NO_NAME};
const std::vector<int> SERVICES = {SERVICES_STARTED, SERVICES_UNKNOWN_METHOD};
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
    const std::vector<int>& results;
    std::vector<const char*> members;
} OPERATIONS[] = {
    {"GET", SVCMGR_PATH, proc_svcmgr_get, SVCMGR, {}},
    {"POST", SVCMGR_PATH, proc_svcmgr_post, SVCMGR, {}},
    {"DELETE", SVCMGR_PATH, proc_svcmgr_delete, SVCMGR, {}},
    {"GET", SVCMON_PATH, proc_svcmon_get, SVCMON, {}},
    {"GET", nullptr, proc_svcmon_get, SVCMON, {}},
    {"POST", SERVICES_PATH, proc_services_post, SERVICES, {}},
    {"POST", SVCMGR_PATH, proc_svcmgr_post, SVCMGR, {"name", "ip", "port"}},
    {"POST", SERVICES_PATH, proc_services_post, SERVICES, {"method"}},
};

fields split(const std::string& text, char separator) {
    fields parts(1);
    for (char c : text) {
        if (c == separator) {
            parts.emplace_back();
        } else {
            parts.back().push_back(c);
        }
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

// Checks a JSON reply with one of `results` as its "return", and gives it.
int checked_return(const httpserver::http_response& reply, const std::vector<int>& results) {
    const std::string body = fuzz_reply_body(reply);
    json_object* parsed = json_tokener_parse(body.c_str());
    json_object* result = nullptr;
    const bool has_int = json_object_object_get_ex(parsed, RETURN_MEMBER, &result) &&
                         json_object_is_type(result, json_type_int);
    const int value = json_object_get_int(result);
    json_object_put(parsed);
    fuzz_check(has_int && std::count(results.begin(), results.end(), value) == 1 &&
                   reply.get_response_code() == HTTP_STATUS_OK &&
                   reply.get_header("Content-Type") == JSON_CONTENT_TYPE, "JSON reply", body);
    return value;
}

std::string field(const fields& parts, std::size_t index) {
    return index < parts.size() ? parts[index] : "";
}

// What the handlers' 32-byte text buffers keep of a field.
std::string kept(const fields& parts, std::size_t index) {
    return std::string(field(parts, index).c_str()).substr(0, 31);
}

std::ptrdiff_t thread_count() {
    std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
}

void run_request(const operation& op, const std::string& rest) {
    const fields parts = split(rest, '\x1f');
    const std::size_t first = op.path == nullptr ? 1 : 0;
    const std::string path = op.path == nullptr ? parts[0] : op.path;
    const std::ptrdiff_t threads = op.handle == proc_services_post ? thread_count() : 0;
    const auto reply = op.handle(httpserver::http_request(
        op.method, path, {{"method", field(parts, first)}, {"name", field(parts, first + 1)}}, {},
        op.members.empty() ? rest : json_body(parts, op.members)));
    if (path.compare(0, WEB_PREFIX_LENGTH, WEB_PREFIX) == 0) {
        const int status = reply->get_response_code();
        fuzz_check(status == 200 || status == 302 || status == 404, "web page status", path);
        return;
    }
    svc_info stored;
    const bool registered = checked_return(*reply, op.results) == SVC_INFO_OK &&
                            op.handle == proc_svcmgr_post && !op.members.empty();
    fuzz_check(!registered ||
                   (svc_info_get(kept(parts, 0), stored) == SVC_INFO_OK &&
                    stored.ip == kept(parts, 1) &&
                    stored.port == atoi(field(parts, 2).c_str())),
               "registered entry differs", rest);
    // A service-control worker only runs a missing init script (sandbox).
    for (int polls = 0; threads > 0 && thread_count() > threads; ++polls) {
        fuzz_check(polls < 10000, "a service-control worker did not end");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

void fuzz_set_up() {}

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
