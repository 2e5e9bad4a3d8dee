// handler_body_fuzz.cpp - fuzz target for the request handlers, called
// directly with a request object (no server): the service manager's GET,
// POST and DELETE, the monitor's GET (methods and any path), and the
// service-control POST. The system-state relay is left out: it only makes
// a network call.
//
// Input: requests separated by RECORD_SEPARATOR. The first byte of a
// request picks the operation (table below); the rest is its body, or its
// fields separated by FIELD_SEPARATOR. The registry is emptied before
// every input, so one input is one reproducible sequence of requests.
//
// Checked for every JSON reply: status 200, "application/json", a JSON
// object with an integer "return" among the handler's own result codes;
// for a register that succeeded, the registry holds the name, ip and port
// as the handlers' 32-byte buffers cut them. Web-page paths may also get
// 302 or 404.
//
// Runs inside the sandbox in a network namespace of its own (fuzz.sh), so
// get_history fails at once whatever address a service registered, and
// never reaches another host. Every recognised service-control request
// starts a real worker thread; the init scripts do not exist in the
// sandbox, so the shell fails harmlessly, and the target waits until the
// worker has ended.
#include <dirent.h>
#include <time.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "control/services_handler.h"
#include "fuzz/fuzz_support.h"
#include "monitor/svcmon_handler.h"
#include "registry/svc_info_map.h"
#include "registry/svcmgr_handler.h"

