// The device libraries' stand-ins and the server's parts: console log, debug log, crash handler, utility
// helpers, relay pool, request guard, request/response layer and resource table. Files go to a fresh
// working directory.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <gtest/gtest.h>
#include <microhttpd.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <future>
#include <new>
#include <regex>
#include <tuple>

#include "common/print_log.h"
#include "common/result_codes.h"
#include "endpoints/handler_guard.h"
#include "platform/common_http_resource.h"
#include "platform/diagnosis.h"
#include "platform/dlog.h"
#include "platform/relay_pool.h"
#include "platform/request_guard.h"
#include "platform/utils.h"
#include "tests/unit/unit_support.h"

// While not -1, the real-time clock reads this second (see clock_gettime below).
static volatile time_t fake_realtime = -1;
// While set, no thread can be made (see pthread_create below).
static std::atomic<bool> threads_refused{false};

// With 64-bit time on a 32-bit target the C library's call has another name.
#ifdef __USE_TIME64_REDIRECTS
constexpr char REAL_CLOCK_GETTIME[] = "__clock_gettime64";
#else
constexpr char REAL_CLOCK_GETTIME[] = "clock_gettime";
#endif

extern "C" int clock_gettime(clockid_t clock, struct timespec* now) {
    static const auto real = reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, REAL_CLOCK_GETTIME));
    if (clock != CLOCK_REALTIME || fake_realtime == -1) {
        return real(clock, now);
    }
    *now = {fake_realtime, 0};
    return 0;
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) {
    static const auto real = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return threads_refused ? EAGAIN : real(thread, attributes, start, argument);
}

namespace {

// Now in local time as "%F %T", from the precise clock as the logs read it:
// time() may still tell the previous second for a few ms after it passed.
std::string local_now() {
    timespec precise{};
    clock_gettime(CLOCK_REALTIME, &precise);
    struct tm parts;
    char text[32];
    strftime(text, sizeof text, "%F %T", localtime_r(&precise.tv_sec, &parts));
    return text;
}

class Platform : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char made[] = "/tmp/platform_test.XXXXXX";
        ASSERT_NE(mkdtemp(made), nullptr);
        ASSERT_EQ(chdir(made), 0);
        dir = made;
        diagnosis_set_crash_log("crash/crash.log");
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(dir); }
    static inline std::string dir;  // this suite's working directory
};
using PlatformDeathTest = Platform;

TEST_F(Platform, ConsoleLogShowsLevelsUpToTheVerboseLevelAndCutsLongMessages) {
    const std::string longest(PRINT_LOG_MAX_CHARS, 'x');
    const std::tuple<int, unsigned, std::string, std::string> cases[] = {
        {0, ERR, "line", "line"}, {0, WARN, "line", ""}, {2, DEBUG, "line", "line"}, {2, 3, "line", ""},
        {-1, ERR, "line", ""}, {0, ERR, longest + "yz", longest}, {0, ERR, longest, longest},
    };
    for (const auto& [verbose, level, message, shown] : cases) {
        verbose_level = verbose;
        testing::internal::CaptureStderr();
        print_log(level, "%s", message.c_str());
        EXPECT_EQ(shown, testing::internal::GetCapturedStderr()) << level;
    }
    verbose_level = 0;
}

