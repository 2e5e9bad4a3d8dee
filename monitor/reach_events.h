// reach_events.h - what happened to the registered services, kept: the
// last REACH_EVENTS_KEPT events (state changes found by the prober,
// registrations, moves to a new address, unregistrations, and the daemon's
// start), and the "get_events" reply, newest first.
// Written by the prober thread (and once by the main thread at start),
// read by listener threads; events_lock (in the .cpp) guards the ring.
#ifndef MANAGER_SVC_REACH_EVENTS_H
#define MANAGER_SVC_REACH_EVENTS_H

#include <ctime>
#include <string>

#include "platform/held_requests.h"

constexpr int REACH_EVENTS_KEPT = 256;
constexpr int REACH_EVENTS_OK = 0;

// The events' kinds, as the reply names them.
constexpr const char EVENT_STATE[] = "state";
constexpr const char EVENT_REGISTERED[] = "registered";
constexpr const char EVENT_MOVED[] = "moved";
constexpr const char EVENT_UNREGISTERED[] = "unregistered";
constexpr const char EVENT_STARTED[] = "started";

// Changes with every event kept.
extern change_view reach_events_view;

// Notes the daemon's start: its time and the "started" event. Main thread,
// before the prober starts.
void reach_events_start();

// The UTC time of reach_events_start (NO_TIME before).
time_t daemon_started_at();

// Keeps one event now. `from` and `to` are states (null: none).
void reach_event_add(const std::string& name, const char* event, const char* from,
                     const char* to, const std::string& detail);

// {"return": 0, "index": N, "started": T, "items": [...]}, newest first.
std::string reach_events_reply();

#endif
