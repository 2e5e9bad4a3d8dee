// registry_test_support.h - helpers shared by the registry's unit tests:
// whole-file reads and writes, the debug-log records written since a point,
// the console log captured at a chosen verbose level, and a fixture that
// starts and ends every test with an empty registry and no registry file.
// The test binaries run inside the sandbox, so the fixed paths are scratch.
#ifndef MANAGER_SVC_REGISTRY_TEST_SUPPORT_H
#define MANAGER_SVC_REGISTRY_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "common/device_paths.h"
#include "common/print_log.h"
#include "main/settings.h"
#include "registry/svc_info_map.h"
#include "stderr_capture.h"

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

inline void write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

inline bool path_exists(const char* path) {
    struct stat info;
    return stat(path, &info) == 0;
}

// The debug-log text appended after the object was made.
class debug_log_tail {
public:
    debug_log_tail() : start_(read_file(DEBUG_LOG_PATH).size()) {}
    std::string text() const { return read_file(DEBUG_LOG_PATH).substr(start_); }
    // Whether some record's message (the text after "]: ") is exactly `message`.
    bool has_record(const std::string& message) const {
        return text().find("]: " + message + "\n") != std::string::npos;
    }

private:
    std::size_t start_;
};

// Captures the console log while it lives, at the given verbose level.
class console_capture {
public:
    explicit console_capture(int level) : saved_level_(verbose_level) { verbose_level = level; }
    ~console_capture() { verbose_level = saved_level_; }
    std::string text() { return capture_.text(); }

private:
    int saved_level_;
    stderr_capture capture_;
};

// The registry as "name,ip,port\n" lines in name order: what the registry
// file holds when it follows the registry (lines under 127 characters).
inline std::string registry_as_file_text() {
    svc_info_entry_list list;
    svc_info_list(list);
    std::string text;
    for (const auto& entry : list) {
        text += entry->name + "," + entry->ip + "," + std::to_string(entry->port) + "\n";
    }
    return text;
}

inline svc_info make_info(const std::string& ip, int port) {
    svc_info info;
    info.ip = ip;
    info.port = port;
    return info;
}

// Every test starts and ends with an empty registry, no registry file and
// a silent console.
class registry_test : public testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }

    static void reset() {
        verbose_level = 0;
        svc_info_destroy();
        rmdir(REGISTRY_FILE_PATH);
        std::remove(REGISTRY_FILE_PATH);
    }
};

#endif
