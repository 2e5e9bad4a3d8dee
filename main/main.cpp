// main.cpp - the manager_svc daemon's entry point.
#include <cstdlib>

#include "main/settings.h"

int main(int argc, char* argv[]) {
    switch (parse_options(argc, argv)) {
    case OPTIONS_EXIT_SUCCESS:
        return EXIT_SUCCESS;
    case OPTIONS_EXIT_FAILURE:
        return EXIT_FAILURE;
    case OPTIONS_RUN:
        break;
    }
    return EXIT_SUCCESS;
}
