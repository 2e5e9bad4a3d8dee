// prober.h - the reachability prober: one thread that checks, every
// monitor period, whether every registered service answers HTTP
// (http_probe.h), keeps what it found per service, notes the changes as
// events (reach_events.h), and the "get_reachability" reply built from it.
// The prober reads the registry only through svc_info_list (copies) and
// never writes it or its file. Its findings are guarded by its own lock,
// never held while it waits on the network or while the registry lock is
// taken. Started and stopped by the main thread (server start-up and
// shutdown); the reply is built on any listener thread. It writes nothing
// to the console: overruns and state changes go to the debug log.
#ifndef MANAGER_SVC_PROBER_H
#define MANAGER_SVC_PROBER_H

#include <ctime>
#include <string>
#include <vector>

#include "endpoints/json_values.h"
#include "monitor/http_probe.h"
#include "platform/held_requests.h"

constexpr int REACHABILITY_OK = 0;
// Results kept per service in "recent", oldest first.
constexpr std::size_t RECENT_RESULTS_KEPT = 60;
constexpr std::size_t PROBE_STATE_COUNT = 3;

// Changes when a service's state or status code changes, or a service is
// registered, moved or unregistered; not with every check.
extern change_view reachability_view;

// What the prober knows about one registered service at its address.
struct reach_finding {
    std::string name;
    std::string ip;
    int port = 0;
    bool checked = false;  // the rest below holds only once checked
    probe_state state = probe_state::down;
    int http_status = 0;
    time_t checked_at = NO_TIME;
    time_t since = NO_TIME;
    double latency_ms = 0;
    int failures = 0;  // checks in a row that were not up
    const char* error = "";
    unsigned long long checks[PROBE_STATE_COUNT] = {};  // by probe_state
    unsigned long long transitions = 0;  // state changes after the first check
    std::string recent;                  // one letter per result, oldest first
};

// "up", "no answer" or "down".
const char* probe_state_name(probe_state state);

// Starts the prober thread with the monitor period in seconds (> 0), and
// notes the daemon's start (reach_events.h). Returns false, with no thread
// started, when the thread or its wake-up pipe cannot be had.
bool prober_start(int period_seconds);

// Wakes the prober, whatever it waits on, and joins it. Does nothing when
// it was not started.
void prober_stop();

// Every registered service, in the registry's name order, with what the
// prober found at its listed address.
std::vector<reach_finding> prober_findings();

// The "get_reachability" reply text: {"return": 0, "index": N, "version":
// V, "started": T, "period": P, "items": [...]}.
std::string prober_reachability_reply();

#endif