namespace {

constexpr char RECORD_SEPARATOR = '\x1e';
constexpr char FIELD_SEPARATOR = '\x1f';
constexpr const char SVCMGR_PATH[] = "/managerService/svcmgr";
constexpr const char SVCMON_PATH[] = "/managerService/svcmon";
constexpr const char SERVICES_PATH[] = "/managerService/services";
constexpr std::size_t HANDLER_TEXT_SIZE = 32;
// A service-control worker only runs a missing script; it must be gone
// well within this bound.
constexpr auto WORKER_END_LIMIT = std::chrono::seconds(10);
constexpr long WORKER_POLL_NANOSECONDS = 1000000;

using fields = std::vector<std::string>;

// The field at `index`, or the empty text.
std::string field(const fields& parts, std::size_t index) {
    return index < parts.size() ? parts[index] : std::string();
}

// "method" and "name" from the first fields; a field that is absent is
// absent from the arguments too.
httpserver::arg_map method_and_name(const fields& parts, std::size_t first) {
    httpserver::arg_map args;
    if (parts.size() > first) {
        args["method"] = parts[first];
    }
    if (parts.size() > first + 1) {
        args["name"] = parts[first + 1];
    }
    return args;
}

httpserver::http_request make_request(const char* method, const std::string& path,
                                      httpserver::arg_map args, const std::string& body) {
    return httpserver::http_request(method, path, std::move(args), httpserver::header_map(),
                                    body);
}

// What the handlers' 32-byte text buffers keep of a value.
std::string as_handler_text(const std::string& value) {
    std::string text(value.c_str());
    return text.substr(0, HANDLER_TEXT_SIZE - 1);
}

int thread_count() {
    DIR* tasks = opendir("/proc/self/task");
    fuzz_check(tasks != nullptr, "cannot list /proc/self/task");
    int count = 0;
    while (readdir(tasks) != nullptr) {
        count++;
    }
    closedir(tasks);
    return count;
}

// Polls until the process is back to `threads` threads.
void wait_for_workers(int threads) {
    auto deadline = std::chrono::steady_clock::now() + WORKER_END_LIMIT;
    while (thread_count() > threads) {
        fuzz_check(std::chrono::steady_clock::now() < deadline,
                   "a service-control worker thread did not end");
        struct timespec pause = {0, WORKER_POLL_NANOSECONDS};
        nanosleep(&pause, nullptr);
    }
}

void svcmgr_get(const std::string&, const fields& parts) {
    fuzz_check_json_reply(proc_svcmgr_get(make_request("GET", SVCMGR_PATH,
                                                       method_and_name(parts, 0), "")),
                          {SVC_INFO_OK, SVCMGR_UNKNOWN_METHOD, SVC_INFO_NO_SUCH_NAME,
                           SVC_INFO_EMPTY_NAME});
}

int svcmgr_post_body(const std::string& body) {
    return fuzz_check_json_reply(
        proc_svcmgr_post(make_request("POST", SVCMGR_PATH, {}, body)),
        {SVC_INFO_OK, SVCMGR_UNKNOWN_METHOD, SVC_INFO_EMPTY_NAME});
}

void svcmgr_post(const std::string& rest, const fields&) { svcmgr_post_body(rest); }

void svcmgr_delete(const std::string&, const fields& parts) {
    fuzz_check_json_reply(proc_svcmgr_delete(make_request("DELETE", SVCMGR_PATH,
                                                          method_and_name(parts, 0), "")),
                          {SVC_INFO_OK, SVCMGR_UNKNOWN_METHOD, SVC_INFO_NO_SUCH_NAME,
                           SVC_INFO_EMPTY_NAME});
}

void check_monitor_reply(const std::string& path,
                         const std::shared_ptr<httpserver::http_response>& reply) {
    if (path.compare(0, WEB_PREFIX_LENGTH, WEB_PREFIX) == 0) {
        int status = reply->get_response_code();
        fuzz_check(status == 200 || status == 302 || status == 404, "web page status", path);
        return;
    }
    fuzz_check_json_reply(reply, {SVCMON_OK, SVCMON_UNKNOWN_METHOD, SVC_INFO_NO_SUCH_NAME,
                                  SVCMON_BAD_PATH, SVCMON_HISTORY_FAILED, SVCMON_NO_NAME});
}

void svcmon_get(const std::string&, const fields& parts) {
    check_monitor_reply(SVCMON_PATH, proc_svcmon_get(make_request(
                                         "GET", SVCMON_PATH, method_and_name(parts, 0), "")));
}

void svcmon_get_any_path(const std::string&, const fields& parts) {
    std::string path = field(parts, 0);
    check_monitor_reply(path, proc_svcmon_get(make_request("GET", path,
                                                           method_and_name(parts, 1), "")));
}

void services_post_body(const std::string& body) {
    int threads = thread_count();
    int result = fuzz_check_json_reply(
        proc_services_post(make_request("POST", SERVICES_PATH, {}, body)),
        {SERVICES_STARTED, SERVICES_UNKNOWN_METHOD});
    if (result == SERVICES_STARTED) {
        wait_for_workers(threads);
    }
}

void services_post(const std::string& rest, const fields&) { services_post_body(rest); }

// A register body made from raw fields (name, ip, port text), so that any
// bytes reach the registry as a name or address.
void structured_register(const std::string&, const fields& parts) {
    std::string name = field(parts, 0);
    std::string ip = field(parts, 1);
    int port = atoi(field(parts, 2).c_str());
    json_object* body = json_object_new_object();
    json_object_object_add(body, "method", json_object_new_string("register"));
    json_object_object_add(body, "name", json_object_new_string_len(name.data(), name.size()));
    json_object_object_add(body, "ip", json_object_new_string_len(ip.data(), ip.size()));
    json_object_object_add(body, "port", json_object_new_int(port));
    std::string text = json_object_to_json_string(body);
    json_object_put(body);
    if (svcmgr_post_body(text) != SVC_INFO_OK) {
        return;
    }
    svc_info stored;
    fuzz_check(svc_info_get(as_handler_text(name), stored) == SVC_INFO_OK,
               "registered name not found", text);
    fuzz_check(stored.ip == as_handler_text(ip) && stored.port == port,
               "registered address differs", text);
}

// A service-control body whose "method" is the raw first field.
void structured_services(const std::string&, const fields& parts) {
    std::string method = field(parts, 0);
    json_object* body = json_object_new_object();
    json_object_object_add(body, "method",
                           json_object_new_string_len(method.data(), method.size()));
    std::string text = json_object_to_json_string(body);
    json_object_put(body);
    services_post_body(text);
}

struct operation {
    void (*run)(const std::string& rest, const fields& parts);
};

// Picked by the first byte of a request, modulo the table's size.
const operation OPERATIONS[] = {
    {svcmgr_get},    {svcmgr_post},         {svcmgr_delete},       {svcmon_get},
    {svcmon_get_any_path}, {services_post}, {structured_register}, {structured_services},
};

fields split(const std::string& text, char separator) {
    fields parts;
    std::size_t start = 0;
    for (;;) {
        std::size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string::npos ? end : end - start));
        if (end == std::string::npos) {
            return parts;
        }
        start = end + 1;
    }
}

void run_request(const std::string& request) {
    if (request.empty()) {
        return;
    }
    const operation& chosen =
        OPERATIONS[static_cast<unsigned char>(request[0]) % (sizeof OPERATIONS / sizeof OPERATIONS[0])];
    std::string rest = request.substr(1);
    chosen.run(rest, split(rest, FIELD_SEPARATOR));
}

// The network namespace that fuzz.sh gives the target has nothing but an
// interface "lo" that is down; refuse to run where another host could be
// reached.
void require_isolated_network() {
    FILE* devices = fopen("/proc/net/dev", "r");
    fuzz_check(devices != nullptr, "cannot read /proc/net/dev");
    char line[256];
    int interfaces = 0;
    while (fgets(line, sizeof line, devices) != nullptr) {
        interfaces += strchr(line, ':') != nullptr ? 1 : 0;
    }
    fclose(devices);
    fuzz_check(interfaces <= 1, "not in a network namespace of its own: run through fuzz.sh");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start_up();
    require_isolated_network();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    svc_info_destroy();
    std::string input(reinterpret_cast<const char*>(data), size);
    for (const std::string& request : split(input, RECORD_SEPARATOR)) {
        run_request(request);
    }
    return 0;
}
