// metrics_handler.h - the metrics resource "/managerService/metrics": the
// daemon's view of the device's services, its control runs and requests,
// and the standard process metrics, in the Prometheus text exposition
// format, for the fleets whose operators scrape their devices. GET only;
// runs on any listener thread, keeps no state, and reads the other
// modules' counts through their own calls.
#ifndef MANAGER_SVC_METRICS_HANDLER_H
#define MANAGER_SVC_METRICS_HANDLER_H

#include <memory>
#include <string>

#include "platform/httpserver.h"

constexpr const char METRICS_PATH[] = "/managerService/metrics";
constexpr const char METRICS_CONTENT_TYPE[] = "text/plain; version=0.0.4; charset=utf-8";

// The exposition text.
std::string metrics_text();

const std::shared_ptr<httpserver::http_response> proc_metrics_get(
    const httpserver::http_request& request);

#endif
