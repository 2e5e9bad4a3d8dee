// fuzz_support.h - what the fuzz targets share: the start-up with its guard,
// the failure report and the body of a handler's reply. Header-only; each
// target is one single-threaded libFuzzer process, one source file.
#ifndef MANAGER_SVC_FUZZ_SUPPORT_H
#define MANAGER_SVC_FUZZ_SUPPORT_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "main/settings.h"
#include "platform/httpserver.h"

// Reports a broken invariant and aborts, so that libFuzzer keeps the input.
inline void fuzz_check(bool holds, const char* what, const std::string& detail = "") {
    if (!holds) {
        fprintf(stderr, "fuzz invariant broken: %s [%s]\n", what, detail.c_str());
        abort();
    }
}

// The registry code writes its fixed device paths and get_history may reach
// any address, so a target runs only where scripts/fuzz.sh puts it: in the
// sandbox (which sets MANAGER_SVC_FUZZ_SANDBOX) and in a network namespace
// whose one interface, "lo", is down. The console stays silent, ERR lines
// included, so that no time goes to standard error.
inline void fuzz_start_up() {
    fuzz_check(getenv("MANAGER_SVC_FUZZ_SANDBOX") != nullptr, "run through scripts/fuzz.sh");
    FILE* devices = fopen("/proc/net/dev", "r");
    char line[256];
    int interfaces = 0;
    while (devices != nullptr && fgets(line, sizeof line, devices) != nullptr) {
        interfaces += strchr(line, ':') != nullptr ? 1 : 0;
    }
    fuzz_check(devices != nullptr && fclose(devices) == 0 && interfaces <= 1,
               "not in a network namespace of its own: run through scripts/fuzz.sh");
    verbose_level = -1;
}

// A target's own preparation, after the common start-up.
void fuzz_set_up();

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start_up();
    fuzz_set_up();
    return 0;
}

// The body of a handler's reply (every one is a string_response).
inline std::string fuzz_reply_body(const httpserver::http_response& reply) {
    auto text = dynamic_cast<const httpserver::string_response*>(&reply);
    fuzz_check(text != nullptr, "reply is not a string response");
    return text->get_content();
}

#endif
