// registry_file_fuzz.cpp - fuzz target for the registry-file loader: any
// bytes become the registry file. The loader splits at commas and line
// feeds, drops empty fields and reads pieces of at most 126 characters, so
// every entry it makes (name and ip not empty, free of commas, line feeds
// and zero bytes, "name,ip,port" within 126 characters, "off-line") can be
// written back faithfully: written back and reloaded, the registry must be
// the very same.
#include <algorithm>
#include <cstdint>
#include <tuple>
#include <vector>

#include "common/device_paths.h"
#include "fuzz/fuzz_support.h"
#include "registry/svc_info_map.h"

namespace {

constexpr std::size_t MAX_WRITTEN_LINE = 126;  // without its line feed

std::vector<std::tuple<std::string, std::string, int, std::string>> current_registry() {
    svc_info_entry_list list;
    svc_info_list(list);
    std::vector<std::tuple<std::string, std::string, int, std::string>> entries;
    for (const auto& item : list) {
        const std::string line = item->name + "," + item->ip + "," + std::to_string(item->port);
        fuzz_check(!item->name.empty() && !item->ip.empty() &&
                       std::count(line.begin(), line.end(), ',') == 2 &&
                       line.find_first_of(std::string("\n\0", 2)) == std::string::npos &&
                       line.size() <= MAX_WRITTEN_LINE && item->health_status == SVC_INFO_OFF_LINE,
                   "loaded entry cannot be written back", line);
        entries.emplace_back(item->name, item->ip, item->port, item->health_status);
    }
    svc_info_list_free(list);
    return entries;
}

}  // namespace

void fuzz_set_up() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    svc_info_destroy();
    FILE* file = fopen(REGISTRY_FILE_PATH, "w");
    fuzz_check(file != nullptr && fwrite(data, 1, size, file) == size && fclose(file) == 0,
               "cannot write the registry file");
    svc_info_init();
    const auto loaded = current_registry();
    svc_info_write_back();
    svc_info_destroy();
    svc_info_restore();
    fuzz_check(current_registry() == loaded, "reload changed the registry");
    svc_info_destroy();
    return 0;
}
