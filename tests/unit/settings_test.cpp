// Option parsing, the usage text, the banner and execute_time.
#include "main/settings.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "common/device_paths.h"
#include "posix_regex.h"
#include "stderr_capture.h"

namespace {

const std::string USAGE_TEXT =
    "manager_svc 1.0.0\n"
    "usage : manager_svc [OPTION]... \n\n"
    "OPTION: \n"
    "  -d                run as daemon.\n"
    "  -D HOME_PATH      set webpage hoem path.\n"
    "  -h                show this info.\n"
    "  -i IP_ADDRS       set listen ip_addrs.\n"
    "  -m MONITOR_PERIOD set monitor period.\n"
    "  -o LOG_FILE       set log_file.\n"
    "                        If not set, msg will print to stderr\n"
    "  -p PORT_NO        set listen port.\n"
    "  -t TREAD_NO       set max listen thread no.\n"
    "  -v LEVEL          verbose print.\n"
    "                        0= ERR (default)\n"
    "                        1= WARN\n"
    "                        2= DEBUG\n";

// The settings as the program starts (the globals are constant-initialised,
// so this copy, made during dynamic initialisation, sees the defaults).
struct settings_copy {
    std::string home_path = ::home_path;
    std::string ip_addrs = ::ip_addrs;
    int port = ::port;
    int thread_no = ::thread_no;
    int g_monitor_period = ::g_monitor_period;
    std::string log_file = ::log_file;
    int verbose_level = ::verbose_level;
    bool is_daemon = ::is_daemon;
};
const settings_copy START_SETTINGS;

void restore_start_settings() {
    snprintf(home_path, sizeof home_path, "%s", START_SETTINGS.home_path.c_str());
    snprintf(ip_addrs, sizeof ip_addrs, "%s", START_SETTINGS.ip_addrs.c_str());
    port = START_SETTINGS.port;
    thread_no = START_SETTINGS.thread_no;
    g_monitor_period = START_SETTINGS.g_monitor_period;
    verbose_level = START_SETTINGS.verbose_level;
    is_daemon = START_SETTINGS.is_daemon;
}

struct parse_outcome {
    options_result result;
    std::string error_text;
};

// Runs parse_options on "manager_svc" followed by `words`.
parse_outcome parse(const std::vector<std::string>& words) {
    std::vector<std::string> storage{"manager_svc"};
    storage.insert(storage.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : storage) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    stderr_capture capture;
    options_result result = parse_options(static_cast<int>(storage.size()), argv.data());
    return {result, capture.text()};
}

std::string failure_text(const std::string& name, const std::string& argument) {
    return "invalid " + name + ":[" + argument + "]\nemergency exit.\n";
}

class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override { restore_start_settings(); }
    void TearDown() override { restore_start_settings(); }
};

TEST_F(SettingsTest, StartsWithTheDefaults) {
    EXPECT_EQ(START_SETTINGS.home_path, DEFAULT_HOME_PATH);
    EXPECT_EQ(START_SETTINGS.ip_addrs, "localhost");
    EXPECT_EQ(START_SETTINGS.port, 10182);
    EXPECT_EQ(START_SETTINGS.thread_no, 10);
    EXPECT_EQ(START_SETTINGS.g_monitor_period, 10);
    EXPECT_EQ(START_SETTINGS.log_file, "/tmp/.manager_svc.debug");
    EXPECT_EQ(START_SETTINGS.verbose_level, 0);
    EXPECT_FALSE(START_SETTINGS.is_daemon);
}

TEST_F(SettingsTest, NoOptionsPrintsTheDefaultBanner) {
    parse_outcome outcome = parse({});
    ASSERT_EQ(outcome.result, OPTIONS_RUN);
    EXPECT_EQ(outcome.error_text,
              "==== execute manager_svc ==== \n"
              "is_daemon     : [false]\n"
              "listen        : [localhost:10182]\n"
              "thread_no     : [10]\n"
              "verbose_level : [0]\n"
              "log_file      : [/tmp/.manager_svc.debug]\n"
              "home_path     : [/home/httpd/manager_svc/]\n"
              "execute_time  : [" + std::string(execute_time) + "]\n");
}

