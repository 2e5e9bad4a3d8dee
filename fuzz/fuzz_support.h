// fuzz_support.h - what the fuzz targets share: the start-up with its guard
// and the failure report. Header-only; each target is one single-threaded
// libFuzzer process, one source file.
#ifndef MANAGER_SVC_FUZZ_SUPPORT_H
#define MANAGER_SVC_FUZZ_SUPPORT_H

#include <cstdio>
#include <cstdlib>

#include "main/settings.h"

// Reports a broken invariant and aborts, so that libFuzzer keeps the input.
inline void fuzz_check(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "fuzz invariant broken: %s\n", what);
        abort();
    }
}

// The registry code writes its fixed device paths and get_history may reach
// any address, so a target runs only where scripts/fuzz.sh puts it: in the
// sandbox, without network (fuzz.sh sets MANAGER_SVC_FUZZ_SANDBOX there).
// The console stays silent, ERR lines included, to keep the fuzzer fast.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_check(getenv("MANAGER_SVC_FUZZ_SANDBOX") != nullptr, "run through scripts/fuzz.sh");
    verbose_level = -1;
    return 0;
}

#endif
