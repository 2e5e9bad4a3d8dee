// Unit tests of the request/response objects and of the resource table:
// which resource a request path reaches, method slots and Allow texts.
#include <gtest/gtest.h>
#include <microhttpd.h>

#include <memory>
#include <string>

#include "platform/common_http_resource.h"
#include "platform/httpserver.h"

namespace {

using httpserver::http::http_utils;

const std::shared_ptr<httpserver::http_response> reply_get(const httpserver::http_request&) {
    return std::make_shared<httpserver::string_response>("get");
}

const std::shared_ptr<httpserver::http_response> reply_post(const httpserver::http_request&) {
    return std::make_shared<httpserver::string_response>("post");
}

struct dispatch_case {
    const char* request_path;
    const char* expected_resource;  // null: no resource
};

TEST(ResourceTable, LongestCoveringPathWins) {
    common_http_resource a("/a", reply_get, nullptr, nullptr, nullptr);
    common_http_resource ab("/a/b", reply_get, nullptr, nullptr, nullptr);
    common_http_resource abc("/a/b/c", reply_get, nullptr, nullptr, nullptr);
    common_http_resource slash("/x/", reply_get, nullptr, nullptr, nullptr);
    const dispatch_case cases[] = {
        {"/a", "/a"},           {"/a/", "/a"},          {"/a/b", "/a/b"},
        {"/a/bc", "/a"},        {"/a/b/", "/a/b"},      {"/a/b/c/d/e", "/a/b/c"},
        {"/a/b/cd", "/a/b"},    {"/ab", nullptr},       {"/", nullptr},
        {"", nullptr},          {"/x/y", "/x/"},        {"/x", nullptr},
        {"/b/a", nullptr},      {"a", nullptr},
    };
    for (const dispatch_case& c : cases) {
        const common_http_resource* found = find_http_resource(c.request_path);
        if (c.expected_resource == nullptr) {
            EXPECT_EQ(found, nullptr) << c.request_path;
        } else {
            ASSERT_NE(found, nullptr) << c.request_path;
            EXPECT_EQ(found->get_path(), c.expected_resource) << c.request_path;
        }
    }
}

TEST(ResourceTable, DestroyedResourceIsForgotten) {
    {
        common_http_resource scoped("/scoped", reply_get, nullptr, nullptr, nullptr);
        EXPECT_EQ(find_http_resource("/scoped/page"), &scoped);
    }
    EXPECT_EQ(find_http_resource("/scoped/page"), nullptr);
}

TEST(ResourceTable, FirstOfTwoEqualPathsWins) {
    common_http_resource first("/same", reply_get, nullptr, nullptr, nullptr);
    common_http_resource second("/same", reply_post, nullptr, nullptr, nullptr);
    EXPECT_EQ(find_http_resource("/same"), &first);
}

TEST(ResourceTable, EmptyPathServesNothing) {
    common_http_resource empty("", reply_get, nullptr, nullptr, nullptr);
    common_http_resource null_path(nullptr, reply_get, nullptr, nullptr, nullptr);
    EXPECT_EQ(find_http_resource("/"), nullptr);
    EXPECT_EQ(find_http_resource(""), nullptr);
}

TEST(ResourceSlots, HandlerForMethodName) {
    common_http_resource r("/slots", reply_get, nullptr, nullptr, reply_post);
    const struct {
        const char* method;
        http_handler expected;
    } cases[] = {
        {"GET", reply_get}, {"POST", nullptr}, {"PUT", nullptr}, {"DELETE", reply_post},
        {"get", nullptr},   {"HEAD", nullptr}, {"", nullptr},    {"GETX", nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(r.handler_for(c.method), c.expected) << c.method;
    }
}

TEST(ResourceSlots, AllowedMethodsNameEveryFilledSlot) {
    const struct {
        http_handler get, post, put, del;
        const char* expected;
    } cases[] = {
        {reply_get, reply_get, nullptr, reply_get, "GET, POST, DELETE"},
        {nullptr, reply_get, nullptr, nullptr, "POST"},
        {reply_get, reply_get, reply_get, reply_get, "GET, POST, PUT, DELETE"},
        {nullptr, nullptr, reply_get, nullptr, "PUT"},
        {nullptr, nullptr, nullptr, nullptr, ""},
    };
    for (const auto& c : cases) {
        common_http_resource r("/allow", c.get, c.post, c.put, c.del);
        EXPECT_EQ(r.allowed_methods(), c.expected);
    }
}

TEST(HttpRequest, ArgumentsAndHeaders) {
    httpserver::http_request request("POST", "/p", {{"method", "register"}},
                                     {{"Content-Type", "application/json"}}, "{}");
    EXPECT_EQ(request.get_arg("method"), "register");
    EXPECT_EQ(request.get_arg("absent"), "");
    EXPECT_EQ(request.get_arg("Method"), "");  // argument names keep their case
    EXPECT_EQ(request.get_header("content-type"), "application/json");
    EXPECT_EQ(request.get_header("CONTENT-TYPE"), "application/json");
    EXPECT_EQ(request.get_header("X-Absent"), "");
    EXPECT_EQ(request.get_content(), "{}");
    EXPECT_EQ(request.get_method(), "POST");
    EXPECT_EQ(request.get_path(), "/p");
}

TEST(HttpResponse, ContentTypeAndHeadersReachTheRawResponse) {
    httpserver::string_response response("body", 201, "application/json");
    response.with_header(http_utils::http_header_location, "/elsewhere");
    EXPECT_EQ(response.get_response_code(), 201);
    EXPECT_EQ(response.get_header("content-type"), "application/json");
    MHD_Response* raw = response.get_raw_response();
    ASSERT_NE(raw, nullptr);
    response.decorate_response(raw);
    const char* type = MHD_get_response_header(raw, "Content-Type");
    const char* location = MHD_get_response_header(raw, "Location");
    ASSERT_NE(type, nullptr);
    ASSERT_NE(location, nullptr);
    EXPECT_STREQ(type, "application/json");
    EXPECT_STREQ(location, "/elsewhere");
    MHD_destroy_response(raw);
}

TEST(HttpResponse, DefaultsArePlainTextOk) {
    httpserver::string_response response;
    EXPECT_EQ(response.get_response_code(), 200);
    EXPECT_EQ(response.get_header(http_utils::http_header_content_type), http_utils::text_plain);
    EXPECT_EQ(response.get_content(), "");
}

}  // namespace
