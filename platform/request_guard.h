// request_guard.h - who may ask this server anything: the checks that the
// HTTP frame makes on every request's head before any handler runs.
//
// The daemon listens on loopback or the device's own address, and the
// operator's browser can reach it there; binding is no boundary against a
// web page that browser opens. Two checks close that:
// - Host allow-list. A browser sends the name the page was loaded from; a
//   name that some other site made resolve to this device (DNS rebinding)
//   is not one of ours. Served are: no Host at all (HTTP/1.0 clients), an
//   IPv4 literal, a bracketed IPv6 literal, "localhost" or "localhost.",
//   the machine's host name and that name followed by ".local", each with
//   or without a port, letter case ignored. Anything else gets 421. A
//   device reached through another DNS name is therefore refused: put its
//   address in the URL instead.
// - Cross-origin changes. Browsers label requests a page makes: a method
//   that can change state (anything but GET, HEAD and OPTIONS) is refused
//   with 403 when Sec-Fetch-Site says it comes from another site or origin
//   ("same-site" included: another port on the same host is another
//   origin), or, without Sec-Fetch-Site, when Origin is present and is not
//   "http://" followed by the request's Host. Clients that send neither
//   header (curl, wget, the device's services) are served as before.
// Reading requests is not checked for origin: a foreign page cannot read
// the reply (no CORS header is ever sent), and the Host check keeps
// rebinding pages out.
// Stateless; called on the listener threads.
#ifndef MANAGER_SVC_REQUEST_GUARD_H
#define MANAGER_SVC_REQUEST_GUARD_H

#include <string>

struct MHD_Connection;

enum class request_verdict {
    served,
    misdirected,   // Host not one of ours: 421
    cross_origin,  // a state change asked by another origin's page: 403
};

// The request-head values that decide; null where the header is absent.
struct request_head {
    const char* method;
    const char* host;
    const char* origin;
    const char* fetch_site;  // Sec-Fetch-Site
};

request_verdict request_guard_judge(const request_head& head);

// Judges the request whose head libmicrohttpd holds on `connection`. A
// refusal is recorded as one record in the debug log `log_path` (none when
// it is empty), naming the method, the path and the deciding headers.
request_verdict request_guard_check(MHD_Connection* connection, const char* method,
                                    const char* url, const std::string& log_path,
                                    int size_limit);

#endif