TEST_F(SettingsTest, BannerReportsTheSettingsInForce) {
    parse_outcome outcome = parse({"-dv1", "-i", "127.0.0.1", "-p", "8080", "-t", "3"});
    ASSERT_EQ(outcome.result, OPTIONS_RUN);
    EXPECT_NE(outcome.error_text.find("is_daemon     : [true]\n"
                                      "listen        : [127.0.0.1:8080]\n"
                                      "thread_no     : [3]\n"
                                      "verbose_level : [1]\n"),
              std::string::npos)
        << outcome.error_text;
}

struct accepted_case {
    std::vector<std::string> words;
    std::function<bool()> holds;
};

TEST_F(SettingsTest, AcceptsEveryOptionInEveryWritingForm) {
    const std::vector<accepted_case> cases = {
        {{"-d"}, [] { return is_daemon; }},
        {{"-dv2"}, [] { return is_daemon && verbose_level == 2; }},
        {{"-d", "-v", "1"}, [] { return is_daemon && verbose_level == 1; }},
        {{"-v", "x"}, [] { return verbose_level == 0; }},
        {{"-p", "80abc"}, [] { return port == 80; }},
        {{"-p80"}, [] { return port == 80; }},
        {{"-p", " +81"}, [] { return port == 81; }},
        {{"-p", "70000"}, [] { return port == 70000; }},
        {{"-p", "99999999999"}, [] { return port == INT_MAX; }},
        {{"-p", "1", "-p", "2"}, [] { return port == 2; }},
        {{"-t", "4"}, [] { return thread_no == 4; }},
        {{"-m", "7"}, [] { return g_monitor_period == 7; }},
        {{"-i", "192.168.1.20"}, [] { return std::string(ip_addrs) == "192.168.1.20"; }},
        {{"-i", "fe80::1"}, [] { return std::string(ip_addrs) == "fe80::1"; }},
        {{"-D", "/tmp"}, [] { return std::string(home_path) == "/tmp"; }},
        {{"word", "-p", "5", "other"}, [] { return port == 5; }},
    };
    for (const accepted_case& one : cases) {
        restore_start_settings();
        parse_outcome outcome = parse(one.words);
        EXPECT_EQ(outcome.result, OPTIONS_RUN) << one.words[0] << outcome.error_text;
        EXPECT_TRUE(one.holds()) << "words starting " << one.words[0];
    }
}

struct rejected_case {
    std::vector<std::string> words;
    std::string message;
};

TEST_F(SettingsTest, RejectsBadValuesWithTheirMessage) {
    const std::vector<rejected_case> cases = {
        {{"-p", "0"}, failure_text("port", "0")},
        {{"-p", "abc"}, failure_text("port", "abc")},
        {{"-p", "-5"}, failure_text("port", "-5")},
        {{"-p", "-99999999999"}, failure_text("port", "-99999999999")},
        {{"-t", "0"}, failure_text("thread_no", "0")},
        {{"-m", "-1"}, failure_text("g_monitor_period", "-1")},
        {{"-v", "3"}, failure_text("verbose_lv", "3")},
        {{"-v", "-1"}, failure_text("verbose_lv", "-1")},
        {{"-i", "localhost"}, failure_text("ipaddrs", "localhost")},
        {{"-i", "1.2.3"}, failure_text("ipaddrs", "1.2.3")},
        {{"-i", ""}, failure_text("ipaddrs", "")},
        {{"-D", "/no/such/dir"}, failure_text("home_path", "/no/such/dir")},
        {{"-D", "/etc/passwd"}, failure_text("home_path", "/etc/passwd")},
        {{"-p", "0", "-h"}, failure_text("port", "0")},
        {{"-p", "0", "-t", "0"}, failure_text("port", "0")},
    };
    for (const rejected_case& one : cases) {
        parse_outcome outcome = parse(one.words);
        EXPECT_EQ(outcome.result, OPTIONS_EXIT_FAILURE) << one.message;
        EXPECT_EQ(outcome.error_text, one.message);
    }
}

