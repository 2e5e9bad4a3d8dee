// The debug-log library: one record per call, directories made on demand,
// rotation to "<path>.1", and whole records when many threads log at once.
#include "platform/dlog.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "posix_regex.h"

namespace {

constexpr int BIG_LIMIT = 1 << 20;

class DlogTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/dlog_test.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        path_ = dir_ + "/a/b/debug.log";
    }
    std::string dir_;
    std::string path_;
};

std::vector<std::string> lines_of(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string contents_of(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// "<date> <time>.<ms> <program>[<pid>]: " before every message.
const char RECORD[] =
    "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
    "dlog_test\\[[0-9]+\\]: (.*)";

std::string message_of(const std::string& line) {
    std::vector<std::string> groups;
    return full_match(line, RECORD, &groups) ? groups[0] : "<malformed: " + line + ">";
}

TEST_F(DlogTest, AppendsOneRecordPerCallAndMakesTheDirectories) {
    EXPECT_EQ(log_File_Debug_s(path_.c_str(), BIG_LIMIT, "first %d", 1), 0);
    EXPECT_EQ(log_File_Debug_s(path_.c_str(), BIG_LIMIT, "%s", "second"), 0);
    std::vector<std::string> lines = lines_of(path_);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(message_of(lines[0]), "first 1");
    EXPECT_EQ(message_of(lines[1]), "second");
    EXPECT_EQ(contents_of(path_).back(), '\n');
}

TEST_F(DlogTest, LongMessageIsCutButStaysOneLine) {
    const std::string long_message(5000, 'm');
    EXPECT_EQ(log_File_Debug_s(path_.c_str(), BIG_LIMIT, "%s", long_message.c_str()), 0);
    std::string text = contents_of(path_);
    EXPECT_LE(text.size(), 2048u);
    EXPECT_EQ(lines_of(path_).size(), 1u);
    EXPECT_EQ(text.back(), '\n');
}

TEST_F(DlogTest, UnwritablePathReportsFailure) {
    const std::string blocked = dir_ + "/file";
    std::ofstream(blocked) << "x";
    EXPECT_EQ(log_File_Debug_s((blocked + "/debug.log").c_str(), BIG_LIMIT, "lost"), -1);
}

TEST_F(DlogTest, RotatesWhenTheNextRecordWouldPassTheLimit) {
    log_File_Debug_s(path_.c_str(), BIG_LIMIT, "record 1");
    const int record_size = static_cast<int>(contents_of(path_).size());
    const int limit = 2 * record_size + record_size / 2;
    log_File_Debug_s(path_.c_str(), limit, "record 2");
    log_File_Debug_s(path_.c_str(), limit, "record 3");

    std::vector<std::string> rotated = lines_of(path_ + ".1");
    std::vector<std::string> current = lines_of(path_);
    ASSERT_EQ(rotated.size(), 2u);
    EXPECT_EQ(message_of(rotated[0]), "record 1");
    EXPECT_EQ(message_of(rotated[1]), "record 2");
    ASSERT_EQ(current.size(), 1u);
    EXPECT_EQ(message_of(current[0]), "record 3");

    log_File_Debug_s(path_.c_str(), limit, "record 4");
    log_File_Debug_s(path_.c_str(), limit, "record 5");
    EXPECT_EQ(message_of(lines_of(path_ + ".1")[0]), "record 3");
    EXPECT_EQ(message_of(lines_of(path_)[0]), "record 5");
}

// Every record of every thread arrives whole, once, across the file and
// its one rotated copy (the limit lets it rotate exactly once).
TEST_F(DlogTest, ThreadsLoggingAtOnceLoseAndMixNothing) {
    constexpr int THREADS = 8;
    constexpr int RECORDS = 300;
    const std::string padding(40, '.');
    log_File_Debug_s(path_.c_str(), BIG_LIMIT, "thread 0 record 0 %s", padding.c_str());
    const int record_size = static_cast<int>(contents_of(path_).size());
    unlink(path_.c_str());
    const int limit = record_size * THREADS * RECORDS * 2 / 3;

    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int r = 0; r < RECORDS; ++r) {
                log_File_Debug_s(path_.c_str(), limit, "thread %d record %d %s", t, r,
                                 padding.c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::set<std::string> seen;
    for (const std::string& file : {path_ + ".1", path_}) {
        for (const std::string& line : lines_of(file)) {
            EXPECT_TRUE(seen.insert(message_of(line)).second) << line;
        }
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(THREADS * RECORDS));
    for (int t = 0; t < THREADS; ++t) {
        for (int r = 0; r < RECORDS; ++r) {
            std::string expected =
                "thread " + std::to_string(t) + " record " + std::to_string(r) + " " + padding;
            EXPECT_EQ(seen.count(expected), 1u) << expected;
        }
    }
}

}  // namespace
