// ssci_server.h - the service-bus server: one HTTP server (libmicrohttpd
// with a pool of listener threads) that serves every common_http_resource.
// The calls below are made from the main thread only, in the order
// create, start, stop, destory. Results are 64-bit statuses, 0 for success.
#ifndef MANAGER_SVC_SSCI_SERVER_H
#define MANAGER_SVC_SSCI_SERVER_H

#include <cstddef>
#include <string>

#include "common/result_codes.h"

// Largest request body handed to a handler; a longer one gets 413.
constexpr std::size_t SSCI_MAX_REQUEST_BODY = 64 * 1024;

// Statuses of the calls below (result_codes.h): RESULT_OK, or
// RESULT_BAD_ARGUMENT (a null address, a port outside 1..65535, a thread
// count below 1), RESULT_OUT_OF_ORDER (create twice, start before create,
// destory while the server runs, ...), RESULT_NO_ADDRESS (the listen
// address does not resolve), RESULT_IO (libmicrohttpd could not start its
// threads; any count above 0 is tried), or a failed socket call's errno,
// negated (-EADDRINUSE, ...). Every failure is non-zero.

// Names the debug log that the server records refused relays in (size
// limit as log_File_Debug_s takes it). Called before ssci_server_start;
// without it nothing is recorded.
void ssci_server_set_debug_log(const char* path, int size_limit);

long long ssci_server_create(const char* name, const char* ip_addrs, int port,
                             int thread_no, const char* nameserver_host,
                             int reserved_int, bool reserved_flag, int reserved_int2,
                             std::string reserved_text);
long long ssci_server_start();
long long ssci_server_stop();
long long ssci_server_destory();

#endif
