// svc_info_map.cpp - the registry of the device's services (service_info_map)
// and the registry file that keeps it across restarts.
// Owns: service_info_map and every svc_info in it, guarded by
// service_info_lock; the registry file, whose rewrites are serialised by
// write_back_lock.
// Threads: the listener threads call add, get, delete and list (several at
// once); the main thread calls init before the server exists and uninit
// after it is gone.
// Lock order: write_back_lock before service_info_lock, never the reverse.
// Neither lock is held on return from any function of this module.
// Out of memory: an operation passes std::bad_alloc on to its caller with
// both locks released (std::lock_guard) and the registry, the stored record
// and the caller's list exactly as they were before the call. A write-back
// that runs out of memory leaves the file as it was and only logs it, so an
// add or delete that changed the registry still completes.
#include "registry/svc_info_map.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

#include "common/decimal.h"
#include "common/device_paths.h"
#include "common/print_log.h"
#include "registry/file_rewrite.h"

namespace {

// The bare source name that the location lines carry.
constexpr const char SOURCE_NAME[] = "svc_info_map.cpp";

// The fixed line numbers that the location lines carry.
constexpr int DESTROY_LINE = 45;
constexpr int DESTROY_ENTRY_LINE = 52;
constexpr int RESTORE_LINE = 64;
constexpr int RESTORE_READLINE_LINE = 74;
constexpr int RESTORE_MISSING_LINE = 97;
constexpr int WRITE_BACK_LINE = 103;
constexpr int WRITE_BACK_OPENED_LINE = 108;
constexpr int WRITE_BACK_ENTRY_LINE = 116;
constexpr int WRITE_BACK_NO_MEMORY_LINE = 119;
constexpr int WRITE_BACK_NO_SPACE_LINE = 120;
constexpr int WRITE_BACK_CUT_LINE = 121;
constexpr int WRITE_BACK_FOPEN_ERROR_LINE = 123;
constexpr int INIT_LINE = 129;
constexpr int UNINIT_LINE = 136;

// One registry-file line: at most LINE_LIMIT - 1 = 126 characters plus the
// terminating zero, in a buffer of LINE_BUFFER_SIZE bytes.
constexpr std::size_t LINE_BUFFER_SIZE = 128;
constexpr int LINE_LIMIT = 127;
// Characters that end a field of a registry-file line.
constexpr const char FIELD_SEPARATORS[] = ",\n";
constexpr int FIELDS_PER_LINE = 3;

// Names are compared byte by byte as unsigned bytes, the shorter prefix
// first, whatever the signedness of char on the target (char_traits<char>
// already compares this way; the comparator states it).
struct name_order {
    bool operator()(const std::string& left, const std::string& right) const {
        std::size_t common = left.size() < right.size() ? left.size() : right.size();
        int order = memcmp(left.data(), right.data(), common);
        return order != 0 ? order < 0 : left.size() < right.size();
    }
};

using registry_map = std::map<std::string, std::unique_ptr<svc_info>, name_order>;

// The registry; guarded by service_info_lock.
registry_map service_info_map;
// Counts the changes of service_info_map; guarded by service_info_lock.
unsigned long long service_info_generation = 0;
// Guards service_info_map and every record in it; constant-initialised, so
// usable before any constructor has run.
std::mutex service_info_lock;
// Serialises whole rewrites of the registry file, from open to close, so
// that two overlapping write-backs never interleave in the file: the file
// always holds the snapshot of the write-back that ran last. Taken before
// service_info_lock; a lock of its own keeps readers of the registry free
// while the file is opened and closed.
std::mutex write_back_lock;

bool same_address(const svc_info& stored, const svc_info& info) {
    return stored.ip == info.ip && stored.port == info.port;
}

// Enters a new record for an absent name. The map is changed first, so
// running out of memory (std::bad_alloc, passed on to the caller with the
// lock released) leaves it as it was and logs nothing.
void add_new_entry(const std::string& name, const svc_info& info) {
    service_info_map.emplace(name, std::make_unique<svc_info>(info));
    service_info_generation++;
    debug_log("ADD : [%s]=[%s:%d]", name.c_str(), info.ip.c_str(), info.port);
    print_log(WARN, "    ADD : [%s]=[%s:%d]\n", name.c_str(), info.ip.c_str(), info.port);
}

// Replaces the stored record's content in place. The copy is made first and
// then moved in (cannot fail), so the record is never half-updated.
void update_entry(const std::string& name, svc_info& stored, const svc_info& info) {
    svc_info fresh = info;
    debug_log("UPDATE : [%s]=[%s:%d]->[%s:%d]", name.c_str(), stored.ip.c_str(),
              stored.port, info.ip.c_str(), info.port);
    print_log(WARN, "    UPDATE : [%s]=[%s:%d]->[%s:%d]\n", name.c_str(),
              stored.ip.c_str(), stored.port, info.ip.c_str(), info.port);
    stored = std::move(fresh);
    service_info_generation++;
}

// Adds or updates under the lock; true when the registry changed.
bool store_entry(const std::string& name, const svc_info& info) {
    std::lock_guard<std::mutex> hold(service_info_lock);
    auto found = service_info_map.find(name);
    if (found == service_info_map.end()) {
        add_new_entry(name, info);
        return true;
    }
    print_log(WARN, "Already exists, check content : %s\n", name.c_str());
    if (same_address(*found->second, info)) {
        print_log(WARN, "    Identical content, do nothing\n");
        return false;
    }
    update_entry(name, *found->second, info);
    return true;
}

// Removes the entry under the lock; 0 or SVC_INFO_NO_SUCH_NAME.
int remove_entry(const std::string& name) {
    std::lock_guard<std::mutex> hold(service_info_lock);
    auto found = service_info_map.find(name);
    if (found == service_info_map.end()) {
        print_log(WARN, "can not find, delete failed : %s\n", name.c_str());
        return SVC_INFO_NO_SUCH_NAME;
    }
    print_log(DEBUG, "find, do delete : %s\n", name.c_str());
    service_info_map.erase(found);
    service_info_generation++;
    return SVC_INFO_OK;
}

// The empty name is never a key; logs the refusal.
bool name_is_empty(const std::string& name) {
    if (!name.empty()) {
        return false;
    }
    debug_log("param_name invalid : %s", name.c_str());
    return true;
}

// Appends one "name,ip,port" line per entry, in name order, cut at 126
// characters, to `content`, and logs each line. Takes service_info_lock, so
// the content is one snapshot of the registry.
void append_entries(std::string& content) {
    std::lock_guard<std::mutex> hold(service_info_lock);
    char line[LINE_BUFFER_SIZE];
    for (const auto& entry : service_info_map) {
        memset(line, 0, sizeof line);
        snprintf(line, LINE_LIMIT, "%s,%s,%d", entry.first.c_str(),
                 entry.second->ip.c_str(), entry.second->port);
        content.append(line);
        content.push_back('\n');
        print_log(DEBUG, "%s:%s(%d) %s\n", SOURCE_NAME, "svc_info_write_back",
                  WRITE_BACK_ENTRY_LINE, line);
    }
}

// The fields of one registry-file line: the first FIELDS_PER_LINE fields as
// texts, and how many fields the line held in all.
struct line_fields {
    std::string field[FIELDS_PER_LINE];
    int count = 0;
};

void keep_field(line_fields& fields, const char* start, std::size_t length) {
    if (fields.count < FIELDS_PER_LINE) {
        fields.field[fields.count].assign(start, length);
    }
    fields.count++;
}

// Splits the line at commas and line feeds, dropping empty fields; the text
// after the last separator, when there is any, is the last field.
line_fields split_line(const char* line) {
    line_fields fields;
    std::size_t position = 0;
    std::size_t end = strlen(line);
    while (position < end) {
        std::size_t length = strcspn(line + position, FIELD_SEPARATORS);
        if (length > 0) {
            keep_field(fields, line + position, length);
        }
        position += length + 1;
    }
    return fields;
}

// Loads one line read from the registry file. Called with
// service_info_lock held. The last line for a name wins.
void restore_line(const char* line) {
    print_log(DEBUG, "%s:%s(%d) str_readline=[%s]\n", SOURCE_NAME, "svc_info_restore",
              RESTORE_READLINE_LINE, line);
    line_fields fields = split_line(line);
    if (fields.count != FIELDS_PER_LINE) {
        debug_log("%s str_readline=[%s] format error.", "svc_info_restore", line);
        return;
    }
    const std::string& name = fields.field[0];
    print_log(WARN, "    name=[%s], ip=[%s], port=[%s]\n", name.c_str(),
              fields.field[1].c_str(), fields.field[2].c_str());
    auto record = std::make_unique<svc_info>();
    record->ip = fields.field[1];
    record->port = read_decimal_int(fields.field[2].c_str());
    service_info_map[name] = std::move(record);
    service_info_generation++;
}

// Reads the open registry file to its end, holding the lock throughout.
// The buffer is cleared once; fgets ends every piece it reads with a zero,
// and only the text up to the first zero byte is looked at.
void restore_from(FILE* file) {
    std::lock_guard<std::mutex> hold(service_info_lock);
    char line[LINE_BUFFER_SIZE];
    memset(line, 0, sizeof line);
    while (fgets(line, LINE_LIMIT, file) != nullptr) {
        restore_line(line);
    }
}

// Logs a failed system call of the write-back: "fopen" (the open that
// would create or rewrite the file), "ftruncate", "write" or "close".
void log_write_back_error(const char* call, int error) {
    debug_log("%s:%s(%d) %s(%s) error(%d).", SOURCE_NAME, "svc_info_write_back",
              WRITE_BACK_FOPEN_ERROR_LINE, call, REGISTRY_FILE_PATH, error);
}

// Logs how a rewrite that did not complete left the file.
void log_rewrite_failure(const file_rewrite_result& result, std::size_t size) {
    switch (result.status) {
    case file_rewrite_status::done:
        return;
    case file_rewrite_status::no_space:
        debug_log("%s:%s(%d) no space for %zu bytes in %s, old content kept.", SOURCE_NAME,
                  "svc_info_write_back", WRITE_BACK_NO_SPACE_LINE, size, REGISTRY_FILE_PATH);
        return;
    case file_rewrite_status::truncate_failed:
        log_write_back_error("ftruncate", result.error);
        return;
    case file_rewrite_status::write_failed:
        log_write_back_error("write", result.error);
        debug_log("%s:%s(%d) %zu of %zu bytes kept in %s, cut at a line end.", SOURCE_NAME,
                  "svc_info_write_back", WRITE_BACK_CUT_LINE, result.written, size,
                  REGISTRY_FILE_PATH);
        return;
    }
}

// Builds the new content from one snapshot of the registry, then replaces
// the open file's content with it. Running out of memory on the way leaves
// the file as it was.
void rewrite_registry_file(int fd) {
    try {
        std::string content;
        append_entries(content);
        const std::size_t size = content.size();
        log_rewrite_failure(file_rewrite_replace(fd, std::move(content)), size);
    } catch (const std::bad_alloc&) {
        debug_log("%s:%s(%d) out of memory, %s not rewritten.", SOURCE_NAME,
                  "svc_info_write_back", WRITE_BACK_NO_MEMORY_LINE, REGISTRY_FILE_PATH);
    }
}

// The registry file opened for reading, or null. Anything but a regular
// file counts as missing: start-up never blocks on a FIFO nor reads a
// device reached through a symbolic link without end.
FILE* open_for_restore() {
    int fd = open(REGISTRY_FILE_PATH, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat info;
    FILE* file = nullptr;
    if (fd >= 0 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        file = fdopen(fd, "r");
    }
    if (file == nullptr && fd >= 0) {
        close(fd);
    }
    return file;
}

}  // namespace

int svc_info_add(const std::string& name, const svc_info& info) {
    if (name_is_empty(name)) {
        return SVC_INFO_EMPTY_NAME;
    }
    if (store_entry(name, info)) {
        svc_info_write_back();
    }
    return SVC_INFO_OK;
}

int svc_info_get(const std::string& name, svc_info& out) {
    if (name_is_empty(name)) {
        return SVC_INFO_EMPTY_NAME;
    }
    std::lock_guard<std::mutex> hold(service_info_lock);
    auto found = service_info_map.find(name);
    if (found == service_info_map.end()) {
        debug_log("get info failed : %s", name.c_str());
        print_log(WARN, "get info failed : %s\n", name.c_str());
        return SVC_INFO_NO_SUCH_NAME;
    }
    print_log(DEBUG, "find, do get info : %s\n", name.c_str());
    svc_info copy = *found->second;
    out = std::move(copy);
    return SVC_INFO_OK;
}

int svc_info_delete(const std::string& name) {
    if (name_is_empty(name)) {
        return SVC_INFO_EMPTY_NAME;
    }
    int result = remove_entry(name);
    if (result == SVC_INFO_OK) {
        svc_info_write_back();
    }
    return result;
}

// The copies are made into a list of our own first and then moved behind
// the caller's entries, so running out of memory leaves the caller's list
// as it was.
void svc_info_list(svc_info_entry_list& list) {
    svc_info_entry_list copies;
    {
        std::lock_guard<std::mutex> hold(service_info_lock);
        copies.reserve(service_info_map.size());
        for (const auto& entry : service_info_map) {
            const svc_info& record = *entry.second;
            copies.push_back(std::make_unique<svc_info_entry>(
                svc_info_entry{entry.first, record.ip, record.port, record.health_status}));
        }
    }
    list.reserve(list.size() + copies.size());
    for (auto& copy : copies) {
        list.push_back(std::move(copy));
    }
}

void svc_info_list_free(svc_info_entry_list& list) {
    while (!list.empty()) {
        list.pop_back();
    }
}

void svc_info_init() {
    print_log(DEBUG, "%s:%s(%d)\n", SOURCE_NAME, "svc_info_init", INIT_LINE);
    svc_info_restore();
}

void svc_info_uninit() {
    print_log(DEBUG, "%s:%s(%d)\n", SOURCE_NAME, "svc_info_uninit", UNINIT_LINE);
    svc_info_write_back();
    svc_info_destroy();
}

void svc_info_destroy() {
    print_log(DEBUG, "%s:%s(%d)\n", SOURCE_NAME, "svc_info_destroy", DESTROY_LINE);
    std::lock_guard<std::mutex> hold(service_info_lock);
    for (auto& entry : service_info_map) {
        print_log(DEBUG, "%s:%s(%d) delete(%p)\n", SOURCE_NAME, "svc_info_destroy",
                  DESTROY_ENTRY_LINE, static_cast<void*>(entry.second.get()));
        entry.second.reset();
    }
    service_info_map.clear();
    service_info_generation++;
}

unsigned long long svc_info_generation() {
    std::lock_guard<std::mutex> hold(service_info_lock);
    return service_info_generation;
}

// The file is rewritten in place (no temporary file, no rename, no sync):
// opened without truncating it, then overwritten with one snapshot of the
// registry built in memory first, in one write (see file_rewrite.h), so a
// crash leaves the old content or the new one, never an empty file in
// between. A file that cannot be opened (a symbolic link is refused) or
// rewritten is logged only: the registry keeps its content and the next
// change tries again.
void svc_info_write_back() {
    print_log(DEBUG, "%s:%s(%d)\n", SOURCE_NAME, "svc_info_write_back", WRITE_BACK_LINE);
    std::lock_guard<std::mutex> writing(write_back_lock);
    int fd = file_rewrite_open(REGISTRY_FILE_PATH);
    if (fd < 0) {
        log_write_back_error("fopen", errno);
        return;
    }
    print_log(DEBUG, "%s:%s(%d)\n", SOURCE_NAME, "svc_info_write_back", WRITE_BACK_OPENED_LINE);
    rewrite_registry_file(fd);
    if (close(fd) != 0) {
        log_write_back_error("close", errno);
    }
}

void svc_info_restore() {
    print_log(DEBUG, "%s:%s(%d)\n", SOURCE_NAME, "svc_info_restore", RESTORE_LINE);
    FILE* file = open_for_restore();
    if (file == nullptr) {
        print_log(WARN, "%s:%s(%d) %s does not exist.\n", SOURCE_NAME, "svc_info_restore",
                  RESTORE_MISSING_LINE, REGISTRY_FILE_PATH);
        return;
    }
    print_log(WARN, "%s() [%s] exists, do service_info_map restore.\n", "svc_info_restore",
              REGISTRY_FILE_PATH);
    restore_from(file);
    fclose(file);
}
