// registry_test.cpp - the registry file where tests/blackbox cannot reach:
// loading tests/fixtures/registry, the one-write rewrite and a full disk
// (seen through an interposed write and fstatvfs), memory running out. Runs in the sandbox (its fixed path is scratch).
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <regex>
#include <tuple>
#include <vector>

#include "common/device_paths.h"
#include "registry/svc_info_map.h"
#include "tests/unit/unit_support.h"

namespace {

// While armed, the file system has no free block (when `full`), write(2) and ftruncate(2) on the registry
// file are recorded in order ("write" and the size asked, "cut" and the length; the first write's bytes too),
// and a write takes at most `per_call` bytes; after `calls_left` calls it fails with ENOSPC.
struct write_plan {
    bool armed = false, full = false;
    std::size_t per_call = SIZE_MAX, calls_left = SIZE_MAX;
    std::vector<std::string> calls;
    std::string first;
} plan;

// The allocation that fails with std::bad_alloc after this many; -1: none.
std::atomic<long> allocations_left{-1};

// The registry as "name,ip,port\n" lines, as its file holds it.
std::string registry_text() {
    svc_info_entry_list list;
    svc_info_list(list);
    std::string text;
    for (const auto& entry : list) {
        text += entry->name + "," + entry->ip + "," + std::to_string(entry->port) + "\n";
    }
    return text;
}

int add(const std::string& name, const std::string& ip) { return svc_info_add(name, svc_info{ip, 1}); }

bool is_registry_file(int fd) {
    struct stat open_file, named;
    return fstat(fd, &open_file) == 0 && stat(REGISTRY_FILE_PATH, &named) == 0 && open_file.st_ino == named.st_ino;
}

}  // namespace

extern "C" ssize_t write(int fd, const void* data, size_t size) {
    if (!plan.armed || !is_registry_file(fd)) {
        return syscall(SYS_write, fd, data, size);
    }
    plan.first += plan.first.empty() ? std::string(static_cast<const char*>(data), size) : "";
    plan.calls.push_back("write " + std::to_string(size));
    errno = ENOSPC;
    return plan.calls_left-- == 0 ? -1 : syscall(SYS_write, fd, data, std::min(size, plan.per_call));
}

extern "C" int ftruncate(int fd, off_t length) {
    if (plan.armed && is_registry_file(fd)) {
        plan.calls.push_back("cut " + std::to_string(length));
    }
    return static_cast<int>(syscall(SYS_ftruncate, fd, length));
}

extern "C" int fstatvfs(int fd, struct statvfs* space) {
    const int result = statvfs(("/proc/self/fd/" + std::to_string(fd)).c_str(), space);
    space->f_bavail = plan.armed && plan.full ? 0 : space->f_bavail;
    return result;
}

