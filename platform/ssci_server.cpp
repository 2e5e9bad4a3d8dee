// ssci_server.cpp - the service-bus server: the listen socket, the
// libmicrohttpd daemon with its pool of listener threads, and the dispatch
// of every request to the common_http_resource that covers its path, once
// the request guard (request_guard.h) has passed its head.
// The lifecycle calls (create, start, stop, destory) come from the main
// thread; lifecycle_lock guards g_server against any other caller. The
// request callbacks run on the listener threads and touch only their own
// request's state and the read-only resource table. A request that waits
// on another service (its resource's relay_marking says so) is not handled
// there: its connection is suspended and the request handed to the relay
// pool; the worker leaves the reply in the request's state and resumes the
// connection, and the listener thread then sends it. While suspended, the
// request's state belongs to the worker; libmicrohttpd's resume is what
// hands it back.
// Handlers catch what they may throw themselves (endpoints/handler_guard.h)
// and answer null, sent as 500. The catches here are only the last guard:
// no exception may reach libmicrohttpd's C code or end a relay worker.
#include "platform/ssci_server.h"

#include <malloc.h>
#include <microhttpd.h>
#include <netdb.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <atomic>
#include <chrono>
#include <mutex>
#include <new>
#include <thread>

#include "platform/common_http_resource.h"
#include "platform/connection_guard.h"
#include "platform/dlog.h"
#include "platform/held_requests.h"
#include "platform/httpserver.h"
#include "platform/loopback.h"
#include "platform/relay_pool.h"
#include "platform/request_counts.h"
#include "platform/request_guard.h"

