// svc_info_file_test.cpp - the registry file: loading the awkward files of
// tests/fixtures/registry at start-up, the lines the load logs, the lines
// the write-back writes and how it writes them (one write(2), seen through
// an interposed write), and what it does with a path it must not write
// through or a file system with no room left.
// The test binary runs in its own mount namespace (the sandbox), so it may
// mount a small tmpfs over /tmp.
#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <vector>

#include "registry/file_rewrite.h"
#include "registry_test_support.h"

namespace {

// While armed, write(2) calls on the registry file are recorded, and the
// system may be made to take fewer bytes per call or to fail with ENOSPC.
// Only the test's own thread writes the registry file while armed.
struct registry_write_watch {
    bool armed = false;
    std::size_t bytes_per_call = SIZE_MAX;
    std::size_t calls_before_full = SIZE_MAX;
    std::vector<std::size_t> asked;  // the size of each write asked for
    std::string first;               // the bytes of the first write
};
registry_write_watch watch;

bool is_registry_file(int fd) {
    struct stat open_file;
    struct stat named;
    return fstat(fd, &open_file) == 0 && stat(REGISTRY_FILE_PATH, &named) == 0 &&
           open_file.st_dev == named.st_dev && open_file.st_ino == named.st_ino;
}

}  // namespace

// Every write(2) of this binary, the module under test's included, comes
// here; all but the watched ones go straight to the system.
extern "C" ssize_t write(int fd, const void* data, size_t size) {
    if (watch.armed && is_registry_file(fd)) {
        watch.asked.push_back(size);
        if (watch.asked.size() == 1) {
            watch.first.assign(static_cast<const char*>(data), size);
        }
        if (watch.asked.size() > watch.calls_before_full) {
            errno = ENOSPC;
            return -1;
        }
        size = std::min(size, watch.bytes_per_call);
    }
    return syscall(SYS_write, fd, data, size);
}

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

// Registers `count` services of `line_length` characters per file line
// ("sNNNN,111...1,1"); returns the registry file's text.
std::string register_lines(int count, std::size_t line_length) {
    const std::string ip(line_length - 8, '1');
    for (int index = 0; index < count; index++) {
        char name[8];
        snprintf(name, sizeof name, "s%04d", index);
        svc_info_add(name, make_info(ip, 1));
    }
    return registry_as_file_text();
}

struct write_case {
    const char* what;
    std::size_t old_size;             // bytes in the file before
    std::size_t bytes_per_call;
    std::size_t calls_before_full;
    std::vector<std::size_t> asked;   // the writes asked for
    std::size_t kept;                 // bytes of the new content in the file
    const char* logged;               // debug-log record, or empty
};

// 100 lines of 100 characters and their line feeds: 10100 bytes.
const std::size_t LONG_OLD = 10100 + FILE_REWRITE_MAX_PADDING + 1;
const write_case WRITE_CASES[] = {
    {"the system takes it all", 4, SIZE_MAX, SIZE_MAX, {10100}, 10100, ""},
    {"a far longer one is truncated", LONG_OLD, SIZE_MAX, SIZE_MAX, {10100}, 10100, ""},
    {"short writes go on", 4, 4000, SIZE_MAX, {10100, 6100, 2100}, 10100, ""},
    {"disk full mid-write", 4, 4000, 1, {10100, 6100}, 39 * 101,
     "svc_info_map.cpp:svc_info_write_back(121) 3939 of 10100 bytes kept in "
     "/tmp/.manager_svc.inf, cut at a line end."},
};

TEST_F(svc_info_file_test, WriteBackWritesEverythingInOneWriteAndNeverHalfALine) {
    for (const write_case& row : WRITE_CASES) {
        SCOPED_TRACE(row.what);
        reset();
        const std::string content = register_lines(100, 100);
        write_file(REGISTRY_FILE_PATH, std::string(row.old_size - 1, 'o') + "\n");
        debug_log_tail debug;
        watch = registry_write_watch{true, row.bytes_per_call, row.calls_before_full, {}, {}};
        svc_info_write_back();
        watch.armed = false;
        EXPECT_EQ(row.asked, watch.asked);
        EXPECT_EQ(content.substr(0, row.kept), read_file(REGISTRY_FILE_PATH));
        if (*row.logged != '\0') {
            EXPECT_TRUE(debug.has_record("svc_info_map.cpp:svc_info_write_back(123) write(" +
                                         std::string(REGISTRY_FILE_PATH) + ") error(" +
                                         std::to_string(ENOSPC) + ")."));
            EXPECT_TRUE(debug.has_record(row.logged));
        }
    }
}

// A longer old file is covered by padding in the same write, then cut to
// length. A crash between the two leaves the new content and its padding,
// which loads as the new content.
TEST_F(svc_info_file_test, LongerOldFileIsPaddedOverAndPaddingLoadsAsNothing) {
    const std::string content = register_lines(100, 100);
    write_file(REGISTRY_FILE_PATH, std::string(12000, 'o'));
    watch = registry_write_watch{true, SIZE_MAX, SIZE_MAX, {}, {}};
    svc_info_write_back();
    watch.armed = false;
    ASSERT_EQ(std::vector<std::size_t>{12000}, watch.asked);
    EXPECT_EQ(content, read_file(REGISTRY_FILE_PATH));
    write_file(REGISTRY_FILE_PATH, watch.first);
    svc_info_destroy();
    svc_info_init();
    EXPECT_EQ(content, registry_as_file_text());
}

