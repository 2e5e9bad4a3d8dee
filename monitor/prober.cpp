// prober.cpp - the reachability prober thread and its findings.
// Threads: the prober thread runs the rounds; the main thread starts and
// stops it; listener threads build the reply.
// reach_lock guards reach_map (the findings per service name). It is held
// only to copy or merge findings: never across a connect, never while the
// registry lock is taken (the registry is listed first, then reach_lock
// is taken). prober_period_seconds (atomic: listener threads read it), the
// wake-up pipe and the thread object are written by the main thread only
// while no prober thread runs.
//
// Schedule: a full round every period checks every registered service.
// Between rounds the prober looks at the registry's change counter every
// REGISTRY_TICK_MS; when it moved, the services that are new or whose
// address changed are checked at once, and unregistered ones are dropped.
// A check may last min(2 s, period - ROUND_MARGIN_MS), so a round ends
// within its period; a round that still overruns (more slow addresses than
// the window holds at once) is followed by the next one without a pause.
#include "monitor/prober.h"

#include <json-c/json.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "common/print_log.h"
#include "endpoints/json_values.h"
#include "endpoints/ssci_response.h"
#include "monitor/svcmon_handler.h"
#include "monitor/tcp_probe.h"
#include "registry/svc_info_map.h"

namespace {

constexpr long long MAX_CHECK_MS = 2000;
constexpr long long ROUND_MARGIN_MS = 50;
constexpr long long MILLISECONDS_PER_SECOND = 1000;
constexpr int REGISTRY_TICK_MS = 250;
// Checks' sockets are kept from round to round only when rounds come this
// often at least: then they spare the kernel most of a check's cost. With
// longer periods each round makes its own, and no descriptor is held
// between rounds.
constexpr long long KEEP_SOCKETS_MAX_PERIOD_MS = 2000;
// Connects in flight at once: a quarter of the descriptor limit (the rest
// stays for the server's connections and files), within these bounds.
constexpr std::size_t DESCRIPTOR_SHARE = 4;
constexpr std::size_t MIN_WINDOW = 8;
constexpr std::size_t MAX_WINDOW = 512;
// The latency as text, in milliseconds to the microsecond.
constexpr std::size_t LATENCY_TEXT_SIZE = 32;

// What the prober knows about one service, for the address it checked.
struct reachability {
    std::string ip;
    int port = 0;
    bool checked = false;
    bool reachable = false;
    time_t checked_at = NO_TIME;
    time_t since = NO_TIME;
    double latency_ms = 0;
    int failures = 0;
    const char* error = "";
    unsigned long long listed = 0;  // the listing that last saw the service
};

std::mutex reach_lock;
std::map<std::string, reachability> reach_map;  // guarded by reach_lock
unsigned long long listing_count = 0;           // guarded by reach_lock

std::atomic<int> prober_period_seconds{0};
int wake_pipe[2] = {-1, -1};
std::thread prober_thread;

// One service to check in a round, by name and the address it was listed with.
struct probe_job {
    std::string name;
    probe_target target;
};

bool same_address(const reachability& known, const svc_info_entry& entry) {
    return known.ip == entry.ip && known.port == entry.port;
}

// Brings the findings in line with the registry listing: unregistered
// names are dropped, a changed address starts afresh. Returns the services
// to check: all of them, or only those never checked at their address.
std::vector<probe_job> reconcile(const svc_info_entry_list& entries, bool only_unchecked) {
    std::vector<probe_job> jobs;
    std::lock_guard<std::mutex> hold(reach_lock);
    const unsigned long long listing = ++listing_count;
    for (const std::unique_ptr<svc_info_entry>& entry : entries) {
        reachability& known = reach_map[entry->name];
        if (!same_address(known, *entry)) {
            known = reachability();
            known.ip = entry->ip;
            known.port = entry->port;
        }
        known.listed = listing;
        if (!only_unchecked || !known.checked) {
            jobs.push_back({entry->name, {entry->ip, entry->port}});
        }
    }
    for (auto it = reach_map.begin(); it != reach_map.end();) {
        it = it->second.listed == listing ? std::next(it) : reach_map.erase(it);
    }
    return jobs;
}

void note_result(reachability& known, const probe_result& result, time_t now) {
    if (!known.checked || known.reachable != result.reachable) {
        known.since = now;
    }
    known.checked = true;
    known.reachable = result.reachable;
    known.checked_at = now;
    known.latency_ms = result.latency_ms;
    known.error = result.error;
    known.failures = result.reachable ? 0 : std::min(known.failures, INT_MAX - 1) + 1;
}

// Stores the results of services still registered at the address checked.
void record(const std::vector<probe_job>& jobs, const std::vector<probe_result>& results) {
    const time_t now = time(nullptr);
    std::lock_guard<std::mutex> hold(reach_lock);
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        auto found = reach_map.find(jobs[i].name);
        if (found != reach_map.end() && found->second.ip == jobs[i].target.ip &&
            found->second.port == jobs[i].target.port) {
            note_result(found->second, results[i], now);
        }
    }
}

long long period_ms() {
    return prober_period_seconds.load() * MILLISECONDS_PER_SECOND;
}

probe_limits round_limits() {
    probe_limits limits;
    limits.timeout_ms = static_cast<int>(std::min(MAX_CHECK_MS, period_ms() - ROUND_MARGIN_MS));
    rlimit descriptors;
    std::size_t share = MAX_WINDOW;
    if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0 && descriptors.rlim_cur != RLIM_INFINITY) {
        share = static_cast<std::size_t>(descriptors.rlim_cur) / DESCRIPTOR_SHARE;
    }
    limits.window = std::clamp(share, MIN_WINDOW, MAX_WINDOW);
    return limits;
}

