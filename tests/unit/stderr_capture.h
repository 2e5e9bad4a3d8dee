// stderr_capture.h - test helper: what `action` writes to file descriptor 2
// (and so to the stderr stream). Single-threaded use in a test body.
#ifndef MANAGER_SVC_TESTS_STDERR_CAPTURE_H
#define MANAGER_SVC_TESTS_STDERR_CAPTURE_H

#include <unistd.h>

#include <cstdio>
#include <string>

template <typename Action>
std::string stderr_of(Action action) {
    FILE* file = tmpfile();
    const int saved = dup(STDERR_FILENO);
    fflush(stderr);
    dup2(fileno(file), STDERR_FILENO);
    action();
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text(static_cast<std::size_t>(ftell(file)), '\0');
    rewind(file);
    text.resize(fread(&text[0], 1, text.size(), file));
    fclose(file);
    return text;
}

#endif
