// connection_guard.h - keeps clients that open connections and never finish
// a request from locking others out. Every open connection of the server is
// known here with the time since which it has been waiting for its next
// complete request (from its opening, or from the end of its previous
// request). A connection that waits longer than GUARD_REQUEST_SECONDS is
// closed; when the open connections near the server's limit, those that
// have waited longest are closed first. A connection whose request is being
// handled (a relay included) is never closed here.
// The hooks are called from the listener threads; start and stop from the
// server's lifecycle calls (main thread). guard_lock (in the .cpp) guards
// the set of connections and the counts; a connection's waiting time is an
// atomic of its own, written without the lock.
#ifndef MANAGER_SVC_CONNECTION_GUARD_H
#define MANAGER_SVC_CONNECTION_GUARD_H

// A connection gets this long to deliver a complete request (head and
// body), counted from its opening or from the end of its previous request.
constexpr unsigned GUARD_REQUEST_SECONDS = 10;

struct guarded_connection;

// Starts the watchdog; `limit` is the server's connection limit. False
// when its thread could not be made.
bool connection_guard_start(unsigned limit);
// Stops the watchdog (connections are left to the server to close).
void connection_guard_stop();

// A connection was accepted on socket `fd`; may close others that have
// waited longest. Null when no memory is left (that connection goes
// unguarded).
guarded_connection* connection_guard_opened(int fd);
// Its request is complete and being handled / handled and answered.
void connection_guard_request_received(guarded_connection* connection);
void connection_guard_request_done(guarded_connection* connection);
// The server has closed it; frees it. Null is ignored by every hook.
void connection_guard_closed(guarded_connection* connection);

#endif