void* operator new(std::size_t size) {
    long left = allocations_left.load();
    allocations_left.store(left > 0 ? left - 1 : left);
    void* memory = left == 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#pragma GCC diagnostic pop

namespace {

struct registry_test : testing::Test {
    void SetUp() override { reset(); }
    static void reset() {
        plan = write_plan();
        svc_info_destroy();
        std::remove(REGISTRY_FILE_PATH);
    }
};

TEST_F(registry_test, LoadingKeepsTheWellFormedLinesOnly) {
    const std::pair<const char*, std::string> cases[] = {
        {"empty.inf", ""}, {"last_line_no_lf.inf", "a,127.0.0.2,80\n"}, {"truncated_mid_line.inf", "a,127.0.0.2,80\n"},
        {"too_many_fields.inf", "c,127.0.0.4,82\n"}, {"empty_fields.inf", "a,127.0.0.2,80\nb,127.0.0.3,81\n"},
        {"port_not_number.inf", "a,127.0.0.2,0\nb,127.0.0.3,80\nc,127.0.0.4,81\nd,127.0.0.5,-7\ne,127.0.0.6,2147483647\n"},
        {"repeated_names.inf", "a,127.0.0.9,90\nb,127.0.0.3,81\n"}, {"line_131_chars.inf", "z,127.0.0.4,82\n"},
        {"line_126_chars.inf", std::string(113, 'n') + ",127.0.0.2,80\nz,127.0.0.4,82\n"},
        {"binary_junk.inf", "a,127.0.0.2,80\nc,127.0.0.4,82\n\xfe\xfd,\x01ip,7\n"},
    };
    for (const auto& [fixture, loaded] : cases) {
        reset();
        std::ofstream(REGISTRY_FILE_PATH) << contents_of(FIXTURE_DIR "/registry/" + std::string(fixture));
        svc_info_init();
        EXPECT_EQ(loaded, registry_text()) << fixture;
    }
}

// Old size (the new content, then "o"s), whether the disk is full, bytes taken per write, writes before
// ENOSPC, the writes and cuts asked for, the bytes of the new content then in the file, and the debug-log
// records. A longer old content is covered by padding in the one write, then cut (padding a crash leaves
// loads as nothing; the file is never empty on the way), unless it is far longer (cut first, never padded); a
// failed write never leaves half a line; no room (free blocks and those the old content holds): old kept.
TEST_F(registry_test, RewriteIsOneWriteOverTheOldContent) {
    const std::string failed = "svc_info_map.cpp:svc_info_write_back(", file = REGISTRY_FILE_PATH;
    const std::tuple<std::size_t, bool, std::size_t, std::size_t, std::vector<std::string>, std::size_t,
                     std::string> cases[] = {
        {12000, false, SIZE_MAX, SIZE_MAX, {"write 12000", "cut 10100"}, 10100, ""},
        {10101, false, SIZE_MAX, SIZE_MAX, {"write 10101", "cut 10100"}, 10100, ""},  // one byte longer
        {300000, false, SIZE_MAX, SIZE_MAX, {"cut 0", "write 10100"}, 10100, ""},
        {4, false, 4000, SIZE_MAX, {"write 10100", "write 6100", "write 2100"}, 10100, ""},
        {4, false, 4000, 1, {"write 10100", "write 6100", "cut 3939"}, 39 * 101,
         failed + "123) write(" + file + ") error(28).\n" +
             failed + "121) 3939 of 10100 bytes kept in " + file + ", cut at a line end.\n"},
        {12000, true, SIZE_MAX, SIZE_MAX, {"write 12000", "cut 10100"}, 10100, ""},
        {4, true, SIZE_MAX, SIZE_MAX, {}, 4,
         failed + "120) no space for 10100 bytes in " + file + ", old content kept.\n"},
    };
    for (const auto& [old_size, full, per_call, calls_left, asked, kept, records] : cases) {
        reset();
        for (int index = 0; index < 100; index++) {
            add("s" + std::to_string(1000 + index), std::string(92, '1'));  // 101-byte lines
        }
        const std::string content = registry_text();
        std::ofstream(REGISTRY_FILE_PATH) << (content + std::string(old_size, 'o')).substr(0, old_size);
        const std::size_t logged = contents_of(DEBUG_LOG_PATH).size();
        plan = write_plan{true, full, per_call, calls_left, {}, {}};
        svc_info_write_back();
        plan.armed = false;
        EXPECT_EQ(asked, plan.calls);
        EXPECT_EQ(content.substr(0, kept), contents_of(REGISTRY_FILE_PATH));
        const std::string written = contents_of(DEBUG_LOG_PATH).substr(logged);
        EXPECT_EQ(records, std::regex_replace(written, std::regex("[^\n]*\\]: "), ""));  // without the stamps
        std::ofstream(REGISTRY_FILE_PATH) << plan.first;
        svc_info_destroy();
        svc_info_init();
        EXPECT_EQ(asked.empty() ? "" : content, registry_text());
    }
}

// Names in byte order, the shorter prefix first, bytes taken as unsigned:
// in the list and in the file alike; a file line is cut at 126 characters.
TEST_F(registry_test, NamesAreKeptInByteOrder) {
    const std::string longest(130, '~');
    for (const std::string& name : {std::string("\xe9"), longest, std::string("b"), std::string("abc"),
                                    std::string("B"), std::string("ab"), std::string("a")})
        add(name, "127.0.0.1");
    const std::string first = "B,127.0.0.1,1\na,127.0.0.1,1\nab,127.0.0.1,1\nabc,127.0.0.1,1\nb,127.0.0.1,1\n";
    EXPECT_EQ(first + longest + ",127.0.0.1,1\n\xe9,127.0.0.1,1\n", registry_text());
    EXPECT_EQ(first + longest.substr(0, 126) + "\n\xe9,127.0.0.1,1\n", contents_of(REGISTRY_FILE_PATH));
}

// Memory runs out at each allocation of an add in turn: the add fails with the registry and its file as they
// were, until only its write-back runs out, which completes the add and keeps the old file.
TEST_F(registry_test, OutOfMemoryChangesNothing) {
    add("kept", std::string(40, '1'));
    const std::string before = registry_text();
    for (long allocations = 0; allocations < 64 && registry_text() == before; allocations++) {
        allocations_left.store(allocations);
        try {
            add(std::string(40, 'n'), "127.0.0.1");
        } catch (const std::bad_alloc&) {
            allocations_left.store(-1);
            EXPECT_EQ(before + before, registry_text() + contents_of(REGISTRY_FILE_PATH));
        }
        allocations_left.store(-1);
    }
    EXPECT_EQ(before + std::string(40, 'n') + ",127.0.0.1,1\n" + before,
              registry_text() + contents_of(REGISTRY_FILE_PATH));
}

}  // namespace
