// result_codes.h - the result codes of the daemon's own calls between its
// modules (the service-bus server and client, the debug log, the utility
// helpers, the control runner): 0 for success, a negated errno value for a
// failure, so that a code in a log line ("ret=[-98]") reads as the errno it
// names. A failed system call passes its own errno on, negated; the names
// below are for the failures that are not a system call's.
// Not these: the "return" member of the JSON replies (svc_info_map.h,
// svcmon_handler.h) and the codes of do_curl_GET_request (http_get_client.h),
// whose numbers the device's clients and console readers know.
#ifndef MANAGER_SVC_RESULT_CODES_H
#define MANAGER_SVC_RESULT_CODES_H

#include <cerrno>

constexpr int RESULT_OK = 0;
// A null or unusable argument (address, port, name, path, count).
constexpr int RESULT_BAD_ARGUMENT = -EINVAL;
// Called out of order (the server started before it is created, ...).
constexpr int RESULT_OUT_OF_ORDER = -EPERM;
// The address does not resolve.
constexpr int RESULT_NO_ADDRESS = -EADDRNOTAVAIL;
// What was asked for is not there (a name, a JSON member).
constexpr int RESULT_NOT_FOUND = -ENOENT;
// A file or thread could not be written or started.
constexpr int RESULT_IO = -EIO;
// No connection, a time-out or a broken reply from another service.
constexpr int RESULT_TRANSPORT = -ECOMM;
// The other service answered with a status other than 200.
constexpr int RESULT_PEER_STATUS = -EPROTO;
// A reply longer than its limit.
constexpr int RESULT_TOO_LARGE = -EMSGSIZE;

#endif
