// svc_info_oom_test.cpp - memory running out inside a registry operation:
// the operation passes std::bad_alloc on with the lock released, and the
// registry, the caller's list and the registry file stay as they were; a
// write-back that runs out keeps the old file and only logs it.
// This binary replaces the global operator new so that the n-th allocation
// after arming fails; only the test's own thread allocates while armed.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>

#include "registry_test_support.h"

namespace {

// Allocations left before they start failing; negative: never fail.
std::atomic<long> allocations_left{-1};

void fail_after(long allocations) { allocations_left.store(allocations); }
void stop_failing() { allocations_left.store(-1); }

}  // namespace

void* operator new(std::size_t size) {
    long left = allocations_left.load();
    if (left == 0) {
        throw std::bad_alloc();
    }
    if (left > 0) {
        allocations_left.store(left - 1);
    }
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

// The replacement pair allocates with malloc and releases with free; GCC
// takes the free inside a replaced operator delete for a mismatch.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { ::operator delete(memory); }
#pragma GCC diagnostic pop

namespace {

constexpr long MAX_ALLOCATIONS = 64;

// Runs `operation` with the n-th allocation failing, for n = 0, 1, ... until
// it completes; after every failure `unchanged` must hold. Returns how many
// runs failed.
int fail_each_allocation(const std::function<void()>& operation,
                         const std::function<void()>& unchanged) {
    int failures = 0;
    for (long n = 0; n < MAX_ALLOCATIONS; n++) {
        fail_after(n);
        try {
            operation();
            stop_failing();
            return failures;
        } catch (const std::bad_alloc&) {
            stop_failing();
            failures++;
            unchanged();
        }
    }
    ADD_FAILURE() << "operation never completed";
    return failures;
}

using svc_info_oom_test = registry_test;

const std::string LONG_NAME(40, 'n');
const std::string LONG_IP(40, '1');

TEST_F(svc_info_oom_test, AddOfNewNameLeavesRegistryAndFileAsTheyWere) {
    svc_info_add("kept", make_info(LONG_IP, 1));
    const std::string before = registry_as_file_text();
    int failures = fail_each_allocation(
        [] { svc_info_add(LONG_NAME, make_info(LONG_IP, 2)); },
        [&] {
            EXPECT_EQ(before, registry_as_file_text());
            EXPECT_EQ(before, read_file(REGISTRY_FILE_PATH));
        });
    EXPECT_GT(failures, 0);
    EXPECT_EQ(before + LONG_NAME + "," + LONG_IP + ",2\n", registry_as_file_text());
}

TEST_F(svc_info_oom_test, UpdateNeverHalfChangesTheRecord) {
    svc_info_add(LONG_NAME, make_info("10.0.0.1", 1));
    svc_info fresh = make_info(LONG_IP, 2);
    fresh.health_status = std::string(40, 's');
    int failures = fail_each_allocation(
        [&] { svc_info_add(LONG_NAME, fresh); },
        [] {
            svc_info out;
            EXPECT_EQ(SVC_INFO_OK, svc_info_get(LONG_NAME, out));
            EXPECT_EQ("10.0.0.1", out.ip);
            EXPECT_EQ(1, out.port);
            EXPECT_EQ(SVC_INFO_OFF_LINE, out.health_status);
        });
    EXPECT_GT(failures, 0);
    svc_info out;
    svc_info_get(LONG_NAME, out);
    EXPECT_EQ(LONG_IP, out.ip);
    EXPECT_EQ(fresh.health_status, out.health_status);
}

TEST_F(svc_info_oom_test, ListLeavesCallersListAsItWas) {
    svc_info_add(LONG_NAME, make_info(LONG_IP, 1));
    svc_info_add("other", make_info(LONG_IP, 2));
    svc_info_entry_list list;
    list.push_back(std::make_unique<svc_info_entry>(svc_info_entry{"first", "x", 1, "s"}));
    int failures = fail_each_allocation([&] { svc_info_list(list); },
                                        [&] {
                                            ASSERT_EQ(1u, list.size());
                                            EXPECT_EQ("first", list[0]->name);
                                        });
    EXPECT_GT(failures, 0);
    EXPECT_EQ(3u, list.size());
}

TEST_F(svc_info_oom_test, WriteBackKeepsOldFileAndLogs) {
    svc_info_add(LONG_NAME, make_info(LONG_IP, 1));
    write_file(REGISTRY_FILE_PATH, "old\n");
    debug_log_tail debug;
    fail_after(0);
    svc_info_write_back();
    stop_failing();
    EXPECT_EQ("old\n", read_file(REGISTRY_FILE_PATH));
    EXPECT_TRUE(debug.has_record("svc_info_map.cpp:svc_info_write_back(119) out of memory, "
                                 "/tmp/.manager_svc.inf not rewritten."));
}

}  // namespace
