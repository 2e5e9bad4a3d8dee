// reach_events.cpp - the event ring (see the header). events_lock guards
// events[] and event_count; it is held only to copy an event in or out.
#include "monitor/reach_events.h"

#include <json-c/json.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "endpoints/json_values.h"
#include "endpoints/ssci_response.h"

change_view reach_events_view;

namespace {

struct reach_event {
    time_t time;
    std::string name;
    const char* event;  // static texts
    const char* from;
    const char* to;
    std::string detail;
};

std::mutex events_lock;
reach_event events[REACH_EVENTS_KEPT];  // guarded by events_lock
unsigned long long event_count = 0;     // guarded by events_lock
std::atomic<time_t> started_at{NO_TIME};

json_object* new_text_or_null(const char* text) {
    return text == nullptr ? nullptr : json_object_new_string(text);
}

json_object* new_event_item(const reach_event& event) {
    json_object* item = json_object_new_object();
    json_object_object_add(item, "time", new_utc_time_or_null(event.time));
    json_object_object_add(item, "name", json_object_new_string(event.name.c_str()));
    json_object_object_add(item, "event", json_object_new_string(event.event));
    json_object_object_add(item, "from", new_text_or_null(event.from));
    json_object_object_add(item, "to", new_text_or_null(event.to));
    json_object_object_add(item, "detail", json_object_new_string(event.detail.c_str()));
    return item;
}

}  // namespace

void reach_events_start() {
    started_at.store(time(nullptr));
    reach_event_add("", EVENT_STARTED, nullptr, nullptr, "");
}

time_t daemon_started_at() {
    return started_at.load();
}

void reach_event_add(const std::string& name, const char* event, const char* from,
                     const char* to, const std::string& detail) {
    reach_event kept = {time(nullptr), name, event, from, to, detail};
    {
        std::lock_guard<std::mutex> hold(events_lock);
        events[event_count++ % REACH_EVENTS_KEPT] = std::move(kept);
    }
    reach_events_view.changed();
}

std::string reach_events_reply() {
    const unsigned long long index = reach_events_view.index();
    std::vector<reach_event> copies;
    {
        std::lock_guard<std::mutex> hold(events_lock);
        for (unsigned long long number = event_count;
             number > 0 && copies.size() < REACH_EVENTS_KEPT; --number) {
            copies.push_back(events[(number - 1) % REACH_EVENTS_KEPT]);
        }
    }
    json_object* items = json_object_new_array();
    for (const reach_event& event : copies) {
        json_object_array_add(items, new_event_item(event));
    }
    json_object* reply = new_reply_object(REACH_EVENTS_OK);
    json_object_object_add(reply, "index", json_object_new_int64(static_cast<int64_t>(index)));
    json_object_object_add(reply, "started", new_utc_time_or_null(daemon_started_at()));
    json_object_object_add(reply, "items", items);
    return take_json_text(reply);
}