TEST_F(SettingsTest, StopsAtTheFirstBadValue) {
    parse({"-t", "5", "-p", "0", "-m", "9"});
    EXPECT_EQ(thread_no, 5);
    EXPECT_EQ(port, 10182);
    EXPECT_EQ(g_monitor_period, 10);
}

TEST_F(SettingsTest, HelpPrintsUsageAndStopsBeforeLaterOptions) {
    parse_outcome outcome = parse({"-h", "-p", "0"});
    EXPECT_EQ(outcome.result, OPTIONS_EXIT_SUCCESS);
    EXPECT_EQ(outcome.error_text, USAGE_TEXT);
}

TEST_F(SettingsTest, UnknownOrIncompleteOptionGivesGetoptLineIllegalOptionAndUsage) {
    const std::vector<rejected_case> cases = {
        {{"-o", "file"}, "manager_svc: invalid option -- 'o'\nIllegal option:-o\n"},
        {{"-p"}, "manager_svc: option requires an argument -- 'p'\nIllegal option:-p\n"},
        {{"-dD"}, "manager_svc: option requires an argument -- 'D'\nIllegal option:-D\n"},
        {{"-\x01"}, "manager_svc: invalid option -- '\x01'\nIllegal option:-#\n"},
    };
    for (const rejected_case& one : cases) {
        parse_outcome outcome = parse(one.words);
        EXPECT_EQ(outcome.result, OPTIONS_EXIT_SUCCESS) << one.message;
        EXPECT_EQ(outcome.error_text, one.message + USAGE_TEXT);
    }
    EXPECT_EQ(std::string(log_file), "/tmp/.manager_svc.debug");
}

TEST_F(SettingsTest, ByteAbove127IsNamedAsHash) {
    parse_outcome outcome = parse({"-\xc3"});
    EXPECT_EQ(outcome.result, OPTIONS_EXIT_SUCCESS);
    EXPECT_NE(outcome.error_text.find("Illegal option:-#\n" + USAGE_TEXT), std::string::npos);
}

// A directory whose path is `length` characters long, made below /tmp.
std::string make_directory_of_length(std::size_t length) {
    char base[] = "/tmp/settings_test.XXXXXX";
    EXPECT_NE(mkdtemp(base), nullptr);
    std::string path = std::string(base) + "/";
    path += std::string(length - path.size(), 'd');
    EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
    return path;
}

TEST_F(SettingsTest, LongHomePathIsCheckedWholeAndStoredCut) {
    std::string path = make_directory_of_length(200);
    EXPECT_EQ(parse({"-D", path}).result, OPTIONS_RUN);
    EXPECT_EQ(std::string(home_path), path.substr(0, HOME_PATH_SIZE - 1));
}

TEST_F(SettingsTest, LongIpv6AddressIsCheckedWholeAndStoredCut) {
    const std::string address = "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255";
    EXPECT_EQ(parse({"-i", address}).result, OPTIONS_RUN);
    EXPECT_EQ(std::string(ip_addrs), address.substr(0, IP_ADDRS_SIZE - 1));
}

TEST_F(SettingsTest, UsageTextIsExact) {
    stderr_capture capture;
    usage();
    EXPECT_EQ(capture.text(), USAGE_TEXT);
}

std::string asctime_layout(time_t when) {
    char text[64];
    strftime(text, sizeof text, "%a %b %e %H:%M:%S %Y", localtime(&when));
    return text;
}

TEST_F(SettingsTest, ExecuteTimeIsLocalTimeInAsctimeLayout) {
    setenv("TZ", "<+14>-14", 1);
    tzset();
    time_t before = time(nullptr);
    parse({});
    time_t after = time(nullptr);
    std::string text = execute_time;
    EXPECT_TRUE(full_match(text,
                           "(Sun|Mon|Tue|Wed|Thu|Fri|Sat) "
                           "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec)"
                           "(  [1-9]| [12][0-9]| 3[01]) "
                           "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] [0-9]{4}"))
        << text;
    EXPECT_TRUE(text == asctime_layout(before) || text == asctime_layout(after)) << text;
    unsetenv("TZ");
    tzset();
}

}  // namespace
