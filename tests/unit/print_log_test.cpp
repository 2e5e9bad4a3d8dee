// print_log_test.cpp - the console log: the levels a verbose level shows,
// nothing added to the text, long messages cut at 2046 characters.
#include "common/print_log.h"

#include <gtest/gtest.h>

namespace {

TEST(PrintLog, ShowsLevelsUpToTheVerboseLevelAndCutsLongMessages) {
    const std::string longest(PRINT_LOG_MAX_CHARS, 'x');
    const std::tuple<int, unsigned, std::string, std::string> cases[] = {
        {0, ERR, "line", "line"},   {0, WARN, "line", ""},      {1, WARN, "line", "line"},
        {1, DEBUG, "line", ""},     {2, DEBUG, "line", "line"}, {2, 3, "line", ""},
        {-1, ERR, "line", ""},      {0, ERR, longest + "yz", longest}, {0, ERR, longest, longest},
    };
    for (const auto& [verbose, level, message, shown] : cases) {
        verbose_level = verbose;
        testing::internal::CaptureStderr();
        print_log(level, "%s", message.c_str());
        EXPECT_EQ(shown, testing::internal::GetCapturedStderr()) << level;
    }
    verbose_level = 0;
}

}  // namespace
