// fuzz_support.h - what the fuzz targets share: the start-up guard that
// keeps them inside the sandbox, the silenced console, the failure report
// and the checks that every JSON reply must pass.
// Header-only; each target is one single-threaded libFuzzer process.
#ifndef MANAGER_SVC_FUZZ_SUPPORT_H
#define MANAGER_SVC_FUZZ_SUPPORT_H

#include <json-c/json.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>

#include "endpoints/ssci_response.h"
#include "main/settings.h"
#include "platform/httpserver.h"

// scripts/fuzz.sh sets this in the sandbox it runs the targets in. The
// registry code writes the registry file and the debug log at their fixed
// device paths, so a target refuses to start anywhere else.
constexpr const char FUZZ_SANDBOX_VARIABLE[] = "MANAGER_SVC_FUZZ_SANDBOX";

// Reports a broken invariant and aborts, so that libFuzzer keeps the input.
[[noreturn]] inline void fuzz_fail(const char* what, const std::string& detail) {
    fprintf(stderr, "fuzz invariant broken: %s [%s]\n", what, detail.c_str());
    abort();
}

inline void fuzz_check(bool holds, const char* what, const std::string& detail = "") {
    if (!holds) {
        fuzz_fail(what, detail);
    }
}

// Start-up of every target: only inside the sandbox, console silent. A
// verbose level below ERR keeps even ERR lines off the console (print_log
// still makes its level check on every call) so that the fuzzer's speed
// is not spent on standard error.
inline void fuzz_start_up() {
    if (getenv(FUZZ_SANDBOX_VARIABLE) == nullptr) {
        fprintf(stderr, "run the fuzz targets through scripts/fuzz.sh (%s is not set): "
                        "they write the device's fixed paths\n", FUZZ_SANDBOX_VARIABLE);
        exit(2);
    }
    verbose_level = -1;
}

// The body of a response made by the handlers (every one is a
// string_response).
inline std::string fuzz_reply_body(const httpserver::http_response& reply) {
    auto text = dynamic_cast<const httpserver::string_response*>(&reply);
    fuzz_check(text != nullptr, "reply is not a string response");
    return text->get_content();
}

inline std::string fuzz_content_type(const httpserver::http_response& reply) {
    return reply.get_header(httpserver::http::http_utils::http_header_content_type);
}

// A JSON reply: status 200, "application/json", a JSON object whose
// integer "return" is one of `allowed`. Returns that value.
inline int fuzz_check_json_reply(const std::shared_ptr<httpserver::http_response>& reply,
                                 std::initializer_list<int> allowed) {
    fuzz_check(reply != nullptr, "no reply");
    std::string body = fuzz_reply_body(*reply);
    fuzz_check(reply->get_response_code() == HTTP_STATUS_OK, "status is not 200", body);
    fuzz_check(fuzz_content_type(*reply) == JSON_CONTENT_TYPE, "content type", body);
    json_object* parsed = json_tokener_parse(body.c_str());
    json_object* result = nullptr;
    bool is_object = json_object_is_type(parsed, json_type_object);
    bool has_return = is_object && json_object_object_get_ex(parsed, RETURN_MEMBER, &result) &&
                      json_object_is_type(result, json_type_int);
    int value = has_return ? json_object_get_int(result) : 0;
    json_object_put(parsed);
    fuzz_check(is_object, "reply body is not a JSON object", body);
    fuzz_check(has_return, "reply has no integer \"return\"", body);
    for (int expected : allowed) {
        if (value == expected) {
            return value;
        }
    }
    fuzz_fail("unexpected \"return\" value", body);
}

#endif
