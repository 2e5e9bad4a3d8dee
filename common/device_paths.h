// device_paths.h - the fixed paths of the device that the daemon uses.
// They are fixed in the product: no option or environment changes them.
// Tests never point the daemon elsewhere; they run it chrooted over an
// overlay of / so that these paths land in a scratch directory.
#ifndef MANAGER_SVC_DEVICE_PATHS_H
#define MANAGER_SVC_DEVICE_PATHS_H

// The registry file, one "name,ip,port" line per service.
constexpr const char REGISTRY_FILE_PATH[] = "/tmp/.manager_svc.inf";
// Created once the HTTP server runs; never removed by the daemon.
constexpr const char READY_MARKER_PATH[] = "/var/.mgrsvc_ok";
// The debug log and the size that the debug-log library rotates it at.
constexpr const char DEBUG_LOG_PATH[] = "/Ombrix/.mgrsvc_log/.mgrsvc_log";
constexpr int DEBUG_LOG_SIZE_LIMIT = 2097152;
// The init scripts that the service-control resource runs.
constexpr const char SERVICES_SCRIPT_PATH[] = "/etc/init.d/services.sh";
constexpr const char FDR_SERVICES_SCRIPT_PATH[] = "/etc/init.d/fdr_services.sh";
// The shell that runs the init scripts' command lines ("sh -c LINE").
constexpr const char SHELL_PATH[] = "/bin/sh";
// The process's own out-of-memory score adjustment (the kernel's file).
constexpr const char PROC_OOM_SCORE_ADJ_PATH[] = "/proc/self/oom_score_adj";
// Where the monitor's web pages live unless -D says otherwise.
constexpr const char DEFAULT_HOME_PATH[] = "/home/httpd/manager_svc/";

#endif
