// ssci_response.h - the response object that every handler returns, and
// the one helper that turns a json-c reply object into such a response.
// Stateless; a response belongs to the one request that made it.
#ifndef MANAGER_SVC_SSCI_RESPONSE_H
#define MANAGER_SVC_SSCI_RESPONSE_H

#include <json-c/json.h>

#include <memory>
#include <string>

#include "platform/common_http_resource.h"
#include "platform/httpserver.h"

constexpr int HTTP_STATUS_OK = 200;
constexpr const char JSON_CONTENT_TYPE[] = "application/json";
// The name of the result member of every JSON reply.
constexpr const char RETURN_MEMBER[] = "return";

class ssci_response : public httpserver::string_response {
public:
    ssci_response(std::string body, int status, const std::string& content_type);

    // The body text: the very bytes that are sent (no second copy).
    const std::string& body;
};

// A new ssci_response owned by a new shared pointer.
std::shared_ptr<httpserver::http_response> make_ssci_response(
    std::string body, int status, const std::string& content_type);

// A new reply object holding "return" = result; members added later follow it.
json_object* new_reply_object(int result);

// The reply object's text (json-c's default form); releases the object.
std::string take_json_text(json_object* reply);

// The reply object's text as a 200 "application/json" response; releases
// the reply object once its text is copied.
std::shared_ptr<httpserver::http_response> json_reply(json_object* reply);

#endif
