#!/bin/sh
# Runs a command in a private mount namespace, chrooted into an overlay of
# the host's root: the command sees the whole host read-only below, and
# everything it writes (registry file, ready marker, debug log) lands in
# ROOT/upper, where the test reads it. The host's own copies are never
# touched. Files the command should find (init-script fakes, web pages, a
# seeded registry file) are put into ROOT/upper beforehand.
#
# usage: sandbox_run.sh [--fresh] ROOT COMMAND [ARG...]
#   --fresh  empty ROOT first
# The command keeps the caller's working directory and process id (every
# step execs), so signals sent to this script's pid reach the command.
set -eu
if [ "$(id -u)" -ne 0 ]; then
    echo "sandbox_run.sh: must run as root (mount namespaces and overlayfs)" >&2
    exit 2
fi
if [ "${1:-}" = "--fresh" ]; then
    shift
    rm -rf "$1"
fi
root=$(realpath -m "$1")
shift
mkdir -p "$root/upper" "$root/work" "$root/merged"
exec unshare -m --propagation private sh -c '
    set -e
    r=$1; shift
    mount -t overlay overlay -o "lowerdir=/,upperdir=$r/upper,workdir=$r/work" "$r/merged"
    mount --bind /proc "$r/merged/proc"
    mount --rbind /dev "$r/merged/dev"
    mount --rbind /sys "$r/merged/sys"
    exec chroot "$r/merged" env --chdir="$PWD" "$@"
' sandbox "$root" "$@"
