// svc_info_file_test.cpp - the registry file: loading the awkward files of
// tests/fixtures/registry at start-up, the lines the load logs, and the
// lines the write-back writes.
#include <climits>
#include <vector>

#include "registry_test_support.h"

namespace {

const std::string FIXTURES = std::string(FIXTURE_DIR) + "/registry/";

using svc_info_file_test = registry_test;

// Loads the fixture as the registry file and returns the registry.
std::string restore_fixture(const char* fixture) {
    write_file(REGISTRY_FILE_PATH, read_file(FIXTURES + fixture));
    svc_info_init();
    return registry_as_file_text();
}

// The "format error" records of the debug log, each as its bracketed line.
std::vector<std::string> format_errors(const std::string& debug_text) {
    const std::string head = "]: svc_info_restore str_readline=[";
    const std::string tail = "] format error.\n";
    std::vector<std::string> lines;
    for (std::size_t at = debug_text.find(head); at != std::string::npos;
         at = debug_text.find(head, at + 1)) {
        std::size_t start = at + head.size();
        lines.push_back(debug_text.substr(start, debug_text.find(tail, start) - start));
    }
    return lines;
}

struct restore_case {
    const char* fixture;
    std::string registry;                 // "name,ip,port\n" per loaded entry
    std::vector<std::string> bad_lines;   // lines that gave "format error"
};

const std::string NAME_126 = std::string(126 - 12, 'n');

const restore_case RESTORE_CASES[] = {
    {"empty.inf", "", {}},
    {"single_line.inf", "a,10.0.0.2,80\n", {}},
    {"last_line_no_lf.inf", "a,10.0.0.2,80\n", {}},
    {"truncated_mid_line.inf", "a,10.0.0.2,80\n", {"b,10.0.0."}},
    {"empty_fields.inf", "a,10.0.0.2,80\nb,10.0.0.3,81\n", {}},
    {"too_few_fields.inf", "b,10.0.0.3,81\n", {"a,,80\n"}},
    {"too_many_fields.inf", "c,10.0.0.4,82\n", {"a,b,10.0.0.2,80\n"}},
    {"blank_lines.inf", "a,10.0.0.2,80\nb,10.0.0.3,81\n", {"\n", "\n", "\n"}},
    {"port_not_number.inf",
     "a,10.0.0.2,0\nb,10.0.0.3,80\nc,10.0.0.4,81\nd,10.0.0.5,-7\ne,10.0.0.6," +
         std::to_string(INT_MAX) + "\n",
     {}},
    {"carriage_returns.inf", "a,10.0.0.2,80\nb,10.0.0.3\r,81\n", {}},
    {"fields_by_position.inf", "a,80,10\n", {}},
    {"repeated_names.inf", "a,10.0.0.9,90\nb,10.0.0.3,81\n", {}},
    {"line_126_chars.inf", NAME_126 + ",10.0.0.2,80\nz,10.0.0.4,82\n", {"\n"}},
    {"line_131_chars.inf", "z,10.0.0.4,82\n",
     {std::string(120, 'L') + ",1.2.3", ".4,56\n"}},
    {"line_300_chars.inf", "z,10.0.0.4,82\n",
     {std::string(126, 'x'), std::string(126, 'x'), std::string(48, 'x') + "\n"}},
    {"binary_junk.inf", "a,10.0.0.2,80\nc,10.0.0.4,82\n\xfe\xfd,\x01ip,7\n", {"", "b,1"}},
};

TEST_F(svc_info_file_test, RestoreLoadsGoodLinesAndReportsBadOnes) {
    for (const restore_case& row : RESTORE_CASES) {
        SCOPED_TRACE(row.fixture);
        reset();
        debug_log_tail debug;
        EXPECT_EQ(row.registry, restore_fixture(row.fixture));
        EXPECT_EQ(row.bad_lines, format_errors(debug.text()));
    }
}

TEST_F(svc_info_file_test, RestoredRecordsAreOffLine) {
    restore_fixture("single_line.inf");
    svc_info out;
    out.health_status = "caller";
    ASSERT_EQ(SVC_INFO_OK, svc_info_get("a", out));
    EXPECT_EQ(SVC_INFO_OFF_LINE, out.health_status);
}

TEST_F(svc_info_file_test, RestoreLogsEveryLineAndItsFields) {
    console_capture console(DEBUG);
    restore_fixture("carriage_returns.inf");
    EXPECT_EQ("svc_info_map.cpp:svc_info_init(129)\n"
              "svc_info_map.cpp:svc_info_restore(64)\n"
              "svc_info_restore() [/tmp/.manager_svc.inf] exists, do service_info_map restore.\n"
              "svc_info_map.cpp:svc_info_restore(74) str_readline=[a,10.0.0.2,80\r\n]\n"
              "    name=[a], ip=[10.0.0.2], port=[80\r]\n"
              "svc_info_map.cpp:svc_info_restore(74) str_readline=[b,10.0.0.3\r,81\r\n]\n"
              "    name=[b], ip=[10.0.0.3\r], port=[81\r]\n",
              console.text());
}

TEST_F(svc_info_file_test, EmptyFileLogsOnlyLocationAndExistsLines) {
    debug_log_tail debug;
    console_capture console(DEBUG);
    restore_fixture("empty.inf");
    EXPECT_EQ("svc_info_map.cpp:svc_info_init(129)\n"
              "svc_info_map.cpp:svc_info_restore(64)\n"
              "svc_info_restore() [/tmp/.manager_svc.inf] exists, do service_info_map restore.\n",
              console.text());
    EXPECT_EQ("", debug.text());
}

TEST_F(svc_info_file_test, MissingFileWarnsAndLeavesRegistryEmpty) {
    console_capture console(WARN);
    svc_info_init();
    EXPECT_EQ("svc_info_map.cpp:svc_info_restore(97) /tmp/.manager_svc.inf does not exist.\n",
              console.text());
    EXPECT_EQ("", registry_as_file_text());
    svc_info_uninit();
    EXPECT_TRUE(path_exists(REGISTRY_FILE_PATH));
    EXPECT_EQ("", read_file(REGISTRY_FILE_PATH));
}

TEST_F(svc_info_file_test, WriteBackLogsEachLineAndRestartRestoresIt) {
    svc_info_add("svcB", make_info("10.0.0.2", -1));
    svc_info_add("svcA", make_info("127.0.0.1", 80));
    console_capture console(DEBUG);
    svc_info_write_back();
    EXPECT_EQ("svc_info_map.cpp:svc_info_write_back(103)\n"
              "svc_info_map.cpp:svc_info_write_back(108)\n"
              "svc_info_map.cpp:svc_info_write_back(116) svcA,127.0.0.1,80\n"
              "svc_info_map.cpp:svc_info_write_back(116) svcB,10.0.0.2,-1\n",
              console.text());
    const std::string written = read_file(REGISTRY_FILE_PATH);
    EXPECT_EQ("svcA,127.0.0.1,80\nsvcB,10.0.0.2,-1\n", written);
    svc_info_destroy();
    svc_info_init();
    EXPECT_EQ(written, registry_as_file_text());
}

TEST_F(svc_info_file_test, WrittenLinesAreCutAt126Characters) {
    const std::string name(200, 'q');
    svc_info_add(name, make_info("10.0.0.1", 80));
    svc_info_add("short", make_info(std::string(130, '1'), 8));
    EXPECT_EQ(std::string(126, 'q') + "\nshort," + std::string(120, '1') + "\n",
              read_file(REGISTRY_FILE_PATH));
}

}  // namespace
