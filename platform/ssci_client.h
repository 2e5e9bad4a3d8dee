// ssci_client.h - the service-bus client: reaches another service by its
// registered name. The name server's address is set at start-up
// (ssci_nameserver_init, main thread; requests may already arrive) under the
// client's own lock; ssci_GET_request keeps no other state and is reentrant.
#ifndef MANAGER_SVC_SSCI_CLIENT_H
#define MANAGER_SVC_SSCI_CLIENT_H

#include <cstddef>
#include <map>
#include <string>

#include "common/result_codes.h"

// The request arguments of a service-bus call: `args` become the query
// string of the GET. A GET carries no body, so `text` is not sent.
struct query_object {
    std::map<std::string, std::string> args;
    std::string text;
};

// Results of ssci_GET_request and its building blocks (result_codes.h):
// RESULT_OK, or RESULT_BAD_ARGUMENT (null or unusable name, path or
// address), RESULT_TRANSPORT (no connection, time-out, broken reply),
// RESULT_PEER_STATUS (the peer answered with a status other than 200),
// RESULT_TOO_LARGE (the reply is longer than SSCI_REPLY_LIMIT),
// RESULT_NOT_FOUND (the name server does not know the name).

// Largest reply body accepted from the name server or a service.
constexpr std::size_t SSCI_REPLY_LIMIT = 1024 * 1024;

// Where client calls look services up.
void ssci_nameserver_init(const char* host, int port);

// GETs `path` (plus the query's arguments) from the service registered as
// `name`: first the name server's look-up, then the service itself, each
// step within `time_limit` seconds (at least one). The reply body is left in
// `body` on success; on any failure `body` is left empty and the result is
// one of the non-zero codes above. `flag`, `reserved` and `reserved_out`
// belong to the device library's other transports and are not used.
int ssci_GET_request(const char* name, const char* path, query_object* query,
                     std::string& body, long time_limit, bool flag, int reserved,
                     char** reserved_out);

// Building blocks of ssci_GET_request, open to the unit tests.

// `text` with every byte except ALPHA / DIGIT / "-._~" written as %XX.
std::string ssci_url_encode(const std::string& text);

// "http://host:port/path?k=v&..." into `url`: an IPv6 host in brackets,
// query keys and values encoded. RESULT_BAD_ARGUMENT (url untouched) when the
// host is neither an IP address nor a plain host name, the port is outside
// 1..65535 or the path does not start with "/".
int ssci_build_url(const std::string& host, int port, const char* path,
                   const query_object* query, std::string& url);

// Reads the name server's get_info answer: "return" 0, "ip" a usable host,
// "port" an integer in 1..65535. RESULT_NOT_FOUND when "return" is not 0,
// RESULT_BAD_ARGUMENT when the answer is not such an object.
int ssci_parse_service_address(const std::string& reply, std::string& host, int& port);

// libcurl write callback: appends to the std::string at `reply` and refuses
// (returns 0) once the total would pass SSCI_REPLY_LIMIT or memory runs out.
std::size_t ssci_collect_reply(char* data, std::size_t size, std::size_t count,
                               void* reply) noexcept;

#endif
