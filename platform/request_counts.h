// request_counts.h - requests answered, by resource and HTTP status, for
// the metrics. Counted on the listener threads when a request completes,
// with atomic counters and no lock; read by the metrics handler. The
// counters live in fixed storage that needs no teardown.
#ifndef MANAGER_SVC_REQUEST_COUNTS_H
#define MANAGER_SVC_REQUEST_COUNTS_H

#include <string>
#include <vector>

#include "platform/common_http_resource.h"

// The resource label of requests that no resource served.
constexpr const char NO_RESOURCE_LABEL[] = "none";
// The status label of the statuses not counted one by one.
constexpr const char OTHER_STATUS_LABEL[] = "other";

// Counts one answered request (resource null: none served it).
void request_counts_add(const common_http_resource* resource, unsigned status);

struct request_count {
    std::string resource;  // its path, or NO_RESOURCE_LABEL
    std::string status;    // the code, or OTHER_STATUS_LABEL
    unsigned long long count;
};
// Every pair counted so far.
std::vector<request_count> request_counts();

#endif