namespace {

using httpserver::http::http_utils;

constexpr int MAX_PORT = 65535;
// A connection that sends or accepts nothing for this long is dropped.
constexpr unsigned CONNECTION_IDLE_SECONDS = 10;
// At stop, how long the answers of held and relayed requests, resumed
// just before, are given to leave before the connections are closed.
constexpr auto RESUMED_FLUSH_LIMIT = std::chrono::seconds(1);
constexpr auto RESUMED_FLUSH_STEP = std::chrono::milliseconds(5);
// The server is sized for a device with 64 MiB of RAM, the same on every
// target; what each figure costs is measured by scripts/boot-check.sh.
// Open connections at once, over all listener threads (libmicrohttpd gives
// each thread its share). Near it the connection guard closes those that
// have waited longest for a request, so a flood cannot lock a client out.
// A full table costs about 256 x 17 KiB = 4.3 MiB (the buffer below,
// libmicrohttpd's and the guard's state; socket buffers are the kernel's).
constexpr unsigned CONNECTION_LIMIT = 256;
// Connections the kernel completes and holds until a listener takes them,
// as many as the server holds (a burst of that many clients is not slowed
// by retransmissions); beyond this a client's connect is retried by its own
// kernel. It costs kernel memory only, not the daemon's.
constexpr int LISTEN_BACKLOG = CONNECTION_LIMIT;
// Descriptors kept for all but client connections: the listen socket, log
// and registry files, relays' sockets, init scripts' pipes...
constexpr rlim_t RESERVED_DESCRIPTORS = 512;
// ... and each listener thread's event and wake-up descriptors.
constexpr rlim_t DESCRIPTORS_PER_THREAD = 2;
// Each connection's buffer for its request head, the reply's head and
// reading (libmicrohttpd's default is 32 KiB), cleared for every request.
// A header line of up to about 7.8 KiB is served, for pages and JSON
// replies alike (common servers allow 8 KiB; browsers and services send far
// less); a longer one gets 431, or, within a few hundred bytes of the
// limit, its connection is closed. 32 bytes under 16 KiB, so that with
// malloc's own header it is exactly four pages.
constexpr intptr_t CONNECTION_BUFFER_BYTES = 16 * 1024 - 32;
// Allocations from this size on get mappings of their own, which go back
// to the system when freed: each connection's buffer above all, so a flood
// leaves no heap behind once its connections are closed.
constexpr int OWN_MAPPING_FROM_BYTES = CONNECTION_BUFFER_BYTES;
// The heaps that threads allocate from besides the main one: what glibc
// gives a one-core 32-bit device anyway, on every target (a many-core host
// would make one per listener thread, each keeping some memory after a
// flood).
constexpr int THREAD_HEAPS = 2;
// A listener thread runs the handlers: json-c, the registry, the web pages,
// the start of service-control threads; never libcurl (relays run in the
// relay pool, whose workers do with the same size).
constexpr std::size_t LISTENER_STACK_BYTES = 256 * 1024;
// Bytes of an over-long body that are read and thrown away before the 413,
// so that a client still sending it sees the reply rather than a reset
// (lingering close); past this the 413 is sent at once.
constexpr std::size_t MAX_DISCARDED_BODY = 1024 * 1024;
constexpr unsigned DAEMON_FLAGS =
    MHD_USE_AUTO_INTERNAL_THREAD | MHD_USE_ITC | MHD_USE_TURBO | MHD_ALLOW_SUSPEND_RESUME;

// The server's own plain-text answers.
struct plain_reply {
    unsigned status;
    const char* text;
    bool closes = false;  // the connection is closed after it
};
constexpr plain_reply NOT_FOUND = {MHD_HTTP_NOT_FOUND, "404 Not Found"};
constexpr plain_reply METHOD_NOT_ALLOWED = {MHD_HTTP_METHOD_NOT_ALLOWED, "405 Method Not Allowed"};
constexpr plain_reply BODY_TOO_LARGE = {MHD_HTTP_CONTENT_TOO_LARGE, "413 Content Too Large", true};
constexpr plain_reply MISDIRECTED = {MHD_HTTP_MISDIRECTED_REQUEST, "421 Misdirected Request"};
constexpr plain_reply CROSS_ORIGIN = {MHD_HTTP_FORBIDDEN, "403 Forbidden"};
constexpr plain_reply HANDLER_FAILED = {MHD_HTTP_INTERNAL_SERVER_ERROR, "500 Internal Server Error"};

enum class server_phase { absent, created, running };

struct server_state {
    server_phase phase = server_phase::absent;
    int listen_fd = -1;  // owned by us, also while the daemon runs
    unsigned thread_count = 0;
    MHD_Daemon* daemon = nullptr;
};

std::mutex lifecycle_lock;  // guards g_server
// The debug log that refused relays are recorded in ("": none). Set before
// the server starts; read-only while it runs.
struct {
    std::string path;
    int size_limit = 0;
} debug_log;
server_state g_server;      // guarded by lifecycle_lock
// Requests resumed with their answer and not yet complete.
std::atomic<unsigned> resumed_answers{0};

// What one request has gathered between libmicrohttpd's calls; made on
// the first call, freed when the request is complete.
struct request_state {
    http_handler handler = nullptr;
    const common_http_resource* resource = nullptr;
    guarded_connection* guarded = nullptr;  // the connection's entry in the guard
    const plain_reply* refusal = nullptr;  // 403, 404, 405, 421: sent once the body is read
    std::size_t body_received = 0;
    std::string body;
    bool relay_answered = false;  // set by the relay worker before it resumes
    std::shared_ptr<httpserver::http_response> response;  // lends its body to MHD
};

struct raw_response_deleter {
    void operator()(MHD_Response* raw) const { MHD_destroy_response(raw); }
};
using raw_response_ptr = std::unique_ptr<MHD_Response, raw_response_deleter>;

MHD_Result queue_plain(MHD_Connection* connection, const plain_reply& reply,
                       const char* allow = nullptr) {
    raw_response_ptr raw(MHD_create_response_from_buffer(
        strlen(reply.text), const_cast<char*>(reply.text), MHD_RESPMEM_PERSISTENT));
    if (!raw) {
        return MHD_NO;
    }
    MHD_add_response_header(raw.get(), http_utils::http_header_content_type.c_str(),
                            http_utils::text_plain.c_str());
    MHD_add_response_header(raw.get(), http_utils::http_header_content_type_options.c_str(),
                            http_utils::nosniff.c_str());
    if (reply.closes) {
        MHD_add_response_header(raw.get(), MHD_HTTP_HEADER_CONNECTION, "close");
    }
    if (allow != nullptr) {
        MHD_add_response_header(raw.get(), http_utils::http_header_allow.c_str(), allow);
    }
    return MHD_queue_response(connection, reply.status, raw.get());
}

// Keeps the first value of each key; a key without a value gets "".
template <typename Map>
MHD_Result add_first_value(void* cls, MHD_ValueKind, const char* key, const char* value) {
    if (key == nullptr) {
        return MHD_YES;
    }
    try {
        static_cast<Map*>(cls)->emplace(key, value == nullptr ? "" : value);
    } catch (...) {
        return MHD_NO;
    }
    return MHD_YES;
}

template <typename Map>
Map collect_values(MHD_Connection* connection, MHD_ValueKind kind) {
    Map values;
    MHD_get_connection_values(connection, kind, add_first_value<Map>, &values);
    return values;
}

const char* header_value(MHD_Connection* connection, const char* name) {
    return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

// An over-long body that the client waits for leave to send (Expect:
// 100-continue) is refused before it is sent.
bool refuse_body_at_once(MHD_Connection* connection) {
    const char* length = header_value(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    const char* expect = header_value(connection, MHD_HTTP_HEADER_EXPECT);
    return length != nullptr && strtoull(length, nullptr, 10) > SSCI_MAX_REQUEST_BODY &&
           expect != nullptr && strcasecmp(expect, "100-continue") == 0;
}

// The request guard's refusal (recorded in the debug log), or null when
// the request is served.
const plain_reply* guard_refusal(MHD_Connection* connection, const char* method,
                                 const char* url) {
    switch (request_guard_check(connection, method, url, debug_log.path, debug_log.size_limit)) {
    case request_verdict::misdirected:
        return &MISDIRECTED;
    case request_verdict::cross_origin:
        return &CROSS_ORIGIN;
    default:
        return nullptr;
    }
}

// First call: headers are in. Decides 403, 404, 405 and 421 now, but
// answers them after the body so the client is not cut off while still
// sending.
MHD_Result begin_request(MHD_Connection* connection, const char* url, const char* method,
                         void** con_cls) {
    auto* state = new (std::nothrow) request_state;
    if (state == nullptr) {
        return MHD_NO;
    }
    *con_cls = state;
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    if (info != nullptr) {
        state->guarded = static_cast<guarded_connection*>(info->socket_context);
    }
    if (refuse_body_at_once(connection)) {
        connection_guard_request_received(state->guarded);
        return queue_plain(connection, BODY_TOO_LARGE);
    }
    state->refusal = guard_refusal(connection, method, url);
    if (state->refusal != nullptr) {
        return MHD_YES;
    }
    state->resource = find_http_resource(url);
    if (state->resource == nullptr) {
        state->refusal = &NOT_FOUND;
        return MHD_YES;
    }
    state->handler = state->resource->handler_for(method, url);
    if (state->handler == nullptr) {
        state->refusal = &METHOD_NOT_ALLOWED;
    }
    return MHD_YES;
}

// Keeps the body while it fits the limit and a handler wants it; drops it
// otherwise, and answers 413 at once to a sender that goes on far past the
// limit (libmicrohttpd then reads no more and closes).
MHD_Result take_body(MHD_Connection* connection, request_state* state, const char* data,
                     size_t* size) {
    state->body_received += *size;
    if (state->body_received > SSCI_MAX_REQUEST_BODY + MAX_DISCARDED_BODY) {
        *size = 0;
        connection_guard_request_received(state->guarded);
        return queue_plain(connection, BODY_TOO_LARGE);
    }
    if (state->body_received > SSCI_MAX_REQUEST_BODY) {
        std::string().swap(state->body);
    } else if (state->handler != nullptr) {
        state->body.append(data, *size);
    }
    *size = 0;
    return MHD_YES;
}

MHD_Result send_response(MHD_Connection* connection, request_state* state,
                         std::shared_ptr<httpserver::http_response> response) {
    if (!response) {
        return queue_plain(connection, HANDLER_FAILED);
    }
    raw_response_ptr raw(response->get_raw_response());
    if (!raw || !response->decorate_response(raw.get())) {
        return queue_plain(connection, HANDLER_FAILED);
    }
    state->response = std::move(response);
    return state->response->enqueue_response(connection, raw.get()) == MHD_YES ? MHD_YES : MHD_NO;
}

// The handler's reply, or null when it failed (the last guard: handlers
// catch at their own boundary).
std::shared_ptr<httpserver::http_response> reply_of(http_handler handler,
                                                    const httpserver::http_request& request) {
    try {
        return handler(request);
    } catch (...) {
        return nullptr;
    }
}

// A request on its way through the relay pool, or held until a view
// changes (then with no marking: it is always answered by its handler). Its
// connection is suspended from before the job is handed on until answer()
// resumes it.
class relay_request final : public relay_job {
public:
    relay_request(MHD_Connection* connection, request_state* state,
                  const relay_marking* marking, httpserver::http_request request)
        : connection(connection), state(state), marking(marking), request(std::move(request)) {}

    void run() override { answer(state->handler); }

    void refuse() override {
        if (marking == nullptr) {
            run();
            return;
        }
        if (!debug_log.path.empty()) {
            log_File_Debug_s(debug_log.path.c_str(), debug_log.size_limit,
                             "relay refused (no room or stopping), answered as failed: %s %s",
                             request.get_method().c_str(), request.get_path().c_str());
        }
        answer(marking->refused);
    }

private:
    // The last touch of the request's state and connection.
    void answer(http_handler handler) {
        state->response = reply_of(handler, request);
        state->relay_answered = true;
        resumed_answers.fetch_add(1);
        MHD_resume_connection(connection);
    }

    MHD_Connection* connection;
    request_state* state;
    const relay_marking* marking;
    httpserver::http_request request;
};

MHD_Result hand_to_relay_pool(MHD_Connection* connection, request_state* state,
                              const relay_marking& marking,
                              httpserver::http_request request) {
    auto job = std::make_unique<relay_request>(connection, state, &marking, std::move(request));
    MHD_suspend_connection(connection);
    relay_pool_submit(std::move(job));
    return MHD_YES;
}

// A request that is not held after all is answered at once, here.
MHD_Result hold_until_changed(MHD_Connection* connection, request_state* state,
                              const hold_terms& terms, httpserver::http_request request) {
    std::unique_ptr<relay_job> job =
        std::make_unique<relay_request>(connection, state, nullptr, std::move(request));
    MHD_suspend_connection(connection);
    held_requests_hold(job, *terms.view, terms.index, terms.wait_seconds);
    if (job) {
        job->run();
    }
    return MHD_YES;
}

MHD_Result call_handler(MHD_Connection* connection, const char* url, const char* method,
                        request_state* state) {
    try {
        httpserver::http_request request(
            method, url, collect_values<httpserver::arg_map>(connection, MHD_GET_ARGUMENT_KIND),
            collect_values<httpserver::header_map>(connection, MHD_HEADER_KIND),
            std::move(state->body));
        const relay_marking* relay = state->resource->relay_for(request);
        if (relay != nullptr) {
            return hand_to_relay_pool(connection, state, *relay, std::move(request));
        }
        hold_terms terms;
        if (state->resource->hold_for(request, &terms)) {
            return hold_until_changed(connection, state, terms, std::move(request));
        }
        return send_response(connection, state, reply_of(state->handler, request));
    } catch (...) {
        return queue_plain(connection, HANDLER_FAILED);
    }
}

MHD_Result finish_request(MHD_Connection* connection, const char* url, const char* method,
                          request_state* state) {
    if (state->relay_answered) {
        return send_response(connection, state, std::move(state->response));
    }
    connection_guard_request_received(state->guarded);
    if (state->body_received > SSCI_MAX_REQUEST_BODY) {
        return queue_plain(connection, BODY_TOO_LARGE);
    }
    if (state->refusal == &METHOD_NOT_ALLOWED) {
        return queue_plain(connection, METHOD_NOT_ALLOWED,
                           state->resource->allowed_methods().c_str());
    }
    if (state->refusal != nullptr) {
        return queue_plain(connection, *state->refusal);
    }
    return call_handler(connection, url, method, state);
}

MHD_Result on_request(void*, MHD_Connection* connection, const char* url, const char* method,
                      const char*, const char* upload_data, size_t* upload_data_size,
                      void** con_cls) {
    try {
        if (*con_cls == nullptr) {
            return begin_request(connection, url, method, con_cls);
        }
        auto* state = static_cast<request_state*>(*con_cls);
        if (*upload_data_size != 0) {
            return take_body(connection, state, upload_data, upload_data_size);
        }
        return finish_request(connection, url, method, state);
    } catch (...) {
        return MHD_NO;
    }
}

void on_completed(void*, MHD_Connection* connection, void** con_cls, MHD_RequestTerminationCode) {
    auto* state = static_cast<request_state*>(*con_cls);
    if (state != nullptr) {
        connection_guard_request_done(state->guarded);
        resumed_answers.fetch_sub(state->relay_answered ? 1 : 0);
        const MHD_ConnectionInfo* answered =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_HTTP_STATUS);
        if (answered != nullptr) {
            request_counts_add(state->resource, answered->http_status);
        }
    }
    delete state;
    *con_cls = nullptr;
}

void on_connection(void*, MHD_Connection* connection, void** socket_context,
                   MHD_ConnectionNotificationCode code) {
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        connection_guard_closed(static_cast<guarded_connection*>(*socket_context));
        *socket_context = nullptr;
        return;
    }
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    *socket_context = info == nullptr ? nullptr : connection_guard_opened(info->connect_fd);
}

// Raises the soft descriptor limit to what the connection limit needs when
// it is lower (never past the hard limit, never lowering it), and returns
// the connection limit that the descriptors left allow.
unsigned connection_limit(unsigned threads) {
    const rlim_t reserved = RESERVED_DESCRIPTORS + DESCRIPTORS_PER_THREAD * threads;
    const rlim_t wanted = CONNECTION_LIMIT + reserved;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        limit.rlim_cur < wanted) {
        limit.rlim_cur =
            limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return CONNECTION_LIMIT;
    }
    const rlim_t usable = limit.rlim_cur > 2 * reserved ? limit.rlim_cur - reserved
                                                         : limit.rlim_cur / 2;
    return static_cast<unsigned>(std::min<rlim_t>(usable, CONNECTION_LIMIT));
}

