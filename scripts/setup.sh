#!/bin/sh
# Installs every package needed to build, test and benchmark manager_svc
# from Debian's archive. Idempotent: when everything is present it only
# checks; it runs `apt-get update` only when a package is missing.
#
# usage: setup.sh          the host build and its tests
#        setup.sh armhf    also the 32-bit ARM cross-compiler, the user-mode
#                          emulator that runs its binaries, and debootstrap
#                          for the target's sysroot (scripts/armhf-sysroot.sh)
#                          and the system emulator that boots the device
#                          build (scripts/boot-check.sh)
# busybox gives the init script's tests BusyBox's applets; lintian checks
# the package; dpkg-dev unpacks the source packages that
# scripts/device-deps.sh builds and computes the package's Depends;
# prometheus gives promtool, which checks the metrics' text format.
set -eu

PACKAGES="
build-essential cmake pkg-config git
libmicrohttpd-dev libjson-c-dev libcurl4-openssl-dev
googletest libgtest-dev libgmock-dev
python3 python3-pytest curl wrk chromium clang libclang-rt-14-dev
util-linux mount procps
busybox lintian dpkg-dev
prometheus
"
ARMHF_PACKAGES="g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user debootstrap
qemu-system-arm"
case "${1:-}" in
    "") ;;
    armhf) PACKAGES="$PACKAGES $ARMHF_PACKAGES" ;;
    *) echo "usage: $0 [armhf]" >&2; exit 2 ;;
esac

missing=""
for pkg in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $pkg"
    fi
done

if [ -z "$missing" ]; then
    echo "setup: all packages present"
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "setup: these Debian packages are missing:$missing" >&2
    echo "setup: run this script as root (or: sudo $0) to install them" >&2
    exit 1
fi

echo "setup: installing:$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
# shellcheck disable=SC2086
apt-get install -y -q --no-install-recommends $missing
echo "setup: done"
