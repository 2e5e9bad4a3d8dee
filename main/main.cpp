// main.cpp - the manager_svc daemon: options and banner, then the
// lifecycle: detach on request, signal handlers, server start, ready
// marker, wait for a stop signal, server stop, registry written back.
#include <unistd.h>

#include <cstdlib>

#include "common/device_paths.h"
#include "common/print_log.h"
#include "main/lifecycle.h"
#include "main/settings.h"
#include "platform/utils.h"

int main(int argc, char* argv[]) {
    switch (parse_options(argc, argv)) {
    case OPTIONS_EXIT_SUCCESS:
        return EXIT_SUCCESS;
    case OPTIONS_EXIT_FAILURE:
        return EXIT_FAILURE;
    case OPTIONS_RUN:
        break;
    }
    if (is_daemon && daemon(0, 0) != 0) {
        // A failed detach is not fatal: the daemon serves in the foreground.
    }
    register_signal_handlers();
    server_init(ip_addrs, port, thread_no, home_path, g_monitor_period);
    touch_file(READY_MARKER_PATH);
    wait_for_stop();
    server_uninit();
    print_log(WARN, "%s exit(EXIT_SUCCESS).\n", PROGRAM_NAME);
    return EXIT_SUCCESS;
}