// A name may give IPv4 and IPv6 addresses; IPv4 is preferred.
const addrinfo* preferred_address(const addrinfo* list) {
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET) {
            return entry;
        }
    }
    return list;
}

long long bind_and_listen(const addrinfo* address, int* listen_fd) {
    int fd = socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -errno;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, address->ai_addr, address->ai_addrlen) != 0 || listen(fd, LISTEN_BACKLOG) != 0) {
        const long long status = -errno;
        close(fd);
        return status;
    }
    *listen_fd = fd;
    return RESULT_OK;
}

long long open_listen_socket(const char* host, int port, int* listen_fd) {
    char service[8];
    snprintf(service, sizeof service, "%d", port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    if (getaddrinfo(without_name_lookup(host), service, &hints, &list) != 0 || list == nullptr) {
        return RESULT_NO_ADDRESS;
    }
    const long long status = bind_and_listen(preferred_address(list), listen_fd);
    freeaddrinfo(list);
    return status;
}

}  // namespace

// The first and fifth to ninth parameters belong to the device library's
// name-server set-up; this server has no use for them.
void ssci_server_set_debug_log(const char* path, int size_limit) {
    debug_log.path = path;
    debug_log.size_limit = size_limit;
}

long long ssci_server_create(const char*, const char* ip_addrs, int port, int thread_no,
                             const char*, int, bool, int, std::string) {
    std::lock_guard<std::mutex> hold(lifecycle_lock);
    if (g_server.phase != server_phase::absent) {
        return RESULT_OUT_OF_ORDER;
    }
    if (ip_addrs == nullptr || port < 1 || port > MAX_PORT || thread_no < 1) {
        return RESULT_BAD_ARGUMENT;
    }
    // A client that goes away while we write must not end the process.
    signal(SIGPIPE, SIG_IGN);
    int fd = -1;
    const long long status = open_listen_socket(ip_addrs, port, &fd);
    if (status != RESULT_OK) {
        return status;
    }
    g_server.phase = server_phase::created;
    g_server.listen_fd = fd;
    g_server.thread_count = static_cast<unsigned>(thread_no);
    return RESULT_OK;
}

