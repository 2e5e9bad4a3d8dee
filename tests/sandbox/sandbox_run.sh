#!/bin/sh
# Runs a command in a private mount namespace, chrooted into an overlay of the
# host's root: what it writes lands in ROOT/upper (the host's files are never
# touched). Of the device's fixed paths it sees only what the test put into
# ROOT/upper: a whiteout hides each other one, a directory put there is made
# opaque. When ROOT lies on an overlay (a container), a tmpfs is mounted on it,
# in the caller's namespace.
# usage: sandbox_run.sh [--fresh | --prepare] ROOT [COMMAND [ARG...]]
#   --fresh: empty ROOT first; --prepare: only make ROOT (to fill ROOT/upper).
# Every step execs, so signals sent to this script's pid reach the command.
set -eu
FIXED_PATHS="/tmp/.manager_svc.inf /var/.mgrsvc_ok /Ombrix /etc/init.d/services.sh
/etc/init.d/fdr_services.sh /home/httpd/manager_svc"
[ "$(id -u)" -eq 0 ] || { echo "sandbox_run.sh: needs root (mount namespace, overlayfs)" >&2; exit 2; }
option=${1:-}
case $option in --fresh|--prepare) shift ;; esac
[ "$option" != --fresh ] || rm -rf "$1" 2>/dev/null || mountpoint -q "$1"
root=$(realpath -m "$1")
shift
if [ ! -d "$root/upper" ]; then
    mkdir -p "$root"
    [ "$(stat -f -c %T "$root")" != overlayfs ] || mount -t tmpfs sandbox "$root"
fi
mkdir -p "$root/upper" "$root/work" "$root/merged"
[ "$option" != --prepare ] || exit 0
for path in $FIXED_PATHS; do
    hidden=$root/upper$path
    mkdir -p "$(dirname "$hidden")"
    if [ -d "$hidden" ] && [ ! -L "$hidden" ]; then
        /usr/bin/python3 -c 'import os, sys; os.setxattr(sys.argv[1], "trusted.overlay.opaque", b"y")' "$hidden"
    elif [ ! -e "$hidden" ] && [ ! -L "$hidden" ]; then
        mknod "$hidden" c 0 0
    fi
done
exec unshare -m --propagation private sh -c '
    set -e
    r=$1; shift
    mount -t overlay overlay -o "lowerdir=/,upperdir=$r/upper,workdir=$r/work" "$r/merged"
    mount --bind /proc "$r/merged/proc"
    mount --rbind /dev "$r/merged/dev"
    mount --rbind /sys "$r/merged/sys"
    exec chroot "$r/merged" env --chdir="$PWD" "$@"
' sandbox "$root" "$@"