TEST_F(Platform, DebugLogWritesStampedRecordsMakingItsDirectoriesAndRotates) {
    const std::string before = local_now();
    ASSERT_EQ(log_File_Debug_s("a/b/debug.log", 1 << 20, "first %d", 1), 0);
    const std::string after = local_now();
    const std::string text = contents_of("a/b/debug.log"), stamp = text.substr(0, before.size());
    EXPECT_TRUE(stamp == before || stamp == after) << text;
    const std::regex rest("\\.[0-9]{3} platform_test\\[" + std::to_string(getpid()) + "\\]: first 1\n");
    EXPECT_TRUE(std::regex_match(text.substr(stamp.size()), rest));
    ASSERT_EQ(close(creat("file", 0644)), 0);
    EXPECT_EQ(log_File_Debug_s("file/debug.log", 1 << 20, "lost"), -ENOTDIR);
    // The log rotates when the next record would pass the limit.
    log_File_Debug_s("debug.log", 1 << 20, "record 1");
    const int record = static_cast<int>(contents_of("debug.log").size());
    log_File_Debug_s("debug.log", 2 * record, "record 2");  // fills the limit exactly
    log_File_Debug_s("debug.log", 2 * record, "record 3");
    EXPECT_EQ(contents_of("debug.log.1").find("record 2\n"), 2 * record - 9u);
    EXPECT_EQ(contents_of("debug.log").find("record 3\n"), record - 9u);
}

// Recurses until the stack runs out; the volatile frame keeps every call.
volatile int recursion_limit = INT_MAX;
int exhaust_stack(int depth) {
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    return depth < recursion_limit ? exhaust_stack(depth + 1) + frame[0] : 0;
}

// The record is stamped in UTC from the real-time clock, here set to dates around leap days, year ends and
// the 32-bit limit. SIGSEGV comes from a stack overflow, recorded all the same (the handler runs on its own
// stack), except under a sanitizer, which handles an overflow itself.
TEST_F(PlatformDeathTest, CrashHandlerWritesOneRecordAndDiesByTheSignal) {
    GTEST_FLAG_SET(death_test_style, "fast");  // the child keeps the working directory
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const auto crash = [](int sig) { return raise(sig); };
#else
    const auto crash = [](int sig) { return sig == SIGSEGV ? exhaust_stack(0) : raise(sig); };
#endif
    const std::tuple<int, time_t, const char*> cases[] = {
        {SIGSEGV, 951868799, "2000-02-29 23:59:59"}, {SIGABRT, 951868800, "2000-03-01 00:00:00"},
        {SIGABRT, 0, "1970-01-01 00:00:00"}, {SIGABRT, 946684799, "1999-12-31 23:59:59"},
        {SIGABRT, 1769862896, "2026-01-31 12:34:56"}, {SIGABRT, 2147483647, "2038-01-19 03:14:07"},
    };
    for (const auto& [sig, seconds, stamp] : cases) {
        const std::string name = sig == SIGSEGV ? "SIGSEGV" : "SIGABRT";
        const std::size_t before = contents_of("crash/crash.log").size();
        fake_realtime = seconds;
        EXPECT_EXIT((diagnosis_com_install_siganl_handler(sig, "crash_prog", nullptr), crash(sig)),
                    ::testing::KilledBySignal(sig), "");
        fake_realtime = -1;
        const std::string record = contents_of("crash/crash.log").substr(before);
        const std::regex expected("^" + std::string(stamp) + " UTC crash_prog\\[[0-9]+\\]: crash: signal " +
                                  std::to_string(sig) + " \\(" + name + "\\), backtrace:\n(.+\n){3}");
        EXPECT_TRUE(std::regex_search(record, expected)) << record;
        EXPECT_EQ(record.find("crash:", record.find("crash:") + 1), std::string::npos);
    }
}

volatile sig_atomic_t caught_signal = 0;

// A daemon may have closed its standard input: descriptor 0 is then a marker file's like any other. The crash
// handler library installs a caller's own handler as it is.
TEST_F(Platform, MarkerFilesAreTouchedAndAnOwnSignalHandlerIsInstalledAsItIs) {
    close(STDIN_FILENO);
    std::ofstream("marker") << "kept";
    EXPECT_EQ(touch_file("marker") + touch_file("new") + touch_file("no/marker"), -ENOENT);
    EXPECT_EQ(contents_of("marker") + contents_of("new"), "kept");
    const diagnosis_handler own = [](int sig) { caught_signal = sig; };
    ASSERT_EQ(diagnosis_com_install_siganl_handler(SIGUSR1, "own", own), 0);
    raise(SIGUSR1);
    EXPECT_EQ(caught_signal, SIGUSR1);
}

