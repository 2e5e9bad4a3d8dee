// common_http_resource.cpp - the table of resources that the service-bus
// server dispatches through, and each resource's method slots.
// The table is written by the resource constructors and destructors, which
// run during static initialisation and at process exit (in tests: while no
// server runs); listener threads only read it while the server runs, so it
// needs no lock.
#include "platform/common_http_resource.h"

#include <algorithm>
#include <vector>

namespace {

// The method names in the order of the handler slots.
constexpr const char* METHOD_NAMES[] = {"GET", "POST", "PUT", "DELETE"};
constexpr const char ALLOW_SEPARATOR[] = ", ";

static_assert(sizeof METHOD_NAMES / sizeof METHOD_NAMES[0] == 4,
              "one method name per handler slot");

// Every live resource, in order of construction. A function-local static,
// so that resources constructed from other modules' static initialisers
// find it built whatever the link order. Written before threads start,
// read-only while the server runs.
std::vector<const common_http_resource*>& resource_table() {
    static std::vector<const common_http_resource*> table;
    return table;
}

// True when the request path is the resource path or lies below it.
bool path_covers(const std::string& resource_path, const std::string& request_path) {
    if (request_path.compare(0, resource_path.size(), resource_path) != 0) {
        return false;
    }
    return request_path.size() == resource_path.size() || resource_path.back() == '/' ||
           request_path[resource_path.size()] == '/';
}

}  // namespace

common_http_resource::common_http_resource(const char* resource_path, http_handler get,
                                           http_handler post, http_handler put,
                                           http_handler del, const relay_marking* relay_rule,
                                           hold_rule hold_rule_of)
    : path(resource_path == nullptr ? "" : resource_path),
      handlers{get, post, put, del},
      relay(relay_rule),
      hold(hold_rule_of) {
    resource_table().push_back(this);
}

common_http_resource::~common_http_resource() {
    std::vector<const common_http_resource*>& table = resource_table();
    table.erase(std::remove(table.begin(), table.end(), this), table.end());
}

http_handler common_http_resource::handler_for(const std::string& method) const {
    for (std::size_t i = 0; i < handlers.size(); ++i) {
        if (method == METHOD_NAMES[i]) {
            return handlers[i];
        }
    }
    return nullptr;
}

std::string common_http_resource::allowed_methods() const {
    std::string allowed;
    for (std::size_t i = 0; i < handlers.size(); ++i) {
        if (handlers[i] == nullptr) {
            continue;
        }
        if (!allowed.empty()) {
            allowed += ALLOW_SEPARATOR;
        }
        allowed += METHOD_NAMES[i];
    }
    return allowed;
}

const relay_marking* common_http_resource::relay_for(
    const httpserver::http_request& request) const {
    if (relay == nullptr || (relay->waits != nullptr && !relay->waits(request))) {
        return nullptr;
    }
    return relay;
}

bool common_http_resource::hold_for(const httpserver::http_request& request,
                                    hold_terms* terms) const {
    return hold != nullptr && hold(request, terms);
}

// A resource with an empty path serves nothing. Of two resources with the
// same path, the one constructed first wins.
const common_http_resource* find_http_resource(const std::string& request_path) {
    const common_http_resource* best = nullptr;
    for (const common_http_resource* resource : resource_table()) {
        const std::string& path = resource->get_path();
        if (path.empty() || !path_covers(path, request_path)) {
            continue;
        }
        if (best == nullptr || path.size() > best->get_path().size()) {
            best = resource;
        }
    }
    return best;
}
