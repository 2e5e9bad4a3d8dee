// prober.h - the reachability prober: one thread that checks, every
// monitor period, whether a TCP connection can be opened to every
// registered service (tcp_probe.h), and the "get_reachability" reply built
// from what it found.
// The prober reads the registry only through svc_info_list (copies) and
// never writes it or its file. Its findings are guarded by its own lock,
// never held while it waits on the network or while the registry lock is
// taken. Started and stopped by the main thread (server start-up and
// shutdown); the reply is built on any listener thread.
#ifndef MANAGER_SVC_PROBER_H
#define MANAGER_SVC_PROBER_H

#include <string>

// Starts the prober thread with the monitor period in seconds (> 0).
// Returns false, with nothing started, when the thread or its wake-up pipe
// cannot be had.
bool prober_start(int period_seconds);

// Wakes the prober, whatever it waits on, and joins it. Does nothing when
// it was not started.
void prober_stop();

// The "get_reachability" reply text: {"return": 0, "period": P, "items":
// [...]}, one item per registered service in the registry's name order.
std::string prober_reachability_reply();

#endif
