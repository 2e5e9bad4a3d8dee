// http_get_client.h - the monitor's HTTP GET client: one GET to another
// service on the device through libcurl's easy interface, with the reply
// body collected in the caller's string.
// Reentrant: every buffer lives in the call's frame and every call makes
// and cleans up its own easy handle; called from any listener thread.
#ifndef MANAGER_SVC_HTTP_GET_CLIENT_H
#define MANAGER_SVC_HTTP_GET_CLIENT_H

#include <cstddef>
#include <string>

// Result codes of do_curl_GET_request; besides these, the peer's status
// itself for 302, 400, 401, 403, 404 and 405. The history request prints
// the code on the console ("do_curl_GET_request = %lld"), so these numbers
// are what its readers know and stay as they are (positive, unlike the
// internal codes of result_codes.h).
constexpr long long HTTP_GET_OK = 0;            // the peer answered 200
constexpr long long HTTP_GET_TOO_LONG = 1;      // host, path and query too long
constexpr long long HTTP_GET_NO_HANDLE = 2;     // libcurl gave no easy handle
constexpr long long HTTP_GET_TRANSFER_FAILED = 3;  // connection, time-out, oversize reply
constexpr long long HTTP_GET_OTHER_STATUS = 4;  // any other status, 0 included

// Size of the URL text (and of the path text).
constexpr std::size_t HTTP_GET_URL_SIZE = 1024;
// The longest reply body kept; a peer that sends more is cut off and the
// transfer counts as failed.
constexpr std::size_t HTTP_GET_MAX_REPLY = 1024 * 1024;
// The whole transfer, connection included, may take this many seconds.
constexpr long HTTP_GET_TIMEOUT_SECONDS = 2;

// Writes "host:port/path?query" into url (HTTP_GET_URL_SIZE bytes): the
// address cut to 30 characters, one leading "/" of a longer path dropped,
// no "?" for a null or empty query. Returns HTTP_GET_OK, or
// HTTP_GET_TOO_LONG (url untouched) when host + path + query + 90 > 1024.
long long build_get_url(const char* host, int port, const char* path, const char* query,
                        char (&url)[HTTP_GET_URL_SIZE]);

// libcurl write callback: appends size * count bytes to the std::string
// given as user pointer and returns that count, or 0 (which ends the
// transfer) when the string would grow past HTTP_GET_MAX_REPLY or memory
// runs out.
std::size_t curl_write_to_string(void* data, std::size_t size, std::size_t count,
                                 void* user) noexcept;

// GETs http://host:port/path?query within HTTP_GET_TIMEOUT_SECONDS and
// appends the reply body to *response (never cleared here). Returns one of
// the codes above.
long long do_curl_GET_request(const char* host, int port, const char* path,
                              const char* query, std::string* response);

#endif
