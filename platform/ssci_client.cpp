// ssci_client.cpp - the service-bus client: looks a service's address up at
// the name server (this daemon's own "get_info" request), then GETs the
// resource from the service, both over HTTP with libcurl's easy interface.
// nameserver_host / nameserver_port: set by ssci_nameserver_init on the
// main thread, which start-up calls once the server already runs, so they
// are guarded by nameserver_lock (held only to copy them, never across a
// network call). Everything else is local to one call, so any number of
// listener threads may call ssci_GET_request at once (curl_global_init is
// done at start-up).
#include "platform/ssci_client.h"

#include <curl/curl.h>
#include <json-c/json.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "platform/loopback.h"
#include "platform/utils.h"

namespace {

std::mutex nameserver_lock;
std::string nameserver_host;  // guarded by nameserver_lock
int nameserver_port = 0;      // guarded by nameserver_lock

// The name server's look-up request.
constexpr const char NAMESERVER_PATH[] = "/managerService/svcmgr";
constexpr const char LOOKUP_METHOD[] = "get_info";

constexpr long HTTP_OK = 200;
constexpr const char PLAIN_HTTP_ONLY[] = "http";
constexpr int MAX_PORT = 65535;
// Longest host name that DNS allows.
constexpr std::size_t MAX_HOST_NAME = 253;
// A time limit below this is raised to it, so that every call is bounded.
constexpr long MIN_TIME_LIMIT_SECONDS = 1;

bool is_host_name_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '.' || c == '-';
}

// An IP address, or a host name made of letters, digits, dots and hyphens:
// nothing that could change the meaning of the URL around it.
bool is_usable_host(const std::string& host) {
    if (isValidIpAddress(host.c_str())) {
        return true;
    }
    if (host.empty() || host.size() > MAX_HOST_NAME) {
        return false;
    }
    for (char c : host) {
        if (!is_host_name_char(c)) {
            return false;
        }
    }
    return true;
}

std::string query_string(const query_object* query) {
    std::string text;
    if (query == nullptr) {
        return text;
    }
    for (const auto& arg : query->args) {
        text += text.empty() ? "?" : "&";
        text += ssci_url_encode(arg.first) + "=" + ssci_url_encode(arg.second);
    }
    return text;
}

int result_of_transfer(CURLcode code, long status) {
    switch (code) {
    case CURLE_OK:
        return status == HTTP_OK ? RESULT_OK : RESULT_PEER_STATUS;
    case CURLE_WRITE_ERROR:
    case CURLE_FILESIZE_EXCEEDED:
        return RESULT_TOO_LARGE;
    default:
        return RESULT_TRANSPORT;
    }
}

void set_transfer_options(CURL* curl, const std::string& url, long time_limit,
                          std::string* received) {
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT,
                     time_limit < MIN_TIME_LIMIT_SECONDS ? MIN_TIME_LIMIT_SECONDS : time_limit);
    // Services on the device are reached directly, never through a proxy
    // that the environment might name.
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    // Plain HTTP only, whatever an address might carry.
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, PLAIN_HTTP_ONLY);
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, PLAIN_HTTP_ONLY);
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(SSCI_REPLY_LIMIT));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, ssci_collect_reply);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, received);
}

// One GET of `url`; `reply` receives the body only when the status is 200.
int http_get(const std::string& url, long time_limit, std::string& reply) {
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        return RESULT_TRANSPORT;
    }
    std::string received;
    set_transfer_options(curl, url, time_limit, &received);
    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    const int result = result_of_transfer(code, status);
    if (result == RESULT_OK) {
        reply.swap(received);
    }
    return result;
}

// The look-up URL for `name` at the name server known right now.
int lookup_url(const char* name, std::string& url) {
    query_object lookup;
    lookup.args["method"] = LOOKUP_METHOD;
    lookup.args["name"] = name;
    std::lock_guard<std::mutex> hold(nameserver_lock);
    return ssci_build_url(nameserver_host, nameserver_port, NAMESERVER_PATH, &lookup, url);
}

