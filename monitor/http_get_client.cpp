// http_get_client.cpp - the monitor's HTTP GET client (see the header).
// No state of its own; the console log is the only shared thing it touches.
// curl_global_init runs once at start-up (lifecycle), before any listener
// thread, so handle creation here never initialises the library.
#include "monitor/http_get_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/print_log.h"

namespace {

// The bare source name that the client's console lines carry: the client
// belongs to the svcmon_handler module.
constexpr const char SVCMON_SOURCE_NAME[] = "svcmon_handler.cpp";

constexpr std::size_t ADDRESS_SIZE = 32;
constexpr std::size_t ADDRESS_MAX_CHARS = 30;
constexpr std::size_t PATH_MAX_CHARS = 1022;
constexpr std::size_t URL_MAX_CHARS = 1022;
// What the URL adds to host, path and query, with room to spare.
constexpr std::size_t URL_OVERHEAD = 90;

constexpr long HTTP_STATUS_200 = 200;
// The only protocol libcurl may speak for this client.
constexpr const char PLAIN_HTTP_ONLY[] = "http";
// Peer statuses that are reported as themselves; any other one is
// HTTP_GET_OTHER_STATUS.
constexpr long PASSED_THROUGH_STATUSES[] = {302, 400, 401, 403, 404, 405};

// A null text counts as empty.
std::size_t text_length(const char* text) {
    return text == nullptr ? 0 : strlen(text);
}

const char* text_or_empty(const char* text) {
    return text == nullptr ? "" : text;
}

long long status_result(long status) {
    if (status == HTTP_STATUS_200) {
        return HTTP_GET_OK;
    }
    print_log(DEBUG, "%s curl_easy_perform() failed, http_code=[%d]\n", SVCMON_SOURCE_NAME,
              static_cast<int>(status));
    for (long passed : PASSED_THROUGH_STATUSES) {
        if (status == passed) {
            return status;
        }
    }
    return HTTP_GET_OTHER_STATUS;
}

// Sets the transfer's options, in this order; the request carries only
// libcurl's own headers, follows no redirect and has no separate connect
// time-out. Plain HTTP only: a registered address that carries a scheme of
// its own ("dict://...", "file://...") makes the transfer fail instead.
void set_get_options(CURL* curl, const char* url, std::string* response) {
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, curl_write_to_string);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, response);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, HTTP_GET_TIMEOUT_SECONDS);
    // Services on the device are reached directly, never through a proxy
    // that the environment might name.
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, PLAIN_HTTP_ONLY);
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, PLAIN_HTTP_ONLY);
}

}  // namespace

long long build_get_url(const char* host, int port, const char* path, const char* query,
                        char (&url)[HTTP_GET_URL_SIZE]) {
    if (text_length(host) + text_length(path) + URL_OVERHEAD + text_length(query) >
        HTTP_GET_URL_SIZE) {
        return HTTP_GET_TOO_LONG;
    }
// Every cut below is intended (each text is held to its buffer), so the
// compiler's truncation warning is off for these calls.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
    char address[ADDRESS_SIZE] = {};
    char path_text[HTTP_GET_URL_SIZE] = {};
    memset(url, 0, HTTP_GET_URL_SIZE);
    snprintf(address, ADDRESS_MAX_CHARS + 1, "%s:%d", text_or_empty(host), port);
    snprintf(path_text, PATH_MAX_CHARS + 1, "%s", text_or_empty(path));
    if (strlen(path_text) > 1 && path_text[0] == '/') {
        memmove(path_text, path_text + 1, strlen(path_text));
    }
    if (text_length(query) > 0) {
        std::size_t used = strlen(path_text);
        snprintf(path_text + used, sizeof path_text - used, "?%s", query);
    }
    snprintf(url, URL_MAX_CHARS + 1, "%s/%s", address, path_text);
#pragma GCC diagnostic pop
    return HTTP_GET_OK;
}

std::size_t curl_write_to_string(void* data, std::size_t size, std::size_t count,
                                 void* user) noexcept {
    std::string* response = static_cast<std::string*>(user);
    std::size_t room = HTTP_GET_MAX_REPLY - std::min(response->size(), HTTP_GET_MAX_REPLY);
    if (size != 0 && count > room / size) {
        return 0;
    }
    std::size_t bytes = size * count;
    try {
        response->append(static_cast<const char*>(data), bytes);
    } catch (const std::bad_alloc&) {  // libcurl is C: end the transfer instead
        return 0;
    }
    return bytes;
}

long long do_curl_GET_request(const char* host, int port, const char* path,
                              const char* query, std::string* response) {
    char url[HTTP_GET_URL_SIZE];
    if (build_get_url(host, port, path, query, url) != HTTP_GET_OK) {
        return HTTP_GET_TOO_LONG;
    }
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        // A distinct code, so that the caller reports a failed relay rather
        // than an empty success.
        print_log(DEBUG, "%s curl_easy_init() failed\n", SVCMON_SOURCE_NAME);
        return HTTP_GET_NO_HANDLE;
    }
    set_get_options(curl, url, response);
    CURLcode result = curl_easy_perform(curl);
    if (result != CURLE_OK) {
        curl_easy_cleanup(curl);
        print_log(DEBUG, "%s curl_easy_perform() failed: %s\n", SVCMON_SOURCE_NAME,
                  curl_easy_strerror(result));
        return HTTP_GET_TRANSFER_FAILED;
    }
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    return status_result(status);
}
