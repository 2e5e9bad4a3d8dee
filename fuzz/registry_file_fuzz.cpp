// registry_file_fuzz.cpp - fuzz target for the registry-file loader.
// Any bytes become the registry file's content; the registry restored from
// them must be writable back and reload as the same registry.
//
// Invariant: an entry can be written faithfully when its name and ip are
// not empty, hold no comma, line feed or zero byte, and its line
// "name,ip,port" fits in 126 characters. The loader can only make such
// entries (it splits at commas and line feeds, drops empty fields, reads
// pieces of at most 126 characters, and a port never prints longer than
// the text it was read from), so every loaded entry is checked to be one,
// and then write back + reload must give exactly the same names, ips and
// ports, with nothing missing and nothing added.
// Single-threaded; runs only inside the sandbox (the file path is fixed).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "common/device_paths.h"
#include "fuzz/fuzz_support.h"
#include "registry/svc_info_map.h"

namespace {

// The longest registry-file line, without its line feed.
constexpr std::size_t MAX_WRITTEN_LINE = 126;
constexpr const char NOT_FIELD_BYTES[] = ",\n";

struct loaded_entry {
    std::string name;
    std::string ip;
    int port;
    std::string health_status;

    bool operator==(const loaded_entry& other) const {
        return name == other.name && ip == other.ip && port == other.port &&
               health_status == other.health_status;
    }
};

std::string describe(const loaded_entry& entry) {
    return entry.name + "," + entry.ip + "," + std::to_string(entry.port);
}

bool clean_field(const std::string& text) {
    return !text.empty() && text.find_first_of(NOT_FIELD_BYTES) == std::string::npos &&
           text.find('\0') == std::string::npos;
}

bool written_faithfully(const loaded_entry& entry) {
    return clean_field(entry.name) && clean_field(entry.ip) &&
           describe(entry).size() <= MAX_WRITTEN_LINE;
}

std::vector<loaded_entry> current_registry() {
    svc_info_entry_list list;
    svc_info_list(list);
    std::vector<loaded_entry> entries;
    for (const auto& item : list) {
        entries.push_back({item->name, item->ip, item->port, item->health_status});
    }
    svc_info_list_free(list);
    return entries;
}

void write_registry_file(const uint8_t* data, std::size_t size) {
    FILE* file = fopen(REGISTRY_FILE_PATH, "w");
    fuzz_check(file != nullptr, "cannot write the registry file", REGISTRY_FILE_PATH);
    fuzz_check(fwrite(data, 1, size, file) == size, "short write of the registry file");
    fclose(file);
}

void check_loaded(const std::vector<loaded_entry>& entries) {
    for (const loaded_entry& entry : entries) {
        fuzz_check(written_faithfully(entry), "loaded entry cannot be written back",
                   describe(entry));
        fuzz_check(entry.health_status == SVC_INFO_OFF_LINE, "restored status", describe(entry));
    }
}

void check_same(const std::vector<loaded_entry>& first, const std::vector<loaded_entry>& again) {
    fuzz_check(first.size() == again.size(), "reload changed the number of entries",
               std::to_string(first.size()) + " then " + std::to_string(again.size()));
    for (std::size_t i = 0; i < first.size(); i++) {
        fuzz_check(first[i] == again[i], "reload changed an entry",
                   describe(first[i]) + " then " + describe(again[i]));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start_up();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    svc_info_destroy();
    write_registry_file(data, size);
    svc_info_init();
    std::vector<loaded_entry> loaded = current_registry();
    check_loaded(loaded);

    svc_info_write_back();
    svc_info_destroy();
    svc_info_restore();
    check_same(loaded, current_registry());
    svc_info_destroy();
    return 0;
}
