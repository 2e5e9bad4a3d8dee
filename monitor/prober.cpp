// prober.cpp - the reachability prober thread and its findings.
// Threads: the prober thread runs the rounds; the main thread starts and
// stops it; listener threads (and the metrics) read the findings.
// reach_lock guards reach_map and listing_count. It is held only to copy
// or merge findings: never across a check, never while the registry lock
// is taken (the registry is listed first, then reach_lock is taken). A
// check's result is merged as soon as that check ends (from inside
// probe_targets' poll loop, between waits), so a service that goes down is
// seen at once even while a hung service's check of the same round runs on.
// prober_period_seconds (atomic: listener threads read it), the wake-up
// pipe, the thread object and last_overrun_log_ms are written by the main
// thread only while no prober thread runs, or by the prober thread alone.
//
// Schedule: a full round every period checks every registered service.
// Between rounds the prober looks at the registry's change counter every
// REGISTRY_TICK_MS; when it moved, the services that are new or whose
// address changed are checked at once, and unregistered ones are dropped.
// A check may last min(2 s, period - ROUND_MARGIN_MS), so a round ends
// within its period unless more services hang than PROBE_IN_FLIGHT checks
// can wait for at once; then the next round follows without a pause.
#include "monitor/prober.h"

#include <json-c/json.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

#include "common/print_log.h"
#include "endpoints/ssci_response.h"
#include "main/settings.h"
#include "monitor/reach_events.h"
#include "registry/svc_info_map.h"

change_view reachability_view;

namespace {

constexpr long long MAX_CHECK_MS = 2000;
constexpr long long ROUND_MARGIN_MS = 50;
constexpr long long MILLISECONDS_PER_SECOND = 1000;
constexpr int REGISTRY_TICK_MS = 250;
// At most one debug-log record of an overrun round per this time.
constexpr long long OVERRUN_LOG_INTERVAL_MS = 60 * MILLISECONDS_PER_SECOND;
// The latency as text, in milliseconds to the microsecond.
constexpr std::size_t LATENCY_TEXT_SIZE = 32;
constexpr const char* const STATE_NAMES[PROBE_STATE_COUNT] = {"down", "no answer", "up"};
constexpr char RECENT_LETTERS[PROBE_STATE_COUNT] = {'d', 'n', 'u'};

// What the prober knows about one service, and the listing that last saw it.
struct known_service {
    reach_finding found;
    unsigned long long listed = 0;
};

std::mutex reach_lock;
std::map<std::string, known_service> reach_map;  // guarded by reach_lock
unsigned long long listing_count = 0;            // guarded by reach_lock

std::atomic<int> prober_period_seconds{0};
int wake_pipe[2] = {-1, -1};
std::thread prober_thread;
long long last_overrun_log_ms = -OVERRUN_LOG_INTERVAL_MS;  // prober thread only

// One service to check in a round, by name and the address it was listed with.
struct probe_job {
    std::string name;
    probe_target target;
};

std::size_t state_slot(probe_state state) {
    return static_cast<std::size_t>(state);
}

std::string address_of(const std::string& ip, int port) {
    return ip + ":" + std::to_string(port);
}

bool same_address(const reach_finding& known, const svc_info_entry& entry) {
    return known.ip == entry.ip && known.port == entry.port;
}

// A fresh finding for the entry's address; a registration or move is an
// event unless this is the first listing (the registry just restored).
void start_afresh(reach_finding& known, const svc_info_entry& entry, bool first_listing) {
    const bool moved = !known.name.empty();
    const std::string old_address = address_of(known.ip, known.port);
    known = reach_finding();
    known.name = entry.name;
    known.ip = entry.ip;
    known.port = entry.port;
    if (moved) {
        reach_event_add(entry.name, EVENT_MOVED, nullptr, nullptr,
                        old_address + " -> " + address_of(entry.ip, entry.port));
    } else if (!first_listing) {
        reach_event_add(entry.name, EVENT_REGISTERED, nullptr, nullptr,
                        address_of(entry.ip, entry.port));
    }
}

// Drops the services that this listing did not see; true when any went.
bool drop_unlisted(unsigned long long listing) {
    bool dropped = false;
    for (auto it = reach_map.begin(); it != reach_map.end();) {
        if (it->second.listed == listing) {
            ++it;
            continue;
        }
        const reach_finding& gone = it->second.found;
        reach_event_add(gone.name, EVENT_UNREGISTERED, nullptr, nullptr,
                        address_of(gone.ip, gone.port));
        it = reach_map.erase(it);
        dropped = true;
    }
    return dropped;
}

// Brings the findings in line with the registry listing: unregistered
// names are dropped, a changed address starts afresh. Returns the services
// to check: all of them, or only those never checked at their address.
std::vector<probe_job> reconcile(const svc_info_entry_list& entries, bool only_unchecked) {
    std::vector<probe_job> jobs;
    bool changed = false;
    std::lock_guard<std::mutex> hold(reach_lock);
    const unsigned long long listing = ++listing_count;
    for (const std::unique_ptr<svc_info_entry>& entry : entries) {
        known_service& known = reach_map[entry->name];
        if (known.listed == 0 || !same_address(known.found, *entry)) {
            start_afresh(known.found, *entry, listing == 1);
            changed = true;
        }
        known.listed = listing;
        if (!only_unchecked || !known.found.checked) {
            jobs.push_back({entry->name, {entry->ip, entry->port}});
        }
    }
    if (drop_unlisted(listing) || changed) {
        reachability_view.changed();
    }
    return jobs;
}

// A state change after the first check: an event and a debug-log record.
void note_state_change(const reach_finding& known, probe_state to, const char* error) {
    const char* from = known.checked ? probe_state_name(known.state) : nullptr;
    reach_event_add(known.name, EVENT_STATE, from, probe_state_name(to), error);
    if (known.checked) {
        debug_log("reachability of %s at %s:%d: %s -> %s %s", known.name.c_str(),
                  known.ip.c_str(), known.port, from, probe_state_name(to), error);
    }
}

// Merges one result; true when the view changes (state or status code).
bool note_result(reach_finding& known, const probe_result& result, time_t now) {
    const bool state_changed = !known.checked || known.state != result.state;
    const bool view_changed = state_changed || known.http_status != result.http_status;
    if (state_changed) {
        note_state_change(known, result.state, result.error);
        known.transitions += known.checked ? 1 : 0;
        known.since = now;
    }
    known.checked = true;
    known.state = result.state;
    known.http_status = result.http_status;
    known.checked_at = now;
    known.latency_ms = result.latency_ms;
    known.error = result.error;
    const bool up = result.state == probe_state::up;
    known.failures = up ? 0 : std::min(known.failures, INT_MAX - 1) + 1;
    ++known.checks[state_slot(result.state)];
    known.recent.push_back(RECENT_LETTERS[state_slot(result.state)]);
    if (known.recent.size() > RECENT_RESULTS_KEPT) {
        known.recent.erase(0, known.recent.size() - RECENT_RESULTS_KEPT);
    }
    return view_changed;
}

// Stores one check's result for the services still registered at the
// address checked: `checked` are the jobs of that address. Called as soon
// as the check ends, so a hung service's check holds back no other result.
void record(const std::vector<probe_job>& jobs, const std::vector<std::size_t>& checked,
            const probe_result& result) {
    const time_t now = time(nullptr);
    bool changed = false;
    std::lock_guard<std::mutex> hold(reach_lock);
    for (std::size_t job : checked) {
        auto found = reach_map.find(jobs[job].name);
        if (found != reach_map.end() && found->second.found.ip == jobs[job].target.ip &&
            found->second.found.port == jobs[job].target.port) {
            changed = note_result(found->second.found, result, now) || changed;
        }
    }
    if (changed) {
        reachability_view.changed();
    }
}

long long period_ms() {
    return prober_period_seconds.load() * MILLISECONDS_PER_SECOND;
}

int check_timeout_ms() {
    return static_cast<int>(std::min(MAX_CHECK_MS, period_ms() - ROUND_MARGIN_MS));
}

long long monotonic_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * MILLISECONDS_PER_SECOND +
           now.tv_nsec / 1000000;
}