long long ssci_server_start() {
    std::lock_guard<std::mutex> hold(lifecycle_lock);
    if (g_server.phase != server_phase::created || g_server.listen_fd < 0) {
        return RESULT_OUT_OF_ORDER;
    }
    // One listener thread runs without a pool.
    const intptr_t pool_size = g_server.thread_count > 1 ? g_server.thread_count : 0;
    const unsigned limit = connection_limit(g_server.thread_count);
    MHD_OptionItem options[] = {
        {MHD_OPTION_LISTEN_SOCKET, g_server.listen_fd, nullptr},
        {MHD_OPTION_THREAD_POOL_SIZE, pool_size, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, CONNECTION_IDLE_SECONDS, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(limit), nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, CONNECTION_BUFFER_BYTES, nullptr},
        // The listener threads (see LISTENER_STACK_BYTES).
        {MHD_OPTION_THREAD_STACK_SIZE, static_cast<intptr_t>(LISTENER_STACK_BYTES), nullptr},
        {MHD_OPTION_END, 0, nullptr},
    };
    mallopt(M_MMAP_THRESHOLD, OWN_MAPPING_FROM_BYTES);
    mallopt(M_ARENA_MAX, THREAD_HEAPS);
    if (!connection_guard_start(limit)) {
        return RESULT_IO;
    }
    relay_pool_start();
    held_requests_start();
    g_server.daemon = MHD_start_daemon(
        DAEMON_FLAGS, 0, nullptr, nullptr, on_request, nullptr, MHD_OPTION_ARRAY, options,
        MHD_OPTION_NOTIFY_COMPLETED, on_completed, nullptr, MHD_OPTION_NOTIFY_CONNECTION,
        on_connection, nullptr, MHD_OPTION_END);
    if (g_server.daemon == nullptr) {
        connection_guard_stop();
        held_requests_stop();
        relay_pool_stop();
        return RESULT_IO;
    }
    g_server.phase = server_phase::running;
    return RESULT_OK;
}

