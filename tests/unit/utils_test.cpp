// The utility helpers: address validation, typed JSON reads, touch_file.
#include "platform/utils.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

TEST(UtilsTest, IsValidIpAddressAcceptsOnlyAddressText) {
    struct address_case {
        const char* text;
        bool valid;
    };
    const std::string overlong = std::string(200, '1');
    const address_case cases[] = {
        {"127.0.0.1", true},      {"0.0.0.0", true},      {"255.255.255.255", true},
        {"::", true},             {"::1", true},          {"fe80::1", true},
        {"2001:db8::8a2e:370:7334", true},
        {"::ffff:192.0.2.1", true},
        {"localhost", false},     {"", false},            {"1.2.3", false},
        {"256.1.1.1", false},     {"1.2.3.4 ", false},    {" 1.2.3.4", false},
        {"1.2.3.4/24", false},    {"junk", false},        {":::", false},
        {"1.2.3.4.5", false},     {overlong.c_str(), false},
    };
    for (const address_case& one : cases) {
        EXPECT_EQ(isValidIpAddress(one.text), one.valid) << "[" << one.text << "]";
    }
    EXPECT_FALSE(isValidIpAddress(nullptr));
}

class JsonReadTest : public ::testing::Test {
protected:
    void SetUp() override {
        object_ = json_tokener_parse(
            "{\"name\":\"svc\",\"port\":8080,\"text_port\":\"8080\","
            "\"long\":\"abcdefghijklmnopqrstuvwxyz\",\"nothing\":null,\"real\":1.5}");
        ASSERT_NE(object_, nullptr);
    }
    void TearDown() override { json_object_put(object_); }
    json_object* object_ = nullptr;
};

constexpr char GUARD = '\x5a';

// A buffer of `size` bytes filled with "old", followed by a guard byte.
struct guarded_buffer {
    explicit guarded_buffer(unsigned int size) : size(size) {
        memset(bytes, GUARD, sizeof bytes);
        snprintf(bytes, size, "%s", "old");
    }
    char bytes[64];
    unsigned int size;
    bool guard_intact() const { return bytes[size] == GUARD; }
};

TEST_F(JsonReadTest, StringReadCopiesCutsOrLeavesTheBufferAlone) {
    struct string_case {
        const char* key;
        unsigned int size;
        int result;
        const char* expected;
    };
    const string_case cases[] = {
        {"name", 16, 0, "svc"},
        {"long", 8, 0, "abcdefg"},
        {"long", 27, 0, "abcdefghijklmnopqrstuvwxyz"},
        {"long", 26, 0, "abcdefghijklmnopqrstuvwxy"},
        {"absent", 16, -1, "old"},
        {"port", 16, -1, "old"},
        {"nothing", 16, -1, "old"},
        {"real", 16, -1, "old"},
    };
    for (const string_case& one : cases) {
        guarded_buffer buffer(one.size);
        EXPECT_EQ(get_json_str_by_key(object_, one.key, buffer.bytes, buffer.size), one.result)
            << one.key;
        EXPECT_STREQ(buffer.bytes, one.expected) << one.key;
        EXPECT_TRUE(buffer.guard_intact()) << one.key;
    }
}

TEST_F(JsonReadTest, StringReadRefusesNonObjectsAndEmptyBuffers) {
    json_object* array = json_tokener_parse("[\"name\"]");
    guarded_buffer buffer(16);
    EXPECT_EQ(get_json_str_by_key(array, "name", buffer.bytes, buffer.size), -1);
    EXPECT_EQ(get_json_str_by_key(nullptr, "name", buffer.bytes, buffer.size), -1);
    EXPECT_STREQ(buffer.bytes, "old");
    char untouched = GUARD;
    EXPECT_EQ(get_json_str_by_key(object_, "name", &untouched, 0), -1);
    EXPECT_EQ(untouched, GUARD);
    json_object_put(array);
}

TEST_F(JsonReadTest, IntReadTakesOnlyIntegers) {
    struct int_case {
        const char* key;
        int result;
        int expected;
    };
    const int_case cases[] = {
        {"port", 0, 8080},      {"text_port", -1, -7}, {"absent", -1, -7},
        {"nothing", -1, -7},    {"real", -1, -7},      {"name", -1, -7},
    };
    for (const int_case& one : cases) {
        int value = -7;
        EXPECT_EQ(get_json_int_by_key(object_, one.key, value), one.result) << one.key;
        EXPECT_EQ(value, one.expected) << one.key;
    }
    json_object* number = json_object_new_int(3);
    int value = -7;
    EXPECT_EQ(get_json_int_by_key(number, "port", value), -1);
    EXPECT_EQ(value, -7);
    json_object_put(number);
}

TEST(UtilsTest, TouchFileCreatesAnEmptyFileAndKeepsAnExistingOne) {
    char dir[] = "/tmp/utils_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string fresh = std::string(dir) + "/marker";
    EXPECT_EQ(touch_file(fresh.c_str()), 0);
    struct stat info;
    ASSERT_EQ(stat(fresh.c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 0);

    FILE* file = fopen(fresh.c_str(), "w");
    ASSERT_NE(file, nullptr);
    fputs("kept", file);
    fclose(file);
    EXPECT_EQ(touch_file(fresh.c_str()), 0);
    ASSERT_EQ(stat(fresh.c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 4);

    EXPECT_EQ(touch_file((std::string(dir) + "/no/such/dir/marker").c_str()), -1);
}

}  // namespace
