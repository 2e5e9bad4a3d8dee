#!/bin/sh
# Runs a command in a network namespace of its own in which only loopback is
# up: no other interface, no route. The black-box tests run in one, so that a
# daemon whose registry holds an address outside 127.0.0.0/8 and ::1 cannot
# reach it: the prober's connect fails at once with "network unreachable"
# instead of sending anything off the machine. Needs root.
# usage: loopback_only.sh COMMAND [ARG...]
set -eu
exec unshare -n sh -c 'ip link set lo up && exec "$@"' loopback_only "$@"
