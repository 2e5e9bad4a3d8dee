// ssci_client.h - the service-bus client: reaches another service by its
// registered name. The name server's address is set once at start-up
// (ssci_nameserver_init, main thread, before requests arrive) and only read
// afterwards; ssci_GET_request keeps no other state and is reentrant.
#ifndef MANAGER_SVC_SSCI_CLIENT_H
#define MANAGER_SVC_SSCI_CLIENT_H

#include <map>
#include <string>

// The request arguments of a service-bus call.
struct query_object {
    std::map<std::string, std::string> args;
    std::string text;
};

// Where client calls look services up.
void ssci_nameserver_init(const char* host, int port);

// GETs `path` (plus the query's arguments) from the service registered as
// `name`, each step within `time_limit` seconds. The reply body is left in
// `body` on success; on any failure `body` stays empty and the result is
// non-zero.
int ssci_GET_request(const char* name, const char* path, query_object* query,
                     std::string& body, long time_limit, bool flag, int reserved,
                     char** reserved_out);

#endif