long long monotonic_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * MILLISECONDS_PER_SECOND +
           now.tv_nsec / 1000000;
}

// A full round's duration at DEBUG; a round longer than the period at WARN.
void log_full_round(std::size_t services, long long elapsed_ms) {
    print_log(DEBUG, "prober round: %zu services in %lld ms\n", services, elapsed_ms);
    if (elapsed_ms > period_ms()) {
        print_log(WARN, "prober round of %zu services took %lld ms, longer than the period\n",
                  services, elapsed_ms);
    }
}

// One round over the registry; false when the prober is to stop.
bool run_round(bool only_unchecked, probe_sockets& sockets) {
    const long long started = monotonic_ms();
    svc_info_entry_list entries;
    svc_info_list(entries);
    std::vector<probe_job> jobs = reconcile(entries, only_unchecked);
    svc_info_list_free(entries);
    std::vector<probe_target> targets;
    for (const probe_job& job : jobs) {
        targets.push_back(job.target);
    }
    std::vector<probe_result> results;
    probe_sockets* kept = period_ms() <= KEEP_SOCKETS_MAX_PERIOD_MS ? &sockets : nullptr;
    if (!probe_targets(targets, round_limits(), wake_pipe[0], results, kept)) {
        return false;
    }
    record(jobs, results);
    if (!only_unchecked) {
        log_full_round(jobs.size(), monotonic_ms() - started);
    }
    return true;
}

// Waits up to `ms` for the stop byte; true when it came.
bool stop_requested_within(long long ms) {
    pollfd wake = {wake_pipe[0], POLLIN, 0};
    return poll(&wake, 1, static_cast<int>(ms)) > 0;
}

// Until the next round is due: checks new and changed services as soon as
// the registry's change counter moves. False when the prober is to stop.
bool wait_for_round(long long due_ms, unsigned long long* generation, probe_sockets& sockets) {
    for (long long now = monotonic_ms(); now < due_ms; now = monotonic_ms()) {
        if (stop_requested_within(std::min<long long>(due_ms - now, REGISTRY_TICK_MS))) {
            return false;
        }
        unsigned long long current = svc_info_generation();
        if (current != *generation) {
            *generation = current;
            if (!run_round(true, sockets)) {
                return false;
            }
        }
    }
    return true;
}

// The checks' sockets, when kept from round to round, are closed when the
// thread ends.
void prober_main() {
    probe_sockets sockets;
    for (;;) {
        const long long round_start = monotonic_ms();
        unsigned long long generation = svc_info_generation();
        if (!run_round(false, sockets) ||
            !wait_for_round(round_start + period_ms(), &generation, sockets)) {
            return;
        }
    }
}

void close_wake_pipe() {
    for (int& fd : wake_pipe) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
}

// A copy of the findings for each listed service (a fresh, unchecked one
// when the prober has not yet seen the service at its listed address).
std::vector<reachability> findings_for(const svc_info_entry_list& entries) {
    std::vector<reachability> found;
    std::lock_guard<std::mutex> hold(reach_lock);
    for (const std::unique_ptr<svc_info_entry>& entry : entries) {
        auto known = reach_map.find(entry->name);
        bool current = known != reach_map.end() && same_address(known->second, *entry);
        found.push_back(current ? known->second : reachability());
    }
    return found;
}

json_object* new_latency(const reachability& known) {
    if (!known.checked || !known.reachable) {
        return nullptr;
    }
    char text[LATENCY_TEXT_SIZE];
    snprintf(text, sizeof text, "%.3f", known.latency_ms);
    return json_object_new_double_s(known.latency_ms, text);
}

json_object* new_reachability_item(const svc_info_entry& entry, const reachability& known) {
    json_object* item = json_object_new_object();
    json_object_object_add(item, "name", json_object_new_string(entry.name.c_str()));
    json_object_object_add(item, "ip", json_object_new_string(entry.ip.c_str()));
    json_object_object_add(item, "port", json_object_new_int(entry.port));
    json_object_object_add(item, "reachable",
                           known.checked ? json_object_new_boolean(known.reachable) : nullptr);
    json_object_object_add(item, "checked", new_utc_time_or_null(known.checked_at));
    json_object_object_add(item, "since", new_utc_time_or_null(known.since));
    json_object_object_add(item, "latency_ms", new_latency(known));
    json_object_object_add(item, "failures", json_object_new_int(known.failures));
    json_object_object_add(item, "error", json_object_new_string(known.error));
    return item;
}

}  // namespace

bool prober_start(int period_seconds) {
    prober_period_seconds.store(period_seconds);  // the reply shows it even if no thread runs
    if (pipe2(wake_pipe, O_CLOEXEC) != 0) {
        return false;
    }
    try {
        prober_thread = std::thread(prober_main);
    } catch (const std::system_error&) {
        close_wake_pipe();
        return false;
    }
    return true;
}

void prober_stop() {
    if (!prober_thread.joinable()) {
        return;
    }
    const char stop = 1;
    ssize_t written = write(wake_pipe[1], &stop, 1);
    (void)written;  // a full pipe is already readable
    prober_thread.join();
    close_wake_pipe();
}

std::string prober_reachability_reply() {
    svc_info_entry_list entries;
    svc_info_list(entries);
    std::vector<reachability> found = findings_for(entries);
    json_object* items = json_object_new_array();
    for (std::size_t i = 0; i < entries.size(); ++i) {
        json_object_array_add(items, new_reachability_item(*entries[i], found[i]));
    }
    svc_info_list_free(entries);
    json_object* reply = new_reply_object(SVCMON_OK);
    json_object_object_add(reply, "period",
                           json_object_new_int(prober_period_seconds.load()));
    json_object_object_add(reply, "items", items);
    return take_json_text(reply);
}
