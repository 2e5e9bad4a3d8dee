// loopback.h - "localhost" without a name look-up. The listen address (its
// default) and the name server are "localhost"; a device image without
// /etc/hosts, or a bare chroot, has nothing that resolves it, so both use
// the IPv4 loopback address directly (the server has always preferred IPv4
// for "localhost"). Read by the server's creation and the name-server set-up
// (main thread); no state.
#ifndef MANAGER_SVC_LOOPBACK_H
#define MANAGER_SVC_LOOPBACK_H

#include <strings.h>

constexpr const char LOCALHOST_NAME[] = "localhost";
constexpr const char LOOPBACK_ADDRESS[] = "127.0.0.1";

// `host`, or the loopback address when `host` is "localhost" (any case).
inline const char* without_name_lookup(const char* host) {
    return strcasecmp(host, LOCALHOST_NAME) == 0 ? LOOPBACK_ADDRESS : host;
}

#endif
