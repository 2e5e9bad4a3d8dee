// lifecycle.h - start-up and shutdown of the daemon: signal handlers, the
// server's bring-up and teardown, and the wait for a stop signal.
// Called from the main thread only; signal_handler runs on any thread.
#ifndef MANAGER_SVC_LIFECYCLE_H
#define MANAGER_SVC_LIFECYCLE_H

// Logs "recv sig=N" with one write(2) and sets the stop flag.
void signal_handler(int sig);

// Installs the stop-signal handler (SIGINT, SIGTERM) and the crash handler
// (SIGSEGV, SIGABRT, SIGTRAP).
void register_signal_handlers();

// Hands the home path to the monitor, restores the registry, creates and
// starts the HTTP server, sets the name server and starts the
// reachability prober with the monitor period (seconds). Ends the process with
// status 1 when the server cannot be created or started.
void server_init(const char* listen_addrs, int listen_port, int listener_threads,
                 const char* web_home_path, int monitor_period);

// Sleeps in one-second steps until a stop signal has been received.
void wait_for_stop();

// Stops the prober, stops and destroys the server, then writes the
// registry back and empties it. Ends the process with status 1 when the server cannot be stopped.
void server_uninit();

#endif
