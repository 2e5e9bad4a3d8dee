// request_counts.cpp - the counters (see the header). A resource takes a
// slot the first time one of its requests is counted (compare-and-swap on
// the slot's resource pointer), so counting never locks; the slot after
// the last resource one counts the requests no resource served.
#include "platform/request_counts.h"

#include <atomic>

namespace {

// The statuses counted one by one; the last slot counts the others.
constexpr unsigned COUNTED_STATUSES[] = {200, 206, 302, 304, 400, 403, 404, 405,
                                         408, 413, 416, 431, 500, 503};
constexpr std::size_t STATUS_SLOTS = sizeof COUNTED_STATUSES / sizeof COUNTED_STATUSES[0] + 1;
constexpr std::size_t RESOURCE_SLOTS = 16;

struct resource_slot {
    std::atomic<const common_http_resource*> resource;
    std::atomic<unsigned long long> by_status[STATUS_SLOTS];
};

resource_slot slots[RESOURCE_SLOTS + 1];  // the last: no resource

std::size_t status_slot(unsigned status) {
    std::size_t slot = 0;
    for (unsigned counted : COUNTED_STATUSES) {
        if (counted == status) {
            return slot;
        }
        ++slot;
    }
    return slot;
}

resource_slot& slot_of(const common_http_resource* resource) {
    for (std::size_t i = 0; resource != nullptr && i < RESOURCE_SLOTS; ++i) {
        const common_http_resource* taken = nullptr;
        if (slots[i].resource.compare_exchange_strong(taken, resource) || taken == resource) {
            return slots[i];
        }
    }
    return slots[RESOURCE_SLOTS];
}

void append_counts(const resource_slot& slot, const std::string& resource,
                   std::vector<request_count>& found) {
    for (std::size_t i = 0; i < STATUS_SLOTS; ++i) {
        const unsigned long long count = slot.by_status[i].load(std::memory_order_relaxed);
        if (count != 0) {
            found.push_back({resource, i + 1 < STATUS_SLOTS ? std::to_string(COUNTED_STATUSES[i])
                                                            : OTHER_STATUS_LABEL,
                             count});
        }
    }
}

}  // namespace

void request_counts_add(const common_http_resource* resource, unsigned status) {
    slot_of(resource).by_status[status_slot(status)].fetch_add(1, std::memory_order_relaxed);
}

std::vector<request_count> request_counts() {
    std::vector<request_count> found;
    for (std::size_t i = 0; i < RESOURCE_SLOTS; ++i) {
        const common_http_resource* resource = slots[i].resource.load();
        if (resource != nullptr) {
            append_counts(slots[i], resource->get_path(), found);
        }
    }
    append_counts(slots[RESOURCE_SLOTS], NO_RESOURCE_LABEL, found);
    return found;
}
