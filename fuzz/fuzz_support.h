// fuzz_support.h - what the fuzz targets share: the start-up with its guard,
// the failure report and the body of a handler's reply. Header-only; each
// target is one single-threaded libFuzzer process, one source file.
#ifndef MANAGER_SVC_FUZZ_SUPPORT_H
#define MANAGER_SVC_FUZZ_SUPPORT_H

#include <cstdio>
#include <cstdlib>
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
// sandbox, without network (fuzz.sh sets MANAGER_SVC_FUZZ_SANDBOX there).
// The console stays silent, ERR lines included, to keep the fuzzer fast.
inline void fuzz_start_up() {
    fuzz_check(getenv("MANAGER_SVC_FUZZ_SANDBOX") != nullptr, "run through scripts/fuzz.sh");
    verbose_level = -1;
}

// A target's own preparation, after the common start-up.
void fuzz_set_up();

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start_up();
    fuzz_set_up();
    return 0;
}

// The body of a handler's text reply (a string_response; web pages are
// sent from their file instead).
inline std::string fuzz_reply_body(const httpserver::http_response& reply) {
    auto text = dynamic_cast<const httpserver::string_response*>(&reply);
    fuzz_check(text != nullptr, "reply is not a string response");
    return text->get_content();
}

#endif
