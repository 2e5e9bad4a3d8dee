// httpserver.h - the thin request/response layer that the handlers use,
// with the names of the device's HTTP server library, over libmicrohttpd.
// A request object belongs to the one listener thread that handles it; a
// response object is made by a handler for one request and owned by shared
// pointers until that request is complete (the raw response of a
// string_response borrows its body). No locks: nothing here is shared
// between requests.
#ifndef MANAGER_SVC_HTTPSERVER_H
#define MANAGER_SVC_HTTPSERVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

struct MHD_Connection;
struct MHD_Response;

namespace httpserver {

namespace http {
struct http_utils {
    static inline const std::string http_header_content_type = "Content-Type";
    static inline const std::string http_header_location = "Location";
    static inline const std::string http_header_allow = "Allow";
    static inline const std::string text_plain = "text/plain";
    // Sent on every reply: browsers take the content type as given.
    static inline const std::string http_header_content_type_options = "X-Content-Type-Options";
    static inline const std::string nosniff = "nosniff";
};
}  // namespace http

// Header names compare without regard to letter case.
struct header_less {
    bool operator()(const std::string& a, const std::string& b) const;
};
using header_map = std::map<std::string, std::string, header_less>;
using arg_map = std::map<std::string, std::string>;

class http_request {
public:
    http_request(std::string method, std::string path, arg_map args,
                 header_map headers, std::string content);

    const std::string& get_method() const { return method; }
    const std::string& get_path() const { return path; }
    // The query argument's value, or the empty text when it is absent.
    std::string get_arg(const std::string& key) const;
    const arg_map& get_args() const { return args; }
    std::string get_header(const std::string& key) const;
    const std::string& get_content() const { return content; }

private:
    std::string method;
    std::string path;
    arg_map args;
    header_map headers;
    std::string content;
};

class http_response {
public:
    http_response(int response_code, const std::string& content_type);
    virtual ~http_response();
    http_response(const http_response&) = delete;
    http_response& operator=(const http_response&) = delete;

    // Builds the libmicrohttpd response (body only; headers are added by
    // decorate_response). The caller owns it.
    virtual MHD_Response* get_raw_response();
    // Adds every header of the header map to the raw response; false when
    // one could not be added.
    virtual bool decorate_response(MHD_Response* response);
    // Queues the raw response on the connection; returns MHD's result.
    virtual int enqueue_response(MHD_Connection* connection, MHD_Response* raw);

    int get_response_code() const { return response_code; }
    const header_map& get_headers() const { return headers; }
    std::string get_header(const std::string& key) const;
    http_response& with_header(const std::string& key, const std::string& value);

private:
    int response_code;
    header_map headers;
};

class string_response : public http_response {
public:
    explicit string_response(std::string content = "", int response_code = 200,
                             const std::string& content_type = http::http_utils::text_plain);

    // The raw response borrows the body: this object must outlive it.
    MHD_Response* get_raw_response() override;
    const std::string& get_content() const { return content; }

private:
    std::string content;
};

// The first `size` bytes of an open file. A file of up to COPIED_FILE_BYTES
// is read into the reply, so one write carries head and body (libmicrohttpd
// sends the head of a file reply on its own); a larger one goes straight
// from the file (sendfile), so the reply holds no copy of it. The
// descriptor belongs to this object until get_raw_response hands it to the
// raw response (which closes it when it is destroyed); whoever holds it
// closes it on every path.
class file_response : public http_response {
public:
    file_response(int fd, std::uint64_t size, int response_code, const std::string& content_type);
    ~file_response() override;

    MHD_Response* get_raw_response() override;

private:
    // Holds the monitor page (10 KB); 256 connections hold at most 4 MiB.
    static constexpr std::uint64_t COPIED_FILE_BYTES = 16 * 1024;

    MHD_Response* copied_response() const;

    int fd;
    std::uint64_t size;
};

}  // namespace httpserver

#endif
