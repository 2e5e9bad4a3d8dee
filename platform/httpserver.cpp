// httpserver.cpp - the request and response objects that handlers see, and
// how a response becomes a libmicrohttpd response.
// A request, and the response made for it, belong to the listener thread
// that handles it (or the relay worker that answers it). A string_response
// hands its body to libmicrohttpd without a copy, so the server keeps the
// response object alive until the request is complete; a file_response
// hands over its descriptor instead, or a copy of a small file.
#include "platform/httpserver.h"

#include <microhttpd.h>
#include <strings.h>
#include <unistd.h>

#include <cstdlib>

#include <utility>

namespace httpserver {

bool header_less::operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
}

namespace {

// The value stored under `key`, or the empty text.
template <typename Map>
std::string value_or_empty(const Map& map, const std::string& key) {
    auto found = map.find(key);
    return found == map.end() ? std::string() : found->second;
}

}  // namespace

http_request::http_request(std::string method_name, std::string request_path,
                           arg_map query_args, header_map request_headers,
                           std::string request_content)
    : method(std::move(method_name)),
      path(std::move(request_path)),
      args(std::move(query_args)),
      headers(std::move(request_headers)),
      content(std::move(request_content)) {}

std::string http_request::get_arg(const std::string& key) const {
    return value_or_empty(args, key);
}

std::string http_request::get_header(const std::string& key) const {
    return value_or_empty(headers, key);
}

http_response::http_response(int code, const std::string& content_type)
    : response_code(code) {
    headers[http::http_utils::http_header_content_type_options] = http::http_utils::nosniff;
    if (!content_type.empty()) {
        headers[http::http_utils::http_header_content_type] = content_type;
    }
}

http_response::~http_response() = default;

MHD_Response* http_response::get_raw_response() {
    return MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
}

bool http_response::decorate_response(MHD_Response* response) {
    for (const auto& header : headers) {
        if (MHD_add_response_header(response, header.first.c_str(), header.second.c_str()) !=
            MHD_YES) {
            return false;
        }
    }
    return true;
}

int http_response::enqueue_response(MHD_Connection* connection, MHD_Response* raw) {
    return MHD_queue_response(connection, static_cast<unsigned>(response_code), raw);
}

std::string http_response::get_header(const std::string& key) const {
    return value_or_empty(headers, key);
}

http_response& http_response::with_header(const std::string& key, const std::string& value) {
    headers[key] = value;
    return *this;
}

string_response::string_response(std::string body, int code, const std::string& content_type)
    : http_response(code, content_type), content(std::move(body)) {}

// The body is lent, not copied: the server holds this object, and with it
// the bytes, until the request is complete.
MHD_Response* string_response::get_raw_response() {
    return MHD_create_response_from_buffer(content.size(), const_cast<char*>(content.data()),
                                           MHD_RESPMEM_PERSISTENT);
}

file_response::file_response(int file, std::uint64_t length, int code,
                             const std::string& content_type)
    : http_response(code, content_type), fd(file), size(length) {}

file_response::~file_response() {
    if (fd >= 0) {
        close(fd);
    }
}

// A copy of a small file, or null (the file then goes by sendfile).
MHD_Response* file_response::copied_response() const {
    if (size == 0 || size > COPIED_FILE_BYTES) {
        return nullptr;
    }
    char* copy = static_cast<char*>(malloc(size));
    const ssize_t length = copy == nullptr ? -1 : pread(fd, copy, size, 0);
    MHD_Response* raw = length < 0 ? nullptr
                                   : MHD_create_response_from_buffer(
                                         length, copy, MHD_RESPMEM_MUST_FREE);
    if (raw == nullptr) {
        free(copy);
    }
    return raw;
}

// Made once per response: the descriptor passes to the raw response, which
// closes it, or is closed once its file is copied. When no raw response can
// be made, it stays here and the destructor closes it.
MHD_Response* file_response::get_raw_response() {
    if (fd < 0) {
        return nullptr;
    }
    MHD_Response* raw = copied_response();
    if (raw != nullptr) {
        close(fd);
    } else {
        raw = MHD_create_response_from_fd64(size, fd);
    }
    if (raw != nullptr) {
        fd = -1;
    }
    return raw;
}

}  // namespace httpserver
