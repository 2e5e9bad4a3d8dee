// The crash handler: one record in the debug log, then death by the very
// signal (default action re-raised). Runs in the sandbox, so the fixed
// debug-log path is a scratch file.
#include "platform/diagnosis.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "common/device_paths.h"

namespace {

std::string debug_log_text() {
    std::ifstream file(DEBUG_LOG_PATH);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

int count_of(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class DiagnosisDeathTest : public ::testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        diagnosis_set_crash_log(DEBUG_LOG_PATH);
    }
};

void install_and_raise(int sig) {
    diagnosis_com_install_siganl_handler(sig, "crash_prog", nullptr);
    raise(sig);
}

// Runs off the stack long before the (unknown to the compiler) bound.
volatile int recursion_bound = 1 << 30;

__attribute__((noinline)) int recurse_until_overflow(int depth) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    if (depth >= recursion_bound) {
        return frame[0];
    }
    return recurse_until_overflow(depth + 1) + frame[0];
}

struct crash_case {
    int sig;
    const char* record_head;
    void (*crash)();
};

TEST_F(DiagnosisDeathTest, WritesOneRecordAndDiesByTheSignal) {
    const crash_case cases[] = {
        {SIGSEGV, "crash_prog[", [] { install_and_raise(SIGSEGV); }},
        {SIGABRT, "crash_prog[", [] {
             diagnosis_com_install_siganl_handler(SIGABRT, "crash_prog", nullptr);
             abort();
         }},
        {SIGTRAP, "crash_prog[", [] { install_and_raise(SIGTRAP); }},
        {SIGSEGV, "stack_prog[", [] {
             diagnosis_com_install_siganl_handler(SIGSEGV, "stack_prog", nullptr);
             recurse_until_overflow(0);
         }},
    };
    for (const crash_case& one : cases) {
        const std::string signal_part = "]: crash: signal " + std::to_string(one.sig) + " (";
        const int before = count_of(debug_log_text(), signal_part);
        EXPECT_EXIT(one.crash(), ::testing::KilledBySignal(one.sig), "");
        const std::string text = debug_log_text();
        EXPECT_EQ(count_of(text, signal_part), before + 1) << text;
        EXPECT_NE(text.find(one.record_head), std::string::npos) << text;
        EXPECT_NE(text.find("), backtrace:\n"), std::string::npos);
    }
    const std::string text = debug_log_text();
    EXPECT_NE(text.find(" (SIGSEGV), backtrace:\n"), std::string::npos);
    EXPECT_NE(text.find(" (SIGABRT), backtrace:\n"), std::string::npos);
    EXPECT_NE(text.find(" (SIGTRAP), backtrace:\n"), std::string::npos);
}

TEST_F(DiagnosisDeathTest, RecordCarriesABacktrace) {
    const int before_lines = count_of(debug_log_text(), "\n");
    EXPECT_EXIT(install_and_raise(SIGSEGV), ::testing::KilledBySignal(SIGSEGV), "");
    EXPECT_GT(count_of(debug_log_text(), "\n"), before_lines + 2);
}

volatile sig_atomic_t caught_signal = 0;

TEST(DiagnosisTest, InstallsTheCallersOwnHandler) {
    ASSERT_EQ(diagnosis_com_install_siganl_handler(
                  SIGUSR1, "own_prog", [](int sig) { caught_signal = sig; }),
              0);
    const std::string before = debug_log_text();
    raise(SIGUSR1);
    EXPECT_EQ(caught_signal, SIGUSR1);
    EXPECT_EQ(debug_log_text(), before);
    signal(SIGUSR1, SIG_DFL);
}

TEST(DiagnosisTest, RefusesASignalThatCannotBeCaught) {
    EXPECT_EQ(diagnosis_com_install_siganl_handler(SIGKILL, "prog", nullptr), -1);
    EXPECT_EQ(diagnosis_com_install_siganl_handler(0, "prog", nullptr), -1);
}

}  // namespace
