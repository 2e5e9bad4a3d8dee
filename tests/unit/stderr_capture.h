// stderr_capture.h - test helper: sends file descriptor 2 (and so the
// stderr stream) to a temporary file while it lives, and hands back what
// was written. Single-threaded use in a test body.
#ifndef MANAGER_SVC_TESTS_STDERR_CAPTURE_H
#define MANAGER_SVC_TESTS_STDERR_CAPTURE_H

#include <unistd.h>

#include <cstdio>
#include <string>

class stderr_capture {
public:
    stderr_capture() : file_(tmpfile()), saved_fd_(dup(STDERR_FILENO)) {
        fflush(stderr);
        dup2(fileno(file_), STDERR_FILENO);
    }
    ~stderr_capture() { restore(); }
    stderr_capture(const stderr_capture&) = delete;
    stderr_capture& operator=(const stderr_capture&) = delete;

    // Ends the capture and returns every byte written meanwhile.
    std::string text() {
        restore();
        return captured_;
    }

private:
    void restore() {
        if (file_ == nullptr) {
            return;
        }
        fflush(stderr);
        dup2(saved_fd_, STDERR_FILENO);
        close(saved_fd_);
        rewind(file_);
        char chunk[4096];
        std::size_t count;
        while ((count = fread(chunk, 1, sizeof chunk, file_)) > 0) {
            captured_.append(chunk, count);
        }
        fclose(file_);
        file_ = nullptr;
    }

    FILE* file_;
    int saved_fd_;
    std::string captured_;
};

#endif
