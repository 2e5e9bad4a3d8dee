#!/bin/sh
# The boot check: boots the armhf device build on a whole 32-bit ARM system
# with 64 MiB of RAM and tries it as a device team would.
#
# The guest is qemu-system-arm -M virt (Cortex-A15, one core) with Debian
# 12's armmp-lpae kernel and an initramfs made here: BusyBox (Debian's
# busybox-static) as init and shell, the C and C++ runtime from the armhf
# sysroot, the daemon's device build, its init script, a fake
# /etc/init.d/services.sh that sleeps 2 s. bench/conn_flood.c, built for
# the host, floods it through the forwarded port. Its network is qemu's user mode with restrict=on (the guest
# reaches nothing outside) and one forwarded port on the host's loopback.
# scripts/boot_check.py then drives it; see there for what is checked.
#
# The two Debian packages are fetched for armhf through a private apt
# configuration (its own source list, lists and cache; the host's apt is
# untouched), like the sysroot, and the kernel, its four network modules
# and BusyBox are kept under ~/.cache/manager_svc/; later runs only check.
#
# usage: scripts/boot-check.sh
# Environment: MANAGER_SVC_ARMHF_BUILD (build dir, default build-armhf in
# the work tree, shared with scripts/test-armhf.sh), and those of
# scripts/armhf-sysroot.sh and scripts/device-deps.sh.
set -eu

SUITE=bookworm
REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${MANAGER_SVC_ARMHF_BUILD:-$REPO/build-armhf}
TRIPLET=arm-linux-gnueabihf
CACHE_DIR=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/manager_svc
GUEST_DIR=$CACHE_DIR/boot-check-$SUITE-armhf
APT_DIR=$CACHE_DIR/apt-armhf-$SUITE
GUEST_PACKAGES="busybox-static linux-image-armmp-lpae"
# virtio-net on the virt machine's virtio-mmio transport, in load order.
MODULES="net/core/failover drivers/net/net_failover drivers/net/virtio_net drivers/virtio/virtio_mmio"
STAMP_NAME=.manager_svc-guest
STAMP_TEXT="armhf $SUITE $GUEST_PACKAGES $MODULES"

say() { echo "boot-check: $*" >&2; }
fail() { say "FAILED: $*"; exit 1; }

# shellcheck source=scripts/debian-sources.sh
. "$REPO/scripts/debian-sources.sh"
# shellcheck source=scripts/device-build.sh
. "$REPO/scripts/device-build.sh"

# apt-get or apt-cache ($1) with a private source list, lists and cache
# under $APT_DIR, for armhf, with no installed packages.
private_apt() {
    tool=$1
    shift
    "$tool" -q -o Dir::Etc::SourceList="$APT_DIR/sources.list" \
        -o Dir::Etc::SourceParts="$APT_DIR/sources.list.d" \
        -o Dir::State::Lists="$APT_DIR/lists" -o Dir::Cache="$APT_DIR/cache" \
        -o Dir::State::status=/dev/null -o APT::Architecture=armhf \
        -o APT::Architectures::=armhf -o APT::Sandbox::User=root "$@"
}

# The armhf binary entries: one deb line per archive entry apt uses for $SUITE.
write_source_list() {
    mkdir -p "$APT_DIR/sources.list.d" "$APT_DIR/lists/partial" "$APT_DIR/cache/archives/partial"
    debian_sources "$SUITE" | awk '{
        keyring = ($3 == "-") ? "" : " signed-by=" $3
        components = ""
        for (i = 4; i <= NF; i++) components = components " " $i
        print "deb [arch=armhf" keyring "] " $1 " " $2 components }' >"$APT_DIR/sources.list"
    [ -s "$APT_DIR/sources.list" ] || fail "no deb entry for $SUITE in $DEBIAN_SOURCE_FILES"
}

fetch_guest() {
    write_source_list
    # An index caught mid-sync on the mirror fails alone; the download
    # below says whether what was fetched is enough.
    private_apt apt-get update >"$APT_DIR/update.log" 2>&1 ||
        say "apt-get update had errors (see $APT_DIR/update.log); going on"
    # The kernel package that the meta-package names (download takes no
    # dependencies).
    kernel=$(private_apt apt-cache depends linux-image-armmp-lpae |
        awk '/Depends: linux-image-/ { print $2; exit }')
    [ -n "$kernel" ] || fail "no kernel package behind linux-image-armmp-lpae"
    partial=$GUEST_DIR.partial
    rm -rf "$partial"
    mkdir -p "$partial/debs" "$partial/unpacked" "$partial/modules"
    say "downloading busybox-static and $kernel for armhf (done once per machine)"
    (cd "$partial/debs" && private_apt apt-get download busybox-static "$kernel") >"$partial.log" 2>&1 ||
        fail "apt-get download failed; see $partial.log"
    for deb in "$partial"/debs/*.deb; do
        dpkg-deb -x "$deb" "$partial/unpacked" || fail "cannot unpack $deb"
    done
    cp "$partial"/unpacked/boot/vmlinuz-* "$partial/vmlinuz"
    cp "$partial/unpacked/bin/busybox" "$partial/busybox"
    for module in $MODULES; do
        cp "$partial"/unpacked/lib/modules/*/kernel/"$module".ko "$partial/modules/" ||
            fail "no $module in $kernel"
    done
    rm -rf "$partial/debs" "$partial/unpacked" "$partial.log"
    echo "$STAMP_TEXT" >"$partial/$STAMP_NAME"
    rm -rf "$GUEST_DIR"
    mv "$partial" "$GUEST_DIR"
}

build() {
    configure_device_build
    cmake --build "$BUILD" -j2 --target manager_svc || fail "build"
    "$TRIPLET-strip" -o "$BUILD/manager_svc.stripped" "$BUILD/manager_svc"
    cc -O2 -Wall -o "$BUILD/conn_flood" "$REPO/bench/conn_flood.c" || fail "build of the flood tool"
}

"$REPO/scripts/setup.sh" armhf
mkdir -p "$CACHE_DIR"
exec 9>"$CACHE_DIR/boot-check.lock"
flock 9
if [ -f "$GUEST_DIR/$STAMP_NAME" ] && [ "$(cat "$GUEST_DIR/$STAMP_NAME")" = "$STAMP_TEXT" ]; then
    say "guest packages up to date: $GUEST_DIR"
else
    fetch_guest
fi
flock -u 9
build
exec python3 "$REPO/scripts/boot_check.py" --guest "$GUEST_DIR" --sysroot "$SYSROOT" \
    --daemon "$BUILD/manager_svc.stripped" --flood "$BUILD/conn_flood" \
    --init-script "$REPO/packaging/manager_svc.init" --web "$REPO/web" --work "$BUILD/boot-check"
