// registry_file_fuzz.cpp - fuzz target for the registry-file loader: any
// bytes become the registry file. Every entry the loader makes can be
// written back faithfully (it splits at commas and line feeds, drops empty
// fields, reads lines of at most 126 characters): written back and
// reloaded, the registry must be the very same, every entry "off-line".
#include <cstdint>
#include <tuple>
#include <vector>

#include "common/device_paths.h"
#include "fuzz/fuzz_support.h"
#include "registry/svc_info_map.h"

namespace {

std::vector<std::tuple<std::string, std::string, int, std::string>> current_registry() {
    svc_info_entry_list list;
    svc_info_list(list);
    std::vector<std::tuple<std::string, std::string, int, std::string>> entries;
    for (const auto& item : list) {
        fuzz_check(item->health_status == SVC_INFO_OFF_LINE, "loaded status");
        entries.emplace_back(item->name, item->ip, item->port, item->health_status);
    }
    svc_info_list_free(list);
    return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
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