int lookup_service(const char* name, long time_limit, std::string& host, int& port) {
    std::string url;
    int result = lookup_url(name, url);
    std::string reply;
    if (result == RESULT_OK) {
        result = http_get(url, time_limit, reply);
    }
    return result == RESULT_OK ? ssci_parse_service_address(reply, host, port) : result;
}

// The members of a get_info answer, or RESULT_BAD_ARGUMENT.
int read_address_members(json_object* answer, std::string& host, int& port) {
    json_object* ip = nullptr;
    json_object* port_member = nullptr;
    if (!json_object_object_get_ex(answer, "ip", &ip) ||
        !json_object_is_type(ip, json_type_string) ||
        !json_object_object_get_ex(answer, "port", &port_member) ||
        !json_object_is_type(port_member, json_type_int)) {
        return RESULT_BAD_ARGUMENT;
    }
    const int64_t port_value = json_object_get_int64(port_member);
    const std::string ip_text = json_object_get_string(ip);
    if (port_value < 1 || port_value > MAX_PORT || !is_usable_host(ip_text)) {
        return RESULT_BAD_ARGUMENT;
    }
    host = ip_text;
    port = static_cast<int>(port_value);
    return RESULT_OK;
}

}  // namespace

void ssci_nameserver_init(const char* host, int port) {
    std::lock_guard<std::mutex> hold(nameserver_lock);
    nameserver_host = without_name_lookup(host);
    nameserver_port = port;
}

std::string ssci_url_encode(const std::string& text) {
    static const char unreserved[] = "-._~";
    std::string encoded;
    for (unsigned char c : text) {
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            (c != '\0' && std::strchr(unreserved, c) != nullptr)) {
            encoded += static_cast<char>(c);
        } else {
            char escape[4];
            snprintf(escape, sizeof escape, "%%%02X", c);
            encoded += escape;
        }
    }
    return encoded;
}

int ssci_build_url(const std::string& host, int port, const char* path,
                   const query_object* query, std::string& url) {
    if (!is_usable_host(host) || port < 1 || port > MAX_PORT || path == nullptr ||
        path[0] != '/') {
        return RESULT_BAD_ARGUMENT;
    }
    const bool ipv6 = host.find(':') != std::string::npos;
    url = std::string("http://") + (ipv6 ? "[" + host + "]" : host) + ":" +
          std::to_string(port) + path + query_string(query);
    return RESULT_OK;
}

int ssci_parse_service_address(const std::string& reply, std::string& host, int& port) {
    json_object* answer = json_tokener_parse(reply.c_str());
    if (answer == nullptr) {
        return RESULT_BAD_ARGUMENT;
    }
    json_object* result = nullptr;
    int status = RESULT_BAD_ARGUMENT;
    if (json_object_is_type(answer, json_type_object) &&
        json_object_object_get_ex(answer, "return", &result) &&
        json_object_is_type(result, json_type_int)) {
        status = json_object_get_int64(result) == 0 ? read_address_members(answer, host, port)
                                                   : RESULT_NOT_FOUND;
    }
    json_object_put(answer);
    return status;
}

std::size_t ssci_collect_reply(char* data, std::size_t size, std::size_t count,
                               void* reply) noexcept {
    std::string* text = static_cast<std::string*>(reply);
    const std::size_t room = SSCI_REPLY_LIMIT - text->size();
    if (size != 0 && count > room / size) {
        return 0;
    }
    try {
        text->append(data, size * count);
    } catch (const std::bad_alloc&) {  // libcurl is C: end the transfer instead
        return 0;
    }
    return size * count;
}

int ssci_GET_request(const char* name, const char* path, query_object* query,
                     std::string& body, long time_limit, bool, int, char**) {
    body.clear();
    if (name == nullptr) {
        return RESULT_BAD_ARGUMENT;
    }
    std::string host;
    int port = 0;
    int result = lookup_service(name, time_limit, host, port);
    std::string url;
    if (result == RESULT_OK) {
        result = ssci_build_url(host, port, path, query, url);
    }
    return result == RESULT_OK ? http_get(url, time_limit, body) : result;
}