// What stands at the registry path instead of a file: a directory, a FIFO
// nobody reads (which must not block the write-back), or a symlink to
// PLANTED_TARGET holding `target` (none when null); and the error the open
// that would rewrite it fails with.
enum class planted_kind { directory, fifo, symlink };

struct planted_case {
    const char* what;
    planted_kind kind;
    const char* target;
    int error;
};

const char PLANTED_TARGET[] = "/tmp/planted_target";

const planted_case PLANTED_CASES[] = {
    {"directory", planted_kind::directory, nullptr, EISDIR},
    {"FIFO", planted_kind::fifo, nullptr, ENXIO},
    {"symlink to a file", planted_kind::symlink, "precious\n", ELOOP},
    {"dangling symlink", planted_kind::symlink, nullptr, ELOOP},
};

void plant(const planted_case& row) {
    if (row.kind == planted_kind::directory) {
        mkdir(REGISTRY_FILE_PATH, 0755);
    } else if (row.kind == planted_kind::fifo) {
        mkfifo(REGISTRY_FILE_PATH, 0644);
    } else {
        if (row.target != nullptr) {
            write_file(PLANTED_TARGET, row.target);
        }
        symlink(PLANTED_TARGET, REGISTRY_FILE_PATH);
    }
}

// The planted thing is left alone (a symlink's target neither written nor
// created), the registry keeps every change, and the first change after it
// is gone writes the whole registry.
TEST_F(svc_info_file_test, PlantedPathIsLeftAloneAndNextChangeWritesAll) {
    for (const planted_case& row : PLANTED_CASES) {
        SCOPED_TRACE(row.what);
        reset();
        std::remove(PLANTED_TARGET);
        plant(row);
        debug_log_tail debug;
        EXPECT_EQ(SVC_INFO_OK, svc_info_add("a", make_info("10.0.0.1", 1)));
        EXPECT_TRUE(debug.has_record("svc_info_map.cpp:svc_info_write_back(123) fopen(" +
                                     std::string(REGISTRY_FILE_PATH) + ") error(" +
                                     std::to_string(row.error) + ")."));
        EXPECT_EQ(SVC_INFO_OK, svc_info_delete("a"));
        EXPECT_EQ(SVC_INFO_OK, svc_info_add("b", make_info("10.0.0.2", 2)));
        EXPECT_EQ("b,10.0.0.2,2\n", registry_as_file_text());
        EXPECT_EQ(row.target != nullptr, path_exists(PLANTED_TARGET));
        EXPECT_EQ(row.target != nullptr ? row.target : "", read_file(PLANTED_TARGET));

        ASSERT_EQ(0, row.kind == planted_kind::directory ? rmdir(REGISTRY_FILE_PATH)
                                                        : unlink(REGISTRY_FILE_PATH));
        EXPECT_EQ(SVC_INFO_OK, svc_info_add("c", make_info("10.0.0.3", 3)));
        EXPECT_EQ("b,10.0.0.2,2\nc,10.0.0.3,3\n", read_file(REGISTRY_FILE_PATH));
    }
    std::remove(PLANTED_TARGET);
}

std::string mount_namespace(const char* process) {
    char link[64] = "";
    std::string path = std::string("/proc/") + process + "/ns/mnt";
    return readlink(path.c_str(), link, sizeof link - 1) > 0 ? link : "";
}

// A tmpfs of four pages over /tmp while it lives; mounted only in a mount
// namespace of the test's own (the sandbox's), never over the host's /tmp.
class small_tmp {
public:
    small_tmp() {
        own_namespace_ = mount_namespace("self") != mount_namespace("1");
        mounted_ = own_namespace_ && mount("tmpfs", "/tmp", "tmpfs", 0, "size=16k") == 0;
    }
    ~small_tmp() {
        if (mounted_) {
            umount2("/tmp", MNT_DETACH);
        }
    }
    bool own_namespace() const { return own_namespace_; }
    bool mounted() const { return mounted_; }

private:
    bool own_namespace_;
    bool mounted_;
};

// Fills the file system of `path` up to its last byte.
void fill_up(const char* path) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::string block(512, 'f');
    while (syscall(SYS_write, fd, block.data(), block.size()) > 0) {
    }
    close(fd);
}

TEST_F(svc_info_file_test, FullFileSystemKeepsOldFileWholeAndItLoadsBack) {
    small_tmp tmp;
    ASSERT_TRUE(tmp.own_namespace()) << "run through tests/sandbox/sandbox_run.sh";
    ASSERT_TRUE(tmp.mounted()) << strerror(errno);
    const std::string one_page = register_lines(40, 100);  // 4040 bytes
    ASSERT_EQ(one_page, read_file(REGISTRY_FILE_PATH));
    fill_up("/tmp/filler");
    debug_log_tail debug;
    EXPECT_EQ(SVC_INFO_OK, svc_info_add("s0040", make_info(std::string(92, '1'), 1)));
    EXPECT_TRUE(debug.has_record("svc_info_map.cpp:svc_info_write_back(120) no space for "
                                 "4141 bytes in /tmp/.manager_svc.inf, old content kept."));
    EXPECT_EQ(one_page, read_file(REGISTRY_FILE_PATH));
    svc_info_destroy();
    svc_info_init();
    EXPECT_EQ(one_page, registry_as_file_text());
}

}  // namespace
