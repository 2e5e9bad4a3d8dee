// svc_info_map_test.cpp - the registry's operations: result codes, log
// lines, name order, updates in place, listing, teardown, and many threads
// changing the registry at once.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <thread>
#include <vector>

#include "registry_test_support.h"

namespace {

using svc_info_map_test = registry_test;

TEST_F(svc_info_map_test, AddStoresRecordLogsAndWritesFile) {
    debug_log_tail debug;
    console_capture console(WARN);
    EXPECT_EQ(SVC_INFO_OK, svc_info_add("svcA", make_info("127.0.0.1", 80)));
    EXPECT_EQ("    ADD : [svcA]=[127.0.0.1:80]\n", console.text());
    EXPECT_TRUE(debug.has_record("ADD : [svcA]=[127.0.0.1:80]"));
    EXPECT_EQ("svcA,127.0.0.1,80\n", read_file(REGISTRY_FILE_PATH));

    svc_info out;
    EXPECT_EQ(SVC_INFO_OK, svc_info_get("svcA", out));
    EXPECT_EQ("127.0.0.1", out.ip);
    EXPECT_EQ(80, out.port);
    EXPECT_EQ(SVC_INFO_OFF_LINE, out.health_status);
}

TEST_F(svc_info_map_test, EmptyNameIsRefusedByEveryOperation) {
    svc_info untouched = make_info("keep", 7);
    untouched.health_status = "mine";
    const std::vector<std::pair<const char*, std::function<int()>>> operations = {
        {"add", [] { return svc_info_add("", make_info("1.2.3.4", 1)); }},
        {"get", [&] { return svc_info_get("", untouched); }},
        {"delete", [] { return svc_info_delete(""); }},
    };
    for (const auto& operation : operations) {
        SCOPED_TRACE(operation.first);
        debug_log_tail debug;
        EXPECT_EQ(SVC_INFO_EMPTY_NAME, operation.second());
        EXPECT_TRUE(debug.has_record("param_name invalid : "));
    }
    EXPECT_EQ("keep", untouched.ip);
    EXPECT_EQ(7, untouched.port);
    EXPECT_EQ("mine", untouched.health_status);
    EXPECT_FALSE(path_exists(REGISTRY_FILE_PATH));
}

TEST_F(svc_info_map_test, GetUnknownNameLeavesRecordAndLogsBothSinks) {
    svc_info_add("svcA", make_info("127.0.0.1", 80));
    svc_info out = make_info("caller", 5);
    out.health_status = "caller-status";
    debug_log_tail debug;
    console_capture console(WARN);
    EXPECT_EQ(SVC_INFO_NO_SUCH_NAME, svc_info_get("svcB", out));
    EXPECT_EQ("get info failed : svcB\n", console.text());
    EXPECT_TRUE(debug.has_record("get info failed : svcB"));
    EXPECT_EQ("caller", out.ip);
    EXPECT_EQ(5, out.port);
    EXPECT_EQ("caller-status", out.health_status);
}

TEST_F(svc_info_map_test, DeleteUnknownNameLogsConsoleOnlyAndKeepsFile) {
    svc_info_add("svcA", make_info("127.0.0.1", 80));
    write_file(REGISTRY_FILE_PATH, "untouched\n");
    debug_log_tail debug;
    console_capture console(WARN);
    EXPECT_EQ(SVC_INFO_NO_SUCH_NAME, svc_info_delete("svcB"));
    EXPECT_EQ("can not find, delete failed : svcB\n", console.text());
    EXPECT_EQ("", debug.text());
    EXPECT_EQ("untouched\n", read_file(REGISTRY_FILE_PATH));
}

TEST_F(svc_info_map_test, IdenticalAddChangesNeitherRecordNorFile) {
    svc_info_add("svcA", make_info("127.0.0.1", 80));
    write_file(REGISTRY_FILE_PATH, "untouched\n");
    svc_info same = make_info("127.0.0.1", 80);
    same.health_status = "on-line";
    console_capture console(WARN);
    EXPECT_EQ(SVC_INFO_OK, svc_info_add("svcA", same));
    EXPECT_EQ("Already exists, check content : svcA\n    Identical content, do nothing\n",
              console.text());
    EXPECT_EQ("untouched\n", read_file(REGISTRY_FILE_PATH));
    svc_info out;
    svc_info_get("svcA", out);
    EXPECT_EQ(SVC_INFO_OFF_LINE, out.health_status);
}

struct update_case {
    const char* what;
    const char* ip;
    int port;
};

TEST_F(svc_info_map_test, DifferentIpOrPortUpdatesRecordAndFile) {
    const update_case cases[] = {
        {"other port", "10.0.0.1", 81},
        {"other ip", "10.0.0.2", 80},
        {"ip differing only in its text", "10.0.0.01", 80},
    };
    for (const update_case& change : cases) {
        SCOPED_TRACE(change.what);
        reset();
        svc_info_add("svcA", make_info("10.0.0.1", 80));
        svc_info_entry_list before;
        svc_info_list(before);
        svc_info fresh = make_info(change.ip, change.port);
        fresh.health_status = "new-status";
        std::string update_text = "UPDATE : [svcA]=[10.0.0.1:80]->[" +
                                  std::string(change.ip) + ":" + std::to_string(change.port) + "]";
        debug_log_tail debug;
        console_capture console(WARN);
        EXPECT_EQ(SVC_INFO_OK, svc_info_add("svcA", fresh));
        EXPECT_EQ("Already exists, check content : svcA\n    " + update_text + "\n",
                  console.text());
        EXPECT_TRUE(debug.has_record(update_text));
        svc_info out;
        svc_info_get("svcA", out);
        EXPECT_EQ(change.ip, out.ip);
        EXPECT_EQ(change.port, out.port);
        EXPECT_EQ("new-status", out.health_status);
        EXPECT_EQ("svcA," + std::string(change.ip) + "," + std::to_string(change.port) + "\n",
                  read_file(REGISTRY_FILE_PATH));
        EXPECT_EQ("10.0.0.1", before.at(0)->ip) << "a listed copy followed the registry";
    }
}

TEST_F(svc_info_map_test, NamesOrderedAsUnsignedBytesShorterPrefixFirst) {
    const char* high_byte_name = "\xC3\xA9t\xC3\xA9";
    for (const char* name : {"abc", high_byte_name, "z", "B", "ab", "a"}) {
        svc_info_add(name, make_info("10.0.0.1", 1));
    }
    svc_info_entry_list list;
    svc_info_list(list);
    std::vector<std::string> names;
    for (const auto& entry : list) {
        names.push_back(entry->name);
    }
    EXPECT_EQ((std::vector<std::string>{"B", "a", "ab", "abc", "z", high_byte_name}), names);
    EXPECT_EQ("B,10.0.0.1,1\na,10.0.0.1,1\nab,10.0.0.1,1\nabc,10.0.0.1,1\nz,10.0.0.1,1\n" +
                  std::string(high_byte_name) + ",10.0.0.1,1\n",
              read_file(REGISTRY_FILE_PATH));
}

TEST_F(svc_info_map_test, ListAppendsBehindExistingEntriesAndFreeEmpties) {
    svc_info_entry_list list;
    svc_info_list(list);
    EXPECT_TRUE(list.empty());
    list.push_back(std::make_unique<svc_info_entry>(svc_info_entry{"first", "x", 1, "s"}));
    svc_info_add("b", make_info("10.0.0.2", 2));
    svc_info_add("a", make_info("10.0.0.1", 1));
    svc_info_list(list);
    ASSERT_EQ(3u, list.size());
    EXPECT_EQ("first", list[0]->name);
    EXPECT_EQ("a", list[1]->name);
    EXPECT_EQ("10.0.0.1", list[1]->ip);
    EXPECT_EQ(1, list[1]->port);
    EXPECT_EQ(SVC_INFO_OFF_LINE, list[1]->health_status);
    EXPECT_EQ("b", list[2]->name);
    svc_info_list_free(list);
    EXPECT_TRUE(list.empty());
}

TEST_F(svc_info_map_test, DeletingLastEntryLeavesZeroByteFile) {
    svc_info_add("svcA", make_info("127.0.0.1", 80));
    console_capture console(DEBUG);
    EXPECT_EQ(SVC_INFO_OK, svc_info_delete("svcA"));
    EXPECT_EQ("find, do delete : svcA\n"
              "svc_info_map.cpp:svc_info_write_back(103)\n"
              "svc_info_map.cpp:svc_info_write_back(108)\n",
              console.text());
    EXPECT_TRUE(path_exists(REGISTRY_FILE_PATH));
    EXPECT_EQ("", read_file(REGISTRY_FILE_PATH));
    svc_info out;
    EXPECT_EQ(SVC_INFO_NO_SUCH_NAME, svc_info_get("svcA", out));
}

TEST_F(svc_info_map_test, UninitWritesFileThenReleasesEveryRecord) {
    svc_info_add("b", make_info("10.0.0.2", 2));
    svc_info_add("a", make_info("10.0.0.1", 1));
    std::remove(REGISTRY_FILE_PATH);
    console_capture console(DEBUG);
    svc_info_uninit();
    std::string text = console.text();
    const char* expected_in_order[] = {
        "svc_info_map.cpp:svc_info_uninit(136)\n",
        "svc_info_map.cpp:svc_info_write_back(116) a,10.0.0.1,1\n",
        "svc_info_map.cpp:svc_info_write_back(116) b,10.0.0.2,2\n",
        "svc_info_map.cpp:svc_info_destroy(45)\n",
        "svc_info_map.cpp:svc_info_destroy(52) delete(0x",
        "svc_info_map.cpp:svc_info_destroy(52) delete(0x",
    };
    std::size_t position = 0;
    for (const char* line : expected_in_order) {
        position = text.find(line, position);
        ASSERT_NE(std::string::npos, position) << line << "\nin\n" << text;
        position++;
    }
    EXPECT_EQ("a,10.0.0.1,1\nb,10.0.0.2,2\n", read_file(REGISTRY_FILE_PATH));
    EXPECT_EQ("", registry_as_file_text());
}

// Several threads add, update and delete names of their own and names they
// share; afterwards the file must be exactly the registry, line by line.
TEST_F(svc_info_map_test, ConcurrentChangesLeaveFileEqualToRegistry) {
    constexpr int threads = 6;
    constexpr int rounds = 150;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++) {
        workers.emplace_back([t] {
            svc_info out;
            for (int i = 0; i < rounds; i++) {
                std::string own = "own" + std::to_string(t) + "_" + std::to_string(i % 10);
                std::string shared = "shared" + std::to_string(i % 4);
                svc_info_add(own, make_info("10.0." + std::to_string(t) + ".1", i));
                svc_info_add(shared, make_info("10.1.0." + std::to_string(t), i));
                svc_info_get(shared, out);
                if (i % 3 == 0) {
                    svc_info_delete(own);
                    svc_info_delete(shared);
                }
                svc_info_entry_list list;
                svc_info_list(list);
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    std::string registry = registry_as_file_text();
    EXPECT_NE("", registry);
    EXPECT_EQ(registry, read_file(REGISTRY_FILE_PATH));
}

// Write-backs of snapshots of very different sizes overlap; after each
// round the file must hold one whole snapshot, never the tail of a longer
// one behind a shorter one.
TEST_F(svc_info_map_test, OverlappingWriteBacksNeverMix) {
    const std::string long_ip(100, '9');
    for (int round = 0; round < 200; round++) {
        std::vector<std::thread> writers;
        for (int t = 0; t < 4; t++) {
            writers.emplace_back([&long_ip, t, round] {
                std::string name = "svc" + std::to_string(t);
                if ((round + t) % 2 == 0) {
                    svc_info_add(name, make_info(long_ip, round));
                } else {
                    svc_info_delete(name);
                }
            });
        }
        for (auto& writer : writers) {
            writer.join();
        }
        ASSERT_EQ(registry_as_file_text(), read_file(REGISTRY_FILE_PATH)) << "round " << round;
    }
}

}  // namespace
