// metrics_handler.cpp - the metrics text (see the header). Each family is
// written with its HELP and TYPE lines; label values are escaped as the
// format says (backslash, double quote, new line), since a service's name
// may hold any of them. The process figures come from /proc.
#include "monitor/metrics_handler.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <vector>

#include "control/control_runs.h"
#include "endpoints/handler_guard.h"
#include "endpoints/ssci_response.h"
#include "monitor/prober.h"
#include "platform/common_http_resource.h"
#include "platform/request_counts.h"

namespace {

constexpr double MILLISECONDS_PER_SECOND = 1000.0;
constexpr std::size_t NUMBER_TEXT_SIZE = 32;
// Fields of /proc/self/stat after the command's closing parenthesis.
constexpr int STAT_UTIME_FIELD = 14;
constexpr int STAT_STIME_FIELD = 15;
constexpr int STAT_STARTTIME_FIELD = 22;
constexpr int STAT_FIRST_FIELD_AFTER_NAME = 3;

struct label {
    const char* name;
    std::string value;
};

std::string escaped(const std::string& value) {
    std::string text;
    for (char c : value) {
        text += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
    }
    return text;
}

void family(std::string& out, const char* name, const char* type, const char* help) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string& out, const char* name, const std::vector<label>& labels,
            const std::string& value) {
    out += name;
    const char* separator = "{";
    for (const label& each : labels) {
        out += separator + std::string(each.name) + "=\"" + escaped(each.value) + "\"";
        separator = ",";
    }
    out += (labels.empty() ? " " : "} ") + value + "\n";
}

// The labels that name a service, and one more when given.
std::vector<label> service_labels(const reach_finding& known, label more = {nullptr, ""}) {
    std::vector<label> labels = {
        {"name", known.name}, {"ip", known.ip}, {"port", std::to_string(known.port)}};
    if (more.name != nullptr) {
        labels.push_back(more);
    }
    return labels;
}

std::string number(double value) {
    char text[NUMBER_TEXT_SIZE];
    snprintf(text, sizeof text, "%.6f", value);
    return text;
}

void service_metrics(std::string& out) {
    const std::vector<reach_finding> found = prober_findings();
    family(out, "manager_svc_services", "gauge", "Services registered.");
    sample(out, "manager_svc_services", {}, std::to_string(found.size()));
    family(out, "manager_svc_service_up", "gauge",
           "1 when the last check of the service got an HTTP status line; state tells.");
    for (const reach_finding& known : found) {
        const bool up = known.checked && known.state == probe_state::up;
        sample(out, "manager_svc_service_up",
               service_labels(known, {"state", known.checked ? probe_state_name(known.state)
                                                             : "unchecked"}),
               up ? "1" : "0");
    }
    family(out, "manager_svc_service_latency_seconds", "gauge",
           "Time from the last check's connect to its status line, for services up.");
    for (const reach_finding& known : found) {
        if (known.checked && known.state == probe_state::up) {
            sample(out, "manager_svc_service_latency_seconds", service_labels(known),
                   number(known.latency_ms / MILLISECONDS_PER_SECOND));
        }
    }
    family(out, "manager_svc_service_checks_total", "counter",
           "Checks of the service at its address, by result.");
    for (const reach_finding& known : found) {
        for (std::size_t state = 0; state < PROBE_STATE_COUNT; ++state) {
            sample(out, "manager_svc_service_checks_total",
                   service_labels(known,
                                  {"result", probe_state_name(static_cast<probe_state>(state))}),
                   std::to_string(known.checks[state]));
        }
    }
    family(out, "manager_svc_service_transitions_total", "counter",
           "Changes of the service's state at its address.");
    for (const reach_finding& known : found) {
        sample(out, "manager_svc_service_transitions_total", service_labels(known),
               std::to_string(known.transitions));
    }
}

void daemon_metrics(std::string& out) {
    family(out, "manager_svc_control_runs_total", "counter",
           "Init-script runs ended, by method and outcome.");
    for (const control_run_count& count : control_run_counts()) {
        sample(out, "manager_svc_control_runs_total",
               {{"method", count.method}, {"outcome", run_outcome_name(count.outcome)}},
               std::to_string(count.count));
    }
    family(out, "manager_svc_requests_total", "counter",
           "HTTP requests answered, by resource and status.");
    for (const request_count& count : request_counts()) {
        sample(out, "manager_svc_requests_total",
               {{"resource", count.resource}, {"status", count.status}},
               std::to_string(count.count));
    }
}

// Field `wanted` (1-based, as proc(5) counts) of /proc/self/stat.
unsigned long long stat_field(const std::string& stat, int wanted) {
    const std::size_t name_end = stat.rfind(')');
    if (name_end == std::string::npos) {
        return 0;
    }
    const char* at = stat.c_str() + name_end + 1;
    for (int field = STAT_FIRST_FIELD_AFTER_NAME; field < wanted && *at != '\0'; ++field) {
        at = std::strchr(at + 1, ' ');
        at = at == nullptr ? "" : at;
    }
    return *at == '\0' ? 0 : strtoull(at, nullptr, 10);
}

unsigned long long boot_time_seconds() {
    std::ifstream stat("/proc/stat");
    std::string key;
    unsigned long long value = 0;
    while (stat >> key >> value) {
        if (key == "btime") {
            return value;
        }
        stat.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return 0;
}

unsigned open_descriptors() {
    unsigned count = 0;
    DIR* fds = opendir("/proc/self/fd");
    for (dirent* entry = fds ? readdir(fds) : nullptr; entry != nullptr; entry = readdir(fds)) {
        count += entry->d_name[0] != '.';
    }
    if (fds != nullptr) {
        closedir(fds);
    }
    return count > 0 ? count - 1 : 0;  // the directory's own descriptor
}

void process_metrics(std::string& out) {
    std::string stat;
    std::getline(std::ifstream("/proc/self/stat"), stat);
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    unsigned long long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    family(out, "process_cpu_seconds_total", "counter", "User and system CPU time spent.");
    sample(out, "process_cpu_seconds_total", {},
           number(static_cast<double>(stat_field(stat, STAT_UTIME_FIELD) +
                                      stat_field(stat, STAT_STIME_FIELD)) / ticks));
    family(out, "process_resident_memory_bytes", "gauge", "Resident memory size.");
    sample(out, "process_resident_memory_bytes", {},
           std::to_string(resident * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE))));
    family(out, "process_open_fds", "gauge", "Open file descriptors.");
    sample(out, "process_open_fds", {}, std::to_string(open_descriptors()));
    family(out, "process_start_time_seconds", "gauge", "Start time since the Unix epoch.");
    sample(out, "process_start_time_seconds", {},
           number(static_cast<double>(boot_time_seconds()) +
                  static_cast<double>(stat_field(stat, STAT_STARTTIME_FIELD)) / ticks));
}

}  // namespace

std::string metrics_text() {
    std::string out;
    service_metrics(out);
    daemon_metrics(out);
    process_metrics(out);
    return out;
}

const std::shared_ptr<httpserver::http_response> proc_metrics_get(
    const httpserver::http_request&) {
    return make_ssci_response(metrics_text(), HTTP_STATUS_OK, METRICS_CONTENT_TYPE);
}

common_http_resource metrics_resource(METRICS_PATH, guarded<proc_metrics_get>, nullptr, nullptr,
                                      nullptr);