// Takes the listen socket back from libmicrohttpd first, so that stopping
// the daemon leaves it open: the server may start again, and destory
// closes it. Held requests are answered at once. Relays in flight end
// within their own time limits; those still waiting for a worker are
// answered as failed at once. The answers just resumed get a moment to
// leave before the connections close. No connection is
// suspended once the pool has stopped, as libmicrohttpd requires.
long long ssci_server_stop() {
    std::lock_guard<std::mutex> hold(lifecycle_lock);
    if (g_server.phase != server_phase::running) {
        return RESULT_OUT_OF_ORDER;
    }
    if (MHD_quiesce_daemon(g_server.daemon) != g_server.listen_fd) {
        g_server.listen_fd = -1;  // MHD_stop_daemon closes it
    }
    held_requests_stop();
    relay_pool_stop();
    const auto flush_end = std::chrono::steady_clock::now() + RESUMED_FLUSH_LIMIT;
    while (resumed_answers.load() != 0 && std::chrono::steady_clock::now() < flush_end) {
        std::this_thread::sleep_for(RESUMED_FLUSH_STEP);
    }
    connection_guard_stop();
    MHD_stop_daemon(g_server.daemon);
    g_server.daemon = nullptr;
    g_server.phase = server_phase::created;
    return RESULT_OK;
}

long long ssci_server_destory() {
    std::lock_guard<std::mutex> hold(lifecycle_lock);
    if (g_server.phase != server_phase::created) {
        return RESULT_OUT_OF_ORDER;
    }
    if (g_server.listen_fd >= 0) {
        close(g_server.listen_fd);
    }
    g_server = server_state{};
    return RESULT_OK;
}
