// ssci_server.h - the service-bus server: one HTTP server (libmicrohttpd
// with a pool of listener threads) that serves every common_http_resource.
// The calls below are made from the main thread only, in the order
// create, start, stop, destory. Results are 64-bit statuses, 0 for success.
#ifndef MANAGER_SVC_SSCI_SERVER_H
#define MANAGER_SVC_SSCI_SERVER_H

#include <string>

// Largest request body handed to a handler; a longer one gets 413.
constexpr std::size_t SSCI_MAX_REQUEST_BODY = 64 * 1024;

long long ssci_server_create(const char* name, const char* ip_addrs, int port,
                             int thread_no, const char* nameserver_host,
                             int reserved_int, bool reserved_flag, int reserved_int2,
                             std::string reserved_text);
long long ssci_server_start();
long long ssci_server_stop();
long long ssci_server_destory();

#endif
