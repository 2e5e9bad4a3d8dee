/* anchor_server.c - the benchmark's yardstick: a bare libmicrohttpd server
 * that answers every request with the same bytes, with the same thread pool
 * and polling mode as the daemon's server.
 *
 * usage: anchor_server PORT THREADS BODY_FILE CONTENT_TYPE
 * Runs until SIGINT or SIGTERM. */
#include <microhttpd.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char* body;
static size_t body_size;
static const char* content_type;
static enum MHD_Result answer(void* cls, struct MHD_Connection* connection, const char* url,
                              const char* method, const char* version,
                              const char* upload_data, size_t* upload_data_size,
                              void** request_state) {
    (void)cls; (void)url; (void)method; (void)version; (void)upload_data;
    static int first_call_marker;
    if (*request_state == NULL) {
        *request_state = &first_call_marker;
        return MHD_YES;
    }
    *upload_data_size = 0;
    struct MHD_Response* response =
        MHD_create_response_from_buffer(body_size, body, MHD_RESPMEM_PERSISTENT);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, content_type);
    enum MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return queued;
}

static int read_body(const char* path) {
    FILE* in = fopen(path, "rb");
    if (in == NULL) {
        return -1;
    }
    fseek(in, 0, SEEK_END);
    long size = ftell(in);
    fseek(in, 0, SEEK_SET);
    body = malloc(size > 0 ? (size_t)size : 1);
    body_size = fread(body, 1, size > 0 ? (size_t)size : 0, in);
    fclose(in);
    return 0;
}

int main(int argc, char* argv[]) {
    if (argc != 5 || read_body(argv[3]) != 0) {
        fprintf(stderr, "usage: %s PORT THREADS BODY_FILE CONTENT_TYPE\n", argv[0]);
        return 2;
    }
    content_type = argv[4];
    unsigned threads = (unsigned)atoi(argv[2]);
    /* The stop signals are blocked before the pool starts, so that its
     * threads inherit the mask and only sigwait below receives them. */
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, NULL);
    struct MHD_Daemon* daemon = MHD_start_daemon(
        MHD_USE_AUTO_INTERNAL_THREAD | MHD_USE_ITC | MHD_USE_TURBO, (uint16_t)atoi(argv[1]), NULL, NULL,
        answer, NULL, MHD_OPTION_THREAD_POOL_SIZE, threads, MHD_OPTION_END);
    if (daemon == NULL) {
        fprintf(stderr, "anchor_server: cannot listen on port %s\n", argv[1]);
        return 1;
    }
    int received;
    sigwait(&stop_signals, &received);
    MHD_stop_daemon(daemon);
    free(body);
    return 0;
}