// A full round longer than the period: one debug-log record a minute at most.
void note_overrun(std::size_t services, long long elapsed_ms) {
    const long long now = monotonic_ms();
    if (elapsed_ms <= period_ms() || now - last_overrun_log_ms < OVERRUN_LOG_INTERVAL_MS) {
        return;
    }
    last_overrun_log_ms = now;
    debug_log("prober round of %zu services took %lld ms, longer than the period of %d s",
              services, elapsed_ms, prober_period_seconds.load());
}

// The distinct addresses of the jobs: a service registered under several
// names is checked once per round, and every name gets that result (its
// latency is the service's, whatever the names' order). target_jobs[t]
// lists the jobs at targets[t].
std::vector<probe_target> distinct_targets(const std::vector<probe_job>& jobs,
                                           std::vector<std::vector<std::size_t>>& target_jobs) {
    std::vector<probe_target> targets;
    std::map<std::pair<std::string, int>, std::size_t> seen;
    for (std::size_t job = 0; job < jobs.size(); ++job) {
        const probe_target& target = jobs[job].target;
        auto found = seen.emplace(std::make_pair(target.ip, target.port), targets.size());
        if (found.second) {
            targets.push_back(target);
            target_jobs.emplace_back();
        }
        target_jobs[found.first->second].push_back(job);
    }
    return targets;
}

