// svc_info_map.h - the registry of the device's services (service_info_map)
// and its persistence in the registry file.
// One process-wide, non-recursive mutex guards the map and every record;
// every operation below takes it itself, so none may be called with it held.
// Callers: the listener threads (add, get, delete, list) and the main thread
// (init before the server exists, uninit after it is gone).
#ifndef MANAGER_SVC_SVC_INFO_MAP_H
#define MANAGER_SVC_SVC_INFO_MAP_H

#include <memory>
#include <string>
#include <vector>

// Result codes of the registry operations. They are also the "return"
// member of the registry's and the monitor's replies, so these numbers are
// the device's clients' to read and never change (the daemon's internal
// calls use result_codes.h instead).
constexpr int SVC_INFO_OK = 0;
constexpr int SVC_INFO_NO_SUCH_NAME = -2;
constexpr int SVC_INFO_EMPTY_NAME = -3;

constexpr const char SVC_INFO_OFF_LINE[] = "off-line";

struct svc_info {
    std::string ip;
    int port = 0;
    std::string health_status = SVC_INFO_OFF_LINE;
};

struct svc_info_entry {
    std::string name;
    std::string ip;
    int port = 0;
    std::string health_status;
};

// A caller's list of owned registry copies (see svc_info_list).
using svc_info_entry_list = std::vector<std::unique_ptr<svc_info_entry>>;

// Adds the service, or updates it when its ip or port differ; rewrites the
// registry file after a change. 0 or SVC_INFO_EMPTY_NAME.
int svc_info_add(const std::string& name, const svc_info& info);
// Copies the stored record into `out`. 0, SVC_INFO_NO_SUCH_NAME or
// SVC_INFO_EMPTY_NAME; on failure `out` keeps what the caller put in it.
int svc_info_get(const std::string& name, svc_info& out);
// Removes the service and rewrites the registry file.
// 0, SVC_INFO_NO_SUCH_NAME or SVC_INFO_EMPTY_NAME.
int svc_info_delete(const std::string& name);
// Appends a copy of every entry, in name order, behind what `list` holds.
void svc_info_list(svc_info_entry_list& list);
// Releases the entries from the last to the first, leaving `list` empty.
void svc_info_list_free(svc_info_entry_list& list);
// A number that changes with every change of the registry (add, update,
// delete, restore, teardown): equal numbers mean equal content.
unsigned long long svc_info_generation();

// Restores the registry from its file (start-up, before the server).
void svc_info_init();
// Writes the registry to its file and empties it (after the server is gone).
void svc_info_uninit();
// Releases every record; called only by svc_info_uninit.
void svc_info_destroy();

// Rewrites the registry file from the whole registry (takes the lock).
void svc_info_write_back();
// Loads the registry file into the registry (takes the lock).
void svc_info_restore();

#endif
