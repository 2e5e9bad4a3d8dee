// request_guard.cpp - the Host allow-list and the cross-origin check of
// state-changing requests (see request_guard.h for who is served and why).
// Stateless: the machine's host name is read for each Host that is neither
// an address nor "localhost", so a renamed device is served by its new name.
#include "platform/request_guard.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <strings.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "platform/dlog.h"

namespace {

// A DNS name has at most 253 characters; an IPv6 literal far fewer.
constexpr std::size_t HOST_NAME_BYTES = 256;
constexpr std::size_t MAX_PORT_DIGITS = 5;
const char* const LOCALHOST_NAMES[] = {"localhost", "localhost."};
constexpr char LOCAL_DOMAIN[] = ".local";
// Methods that change nothing; every other one may.
const char* const SAFE_METHODS[] = {"GET", "HEAD", "OPTIONS"};
// Sec-Fetch-Site values of a request made by the page's own origin, or by
// the user (typed address, bookmark).
const char* const OWN_FETCH_SITES[] = {"same-origin", "none"};
constexpr char ORIGIN_SCHEME[] = "http://";
constexpr char SEC_FETCH_SITE[] = "Sec-Fetch-Site";
// Header values in the debug-log record are cut to this many bytes.
#define LOGGED_VALUE "%.200s"

const char* header_or_dash(const char* value) {
    return value != nullptr ? value : "-";
}

template <std::size_t N>
bool is_one_of(const char* text, const char* const (&list)[N], bool ignore_case) {
    for (const char* entry : list) {
        if ((ignore_case ? strcasecmp(text, entry) : strcmp(text, entry)) == 0) {
            return true;
        }
    }
    return false;
}

// Nothing, or ':' and at most five digits (an empty port is allowed).
bool is_port_suffix(const char* text) {
    if (*text == '\0') {
        return true;
    }
    const std::size_t digits = strspn(text + 1, "0123456789");
    return *text == ':' && digits <= MAX_PORT_DIGITS && text[1 + digits] == '\0';
}

// A Host value split into its name (brackets taken off an IPv6 literal) and
// a well-formed port suffix; false when it is not that shape.
bool split_host(const char* host, char (&name)[HOST_NAME_BYTES], bool* bracketed) {
    *bracketed = host[0] == '[';
    const char* start = *bracketed ? host + 1 : host;
    const char* end = *bracketed ? strchr(start, ']') : start + strcspn(start, ":");
    if (end == nullptr) {
        return false;
    }
    const std::size_t length = static_cast<std::size_t>(end - start);
    if (length == 0 || length >= sizeof name || !is_port_suffix(end + (*bracketed ? 1 : 0))) {
        return false;
    }
    memcpy(name, start, length);
    name[length] = '\0';
    return true;
}

// The machine's host name, or that name followed by ".local".
bool is_own_host_name(const char* name) {
    char own[HOST_NAME_MAX + 1] = "";
    if (gethostname(own, sizeof own) != 0 || own[0] == '\0') {
        return false;
    }
    own[sizeof own - 1] = '\0';
    const std::size_t own_length = strlen(own);
    return strncasecmp(name, own, own_length) == 0 &&
           (name[own_length] == '\0' || strcasecmp(name + own_length, LOCAL_DOMAIN) == 0);
}

bool host_allowed(const char* host) {
    char name[HOST_NAME_BYTES];
    bool bracketed = false;
    if (!split_host(host, name, &bracketed)) {
        return false;
    }
    unsigned char address[sizeof(in6_addr)];
    if (bracketed) {
        return inet_pton(AF_INET6, name, address) == 1;
    }
    return inet_pton(AF_INET, name, address) == 1 ||
           is_one_of(name, LOCALHOST_NAMES, true) || is_own_host_name(name);
}

// Sec-Fetch-Site decides when a browser sent it; else the Origin, which
// must be this very server as the request addressed it.
bool from_own_origin(const request_head& head) {
    if (head.fetch_site != nullptr) {
        return is_one_of(head.fetch_site, OWN_FETCH_SITES, false);
    }
    if (head.origin == nullptr) {
        return true;
    }
    const std::size_t scheme_length = std::size(ORIGIN_SCHEME) - 1;
    return head.host != nullptr && strncmp(head.origin, ORIGIN_SCHEME, scheme_length) == 0 &&
           strcmp(head.origin + scheme_length, head.host) == 0;
}

}  // namespace

request_verdict request_guard_judge(const request_head& head) {
    if (head.host != nullptr && !host_allowed(head.host)) {
        return request_verdict::misdirected;
    }
    if (!is_one_of(head.method, SAFE_METHODS, false) && !from_own_origin(head)) {
        return request_verdict::cross_origin;
    }
    return request_verdict::served;
}

request_verdict request_guard_check(MHD_Connection* connection, const char* method,
                                    const char* url, const std::string& log_path,
                                    int size_limit) {
    const request_head head = {
        method, MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST),
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ORIGIN),
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, SEC_FETCH_SITE)};
    const request_verdict verdict = request_guard_judge(head);
    if (verdict != request_verdict::served && !log_path.empty()) {
        log_File_Debug_s(log_path.c_str(), size_limit,
                         "request refused (%s): %s " LOGGED_VALUE " Host: " LOGGED_VALUE
                         " Origin: " LOGGED_VALUE " Sec-Fetch-Site: " LOGGED_VALUE,
                         verdict == request_verdict::misdirected ? "Host not served"
                                                                 : "cross-origin change",
                         method, url, header_or_dash(head.host), header_or_dash(head.origin),
                         header_or_dash(head.fetch_site));
    }
    return verdict;
}