// One round over the registry; false when the prober is to stop. Each
// check's result is recorded as it comes in.
bool run_round(bool only_unchecked) {
    const long long started = monotonic_ms();
    svc_info_entry_list entries;
    svc_info_list(entries);
    std::vector<probe_job> jobs = reconcile(entries, only_unchecked);
    svc_info_list_free(entries);
    std::vector<std::vector<std::size_t>> target_jobs;
    std::vector<probe_target> targets = distinct_targets(jobs, target_jobs);
    auto done = [&jobs, &target_jobs](std::size_t target, const probe_result& result) {
        record(jobs, target_jobs[target], result);
    };
    if (!probe_targets(targets, check_timeout_ms(), wake_pipe[0], done)) {
        return false;
    }
    if (!only_unchecked) {
        note_overrun(jobs.size(), monotonic_ms() - started);
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
bool wait_for_round(long long due_ms, unsigned long long* generation) {
    for (long long now = monotonic_ms(); now < due_ms; now = monotonic_ms()) {
        if (stop_requested_within(std::min<long long>(due_ms - now, REGISTRY_TICK_MS))) {
            return false;
        }
        unsigned long long current = svc_info_generation();
        if (current != *generation) {
            *generation = current;
            if (!run_round(true)) {
                return false;
            }
        }
    }
    return true;
}

void prober_main() {
    for (;;) {
        const long long round_start = monotonic_ms();
        unsigned long long generation = svc_info_generation();
        if (!run_round(false) || !wait_for_round(round_start + period_ms(), &generation)) {
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

json_object* new_latency(const reach_finding& known) {
    if (!known.checked || known.state != probe_state::up) {
        return nullptr;
    }
    char text[LATENCY_TEXT_SIZE];
    snprintf(text, sizeof text, "%.3f", known.latency_ms);
    return json_object_new_double_s(known.latency_ms, text);
}

json_object* new_count(unsigned long long count) {
    const unsigned long long largest = INT64_MAX;
    return json_object_new_int64(static_cast<int64_t>(std::min(count, largest)));
}

json_object* new_reachability_item(const reach_finding& known) {
    const bool up = known.checked && known.state == probe_state::up;
    json_object* item = json_object_new_object();
    json_object_object_add(item, "name", json_object_new_string(known.name.c_str()));
    json_object_object_add(item, "ip", json_object_new_string(known.ip.c_str()));
    json_object_object_add(item, "port", json_object_new_int(known.port));
    json_object_object_add(item, "reachable",
                           known.checked ? json_object_new_boolean(up) : nullptr);
    const char* state = known.checked ? probe_state_name(known.state) : nullptr;
    json_object_object_add(item, "state", state ? json_object_new_string(state) : nullptr);
    json_object_object_add(item, "http_status", new_int_or_null(up, known.http_status));
    json_object_object_add(item, "checked", new_utc_time_or_null(known.checked_at));
    json_object_object_add(item, "since", new_utc_time_or_null(known.since));
    json_object_object_add(item, "latency_ms", new_latency(known));
    json_object_object_add(item, "failures", json_object_new_int(known.failures));
    json_object_object_add(item, "error", json_object_new_string(known.error));
    unsigned long long checks = 0;
    for (unsigned long long count : known.checks) {
        checks += count;
    }
    json_object_object_add(item, "checks", new_count(checks));
    json_object_object_add(item, "up_checks", new_count(known.checks[state_slot(probe_state::up)]));
    json_object_object_add(item, "recent", json_object_new_string(known.recent.c_str()));
    return item;
}

}  // namespace

const char* probe_state_name(probe_state state) {
    return STATE_NAMES[state_slot(state)];
}

bool prober_start(int period_seconds) {
    prober_period_seconds.store(period_seconds);  // the reply shows it even if no thread runs
    reach_events_start();
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

std::vector<reach_finding> prober_findings() {
    svc_info_entry_list entries;
    svc_info_list(entries);
    std::vector<reach_finding> found;
    {
        std::lock_guard<std::mutex> hold(reach_lock);
        for (const std::unique_ptr<svc_info_entry>& entry : entries) {
            auto known = reach_map.find(entry->name);
            if (known != reach_map.end() && same_address(known->second.found, *entry)) {
                found.push_back(known->second.found);
                continue;
            }
            found.emplace_back();
            found.back().name = entry->name;
            found.back().ip = entry->ip;
            found.back().port = entry->port;
        }
    }
    svc_info_list_free(entries);
    return found;
}

std::string prober_reachability_reply() {
    const unsigned long long index = reachability_view.index();
    json_object* items = json_object_new_array();
    for (const reach_finding& known : prober_findings()) {
        json_object_array_add(items, new_reachability_item(known));
    }
    json_object* reply = new_reply_object(REACHABILITY_OK);
    json_object_object_add(reply, "index", new_count(index));
    json_object_object_add(reply, "version", json_object_new_string(PROGRAM_VERSION));
    json_object_object_add(reply, "started", new_utc_time_or_null(daemon_started_at()));
    json_object_object_add(reply, "period", json_object_new_int(prober_period_seconds.load()));
    json_object_object_add(reply, "items", items);
    return take_json_text(reply);
}
