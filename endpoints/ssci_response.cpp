// ssci_response.cpp - the response object of every handler and the JSON
// reply helper. Stateless; safe on any listener thread.
#include "endpoints/ssci_response.h"

#include <utility>

ssci_response::ssci_response(std::string body_text, int status, const std::string& content_type)
    : httpserver::string_response(std::move(body_text), status, content_type),
      body(get_content()) {}

std::shared_ptr<httpserver::http_response> make_ssci_response(
    std::string body, int status, const std::string& content_type) {
    return std::shared_ptr<httpserver::http_response>(
        new ssci_response(std::move(body), status, content_type));
}

json_object* new_reply_object(int result) {
    json_object* reply = json_object_new_object();
    json_object_object_add(reply, RETURN_MEMBER, json_object_new_int(result));
    return reply;
}

std::string take_json_text(json_object* reply) {
    std::string text = json_object_to_json_string(reply);
    json_object_put(reply);
    return text;
}

std::shared_ptr<httpserver::http_response> json_reply(json_object* reply) {
    return make_ssci_response(take_json_text(reply), HTTP_STATUS_OK, JSON_CONTENT_TYPE);
}
