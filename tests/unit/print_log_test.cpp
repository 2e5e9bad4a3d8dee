// The console log: level filtering and the cut of long messages.
#include "common/print_log.h"

#include <gtest/gtest.h>

#include <string>

#include "main/settings.h"
#include "stderr_capture.h"

namespace {

class PrintLogTest : public ::testing::Test {
protected:
    void TearDown() override { verbose_level = 0; }
};

std::string logged(int verbose, unsigned level, const char* message) {
    verbose_level = verbose;
    stderr_capture capture;
    print_log(level, "%s", message);
    return capture.text();
}

TEST_F(PrintLogTest, ShowsALevelOnlyUpToTheVerboseLevel) {
    struct level_case {
        int verbose;
        unsigned level;
        bool shown;
    };
    const level_case cases[] = {
        {0, ERR, true},  {0, WARN, false}, {0, DEBUG, false}, {0, 3, false},
        {1, ERR, true},  {1, WARN, true},  {1, DEBUG, false}, {1, 3, false},
        {2, ERR, true},  {2, WARN, true},  {2, DEBUG, true},  {2, 3, false},
        {9, 3, false},   {-1, ERR, false},
    };
    for (const level_case& one : cases) {
        std::string text = logged(one.verbose, one.level, "line\n");
        EXPECT_EQ(text, one.shown ? "line\n" : "")
            << "verbose " << one.verbose << " level " << one.level;
    }
}

TEST_F(PrintLogTest, AddsNothingToTheText) {
    verbose_level = 0;
    stderr_capture capture;
    print_log(ERR, "%s:%d", "no newline", 7);
    EXPECT_EQ(capture.text(), "no newline:7");
}

TEST_F(PrintLogTest, CutsALongMessageAt2046Characters) {
    const std::string long_message = std::string(3000, 'x') + "\n";
    EXPECT_EQ(logged(0, ERR, long_message.c_str()), std::string(PRINT_LOG_MAX_CHARS, 'x'));
    const std::string fits = std::string(PRINT_LOG_MAX_CHARS - 1, 'y') + "\n";
    EXPECT_EQ(logged(0, ERR, fits.c_str()), fits);
}

// A filtered call must not format: an argument that would fault when
// formatted goes through untouched.
TEST_F(PrintLogTest, FilteredCallDoesNotFormatItsArguments) {
    verbose_level = 0;
    const char* unreadable = reinterpret_cast<const char*>(1);
    stderr_capture capture;
    print_log(DEBUG, "%s\n", unreadable);
    print_log(3, "%s\n", unreadable);
    EXPECT_EQ(capture.text(), "");
}

}  // namespace