// A text longer than its buffer is cut after its last whole character: ASCII at 31 bytes, "\u00e9" (2 bytes),
// "\u20ac" (3) and U+1F600 (4) never in the middle. A member that is not a string leaves the buffer alone.
TEST_F(Platform, JsonStringsAreCutAfterTheLastWholeCharacter) {
    const std::string a(27, 'a'), e = "\xc3\xa9", euro = "\xe2\x82\xac", smile = "\xf0\x9f\x98\x80";
    const std::pair<std::string, std::string> cases[] = {
        {std::string(40, 'x'), std::string(31, 'x')}, {a + "bbbb", a + "bbbb"}, {a + "bbb" + e, a + "bbb"},
        {a + "bb" + euro, a + "bb"}, {a + smile + "x", a + smile}, {a + "b" + smile, a + "b"},
    };
    for (const auto& [value, expected] : cases) {
        json_object* object = json_object_new_object();
        json_object_object_add(object, "name", json_object_new_string(value.c_str()));
        json_object_object_add(object, "port", json_object_new_int(7));
        char buffer[32] = "";
        EXPECT_EQ(get_json_str_by_key(object, "name", buffer, sizeof buffer), 0);
        EXPECT_EQ(buffer, expected);
        EXPECT_EQ(get_json_str_by_key(object, "port", buffer, sizeof buffer), RESULT_NOT_FOUND);
        EXPECT_EQ(buffer, expected);
        json_object_put(object);
    }
}

// Jobs that wait until the gate opens; refusals are counted on the submitting thread (the test's) only.
struct gated_job : relay_job {
    void run() override {
        ++running;
        open.wait();
        ++finished;
    }
    void refuse() override { refused_here += std::this_thread::get_id() == submitter ? 1 : 0; }
    static inline std::promise<void> gate;
    static inline std::shared_future<void> open = gate.get_future().share();
    static inline std::atomic<unsigned> running{0}, finished{0}, refused_here{0};
    static inline const std::thread::id submitter = std::this_thread::get_id();
};

// Refused at once on the submitting thread: a job that no worker can run (which leaves nothing in the queue)
// and every job once the pool has stopped; while a worker is busy and no thread can be made, the next job
// waits for that worker instead. Idle workers end. (Its bounds: tests/blackbox/test_relay_concurrency.py.)
TEST_F(Platform, RelayPoolRefusesOnlyWhatNoWorkerCanRun) {
    relay_pool_start();
    threads_refused = true;
    relay_pool_submit(std::make_unique<gated_job>());
    EXPECT_EQ(gated_job::refused_here, 1u);
    threads_refused = false;
    relay_pool_submit(std::make_unique<gated_job>());
    poll_until([] { return gated_job::running == 1; });
    threads_refused = true;
    relay_pool_submit(std::make_unique<gated_job>());
    threads_refused = false;
    EXPECT_EQ(gated_job::refused_here, 1u);
    gated_job::gate.set_value();
    EXPECT_TRUE(poll_until([] { return gated_job::finished == 2; }));
    EXPECT_TRUE(poll_until([] { return relay_pool_worker_count() == 0; }));
    relay_pool_stop();
    relay_pool_submit(std::make_unique<gated_job>());
    EXPECT_EQ(gated_job::refused_here, 2u);
}

using http_reply = std::shared_ptr<httpserver::http_response>;
const http_reply reply(const httpserver::http_request&) { return std::make_shared<httpserver::string_response>(); }
const http_reply out_of_memory(const httpserver::http_request&) { throw std::bad_alloc(); }

