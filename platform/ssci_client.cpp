// ssci_client.cpp - the service-bus client.
// nameserver_host / nameserver_port: written by ssci_nameserver_init on the
// main thread before the server starts, read-only afterwards.
#include "platform/ssci_client.h"

#include <string>

namespace {
std::string nameserver_host;  // written before threads start, read-only after
int nameserver_port = 0;      // written before threads start, read-only after
}  // namespace

void ssci_nameserver_init(const char* host, int port) {
    nameserver_host = host;
    nameserver_port = port;
}
