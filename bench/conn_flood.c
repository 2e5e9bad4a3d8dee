/* conn_flood.c - a connection flood for the device checks: keeps COUNT
 * connections open to ADDRESS:PORT for SECONDS, each holding a partial
 * request head of HEAD_BYTES (a request line and one long header line that
 * never ends). A connection the server closes is opened again at once, so
 * the daemon sees COUNT clients for the whole time. Small and static, so it
 * runs inside the 64 MiB boot-check guest (scripts/boot-check.sh) as well as
 * on the host (bench/device_flood.py).
 *
 * usage: conn_flood ADDRESS PORT COUNT HEAD_BYTES SECONDS
 * Prints one line: connections opened, closed by the server, open at the
 * end of the run and at most at once.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#define MAX_COUNT 20000
#define MAX_HEAD 65536
#define DESCRIPTORS_BESIDES 16
#define POLL_MS 200

static const char HEAD_START[] =
    "GET /managerService/svcmgr?method=get_info&name=flood HTTP/1.1\r\nHost: d\r\nX-Pad: ";

enum { CONNECTING, HOLDING };

struct flood_conn {
    int fd;
    int state;
};

static struct sockaddr_in target;
static char head[MAX_HEAD];
static size_t head_bytes;
static long opened, closed_by_server;

static double now_seconds(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

/* A new non-blocking connection in `c` (fd -1 when none could be made). */
static void open_conn(struct flood_conn* c) {
    c->fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    c->state = CONNECTING;
    if (c->fd < 0) {
        return;
    }
    if (connect(c->fd, (struct sockaddr*)&target, sizeof target) != 0 && errno != EINPROGRESS) {
        close(c->fd);
        c->fd = -1;
        return;
    }
    ++opened;
}

static void reopen(struct flood_conn* c) {
    if (c->fd >= 0) {
        close(c->fd);
    }
    open_conn(c);
}

/* Handles what poll reported for one connection. */
static void on_event(struct flood_conn* c, short events) {
    char sink[512];
    if (c->state == CONNECTING && (events & POLLOUT) && !(events & (POLLERR | POLLHUP))) {
        if (send(c->fd, head, head_bytes, MSG_NOSIGNAL) < 0 && errno != EAGAIN) {
            reopen(c);
            return;
        }
        c->state = HOLDING;
        return;
    }
    if (events & (POLLERR | POLLHUP)) {
        closed_by_server += c->state == HOLDING;
        reopen(c);
        return;
    }
    if (events & POLLIN) {
        /* An answer (431) or the end of the stream: the server is done with it. */
        while (recv(c->fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
        }
        ++closed_by_server;
        reopen(c);
    }
}

static int parse_args(int argc, char** argv, long* count, double* seconds) {
    if (argc != 6 || inet_pton(AF_INET, argv[1], &target.sin_addr) != 1) {
        return 0;
    }
    target.sin_family = AF_INET;
    target.sin_port = htons((unsigned short)atoi(argv[2]));
    *count = atol(argv[3]);
    head_bytes = (size_t)atol(argv[4]);
    *seconds = atof(argv[5]);
    return *count > 0 && *count <= MAX_COUNT && head_bytes >= sizeof HEAD_START &&
           head_bytes <= MAX_HEAD && *seconds > 0;
}

int main(int argc, char** argv) {
    long count = 0, open_now = 0, open_most = 0;
    double seconds = 0;
    if (!parse_args(argc, argv, &count, &seconds)) {
        fprintf(stderr, "usage: %s ADDRESS PORT COUNT HEAD_BYTES SECONDS\n", argv[0]);
        return 2;
    }
    struct rlimit limit = {(rlim_t)count + DESCRIPTORS_BESIDES, (rlim_t)count + DESCRIPTORS_BESIDES};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        perror("conn_flood: setrlimit");
        return 1;
    }
    memcpy(head, HEAD_START, sizeof HEAD_START - 1);
    memset(head + sizeof HEAD_START - 1, 'a', head_bytes - (sizeof HEAD_START - 1));
    struct flood_conn* conns = calloc((size_t)count, sizeof *conns);
    struct pollfd* polls = calloc((size_t)count, sizeof *polls);
    if (conns == NULL || polls == NULL) {
        return 1;
    }
    for (long i = 0; i < count; ++i) {
        open_conn(&conns[i]);
    }
    const double end = now_seconds() + seconds;
    while (now_seconds() < end) {
        open_now = 0;
        for (long i = 0; i < count; ++i) {
            if (conns[i].fd < 0) {
                open_conn(&conns[i]);
            }
            polls[i].fd = conns[i].fd;
            polls[i].events = conns[i].state == CONNECTING ? POLLOUT : POLLIN;
            open_now += conns[i].state == HOLDING;
        }
        open_most = open_now > open_most ? open_now : open_most;
        if (poll(polls, (nfds_t)count, POLL_MS) > 0) {
            for (long i = 0; i < count; ++i) {
                if (polls[i].revents != 0 && polls[i].fd >= 0) {
                    on_event(&conns[i], polls[i].revents);
                }
            }
        }
    }
    printf("conn_flood: %ld connections, %zu-byte heads, %.0f s: opened %ld, closed by the "
           "server %ld, holding %ld at the end, at most %ld\n",
           count, head_bytes, seconds, opened, closed_by_server, open_now, open_most);
    return 0;
}