// What a handler throws stays in its module: the guarded handler answers null (the server sends 500); a reply
// is plain text unless it says otherwise. The longest resource path that covers the request's
// serves it: the path and those below, not those that only begin with it. (Headers, HEAD: tests/blackbox.)
TEST_F(Platform, HandlersAreGuardedRepliesArePlainTextAndResourcesCoverThePathsBelow) {
    const httpserver::http_request request("GET", "/a", {}, {}, "");
    EXPECT_EQ(guarded<out_of_memory>(request), nullptr);
    EXPECT_EQ(httpserver::string_response().get_header("content-TYPE"), "text/plain");
    common_http_resource outer("/a", reply, nullptr, nullptr, nullptr);
    common_http_resource inner("/a/b", reply, nullptr, nullptr, nullptr);
    EXPECT_EQ(find_http_resource("/a/b/c"), &inner);
    EXPECT_EQ(find_http_resource("/a/bc"), &outer);
}

// A file response owns its descriptor: once a raw response is made (a copy of a small file, or one sent from
// the file) it is closed, or the raw response closes it. (Unsent responses: tests/unit/web_pages_test.cpp.)
TEST_F(Platform, FileResponsesCloseTheirDescriptorOnEveryPath) {
    std::ofstream("file_response") << std::string(20000, 'x');
    for (const std::uint64_t size : {5, 20000}) {
        const int sent = open("file_response", O_RDONLY | O_CLOEXEC);
        httpserver::file_response made(sent, size, 200, "text/html");
        MHD_Response* raw = made.get_raw_response();
        ASSERT_NE(raw, nullptr);
        EXPECT_EQ(made.get_raw_response(), nullptr);
        MHD_destroy_response(raw);
        EXPECT_EQ(fcntl(sent, F_GETFD), -1) << size;
    }
}

TEST_F(Platform, RequestGuardServesOwnHostsAndOwnOriginsOnly) {
    char own[256] = "";
    ASSERT_EQ(gethostname(own, sizeof own), 0);
    const std::string name = own;
    const std::string served[] = {"10.1.2.3:80", "[::1]:10182", "[fe80::1]", "LocalHost.:1", "localhost:", name,
                                  name + ".LOCAL:1"};  // an address of the device's network too
    const std::string refused[] = {"::1", "[::1", "[127.0.0.1]", "127.1", "", "127.0.0.1:123456", "127.0.0.1:80x",
                                   "localhost.localdomain", name + "x", name + ".localx", "x" + name};
    for (const std::string& host : served) {
        EXPECT_EQ(request_guard_judge({"POST", host.c_str(), nullptr, nullptr}), request_verdict::served) << host;
    }
    for (const std::string& host : refused) {
        EXPECT_EQ(request_guard_judge({"GET", host.c_str(), nullptr, nullptr}), request_verdict::misdirected) << host;
    }
    // A state change is refused when the browser says another origin's page asks; a read never is.
    const char *host = "127.0.0.1:10182", *self = "http://127.0.0.1:10182", *other = "http://127.0.0.1:9999";
    constexpr request_verdict OK = request_verdict::served, CROSS = request_verdict::cross_origin;
    const std::tuple<const char*, const char*, const char*, request_verdict> cases[] = {
        {"POST", self, nullptr, OK}, {"POST", other, "none", OK},
        {"GET", "http://attacker.example", "cross-site", OK}, {"OPTIONS", "null", "cross-site", OK},
        {"POST", other, nullptr, CROSS}, {"POST", "https://127.0.0.1:10182", nullptr, CROSS},
        {"POST", "http://127.0.0.1:10182/", nullptr, CROSS}, {"PUT", nullptr, "same-site", CROSS},
        {"POST", self, "cross-site", CROSS}, {"post", other, nullptr, CROSS},
    };
    for (const auto& [method, origin, site, verdict] : cases) {
        EXPECT_EQ(request_guard_judge({method, host, origin, site}), verdict)
            << method << " " << (origin ? origin : "-") << " " << (site ? site : "-");
    }
    EXPECT_EQ(request_guard_judge({"POST", nullptr, "http://", nullptr}), CROSS);
}

}  // namespace
