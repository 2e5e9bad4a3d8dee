#!/bin/sh
# The device check: builds the device build of manager_svc (linked with
# the static minimal libraries of scripts/device-deps.sh) and its unit tests
# for 32-bit ARM (armhf), runs the unit tests under qemu-arm inside the
# overlay sandbox, runs the two HTTP clients' unit test once more against
# Debian's shared libraries (so both link choices are held to the same
# behaviour), starts the armhf daemon under qemu and does one register /
# get_info / unregister round trip over loopback, reports the device
# footprint against its budget, makes the armhf Debian package and checks
# it with lintian (no error, no warning). Exits
# non-zero on any failure and says how long each step took.
#
# The footprint is the stripped binary plus every shared library it needs,
# directly or through another library, beyond the C and C++ runtime (libc,
# libm, libstdc++, libgcc_s and the dynamic loader), as found in the sysroot.
#
# usage: scripts/test-armhf.sh
# Environment: MANAGER_SVC_ARMHF_BUILD (build dir, default build-armhf in the
# work tree), and those of scripts/armhf-sysroot.sh and scripts/device-deps.sh.
set -eu

REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${MANAGER_SVC_ARMHF_BUILD:-$REPO/build-armhf}
SHARED_BUILD=$BUILD-shared
CLIENT_TESTS="http_clients_test"
SANDBOX_RUN=$REPO/tests/sandbox/sandbox_run.sh
SIZE_BUDGET=1048576
TRIPLET=arm-linux-gnueabihf
READY_TIMEOUT=60
STOP_TIMEOUT=30
CURL="curl -sS --max-time 10"
START=$(date +%s)
DAEMON_PID=""

say() { echo "test-armhf: $*"; }
fail() { echo "test-armhf: FAILED: $*" >&2; exit 1; }
elapsed() { echo "$(($(date +%s) - $1)) s"; }

cleanup() {
    if [ -n "$DAEMON_PID" ] && kill -0 "$DAEMON_PID" 2>/dev/null; then
        kill -KILL "$DAEMON_PID" 2>/dev/null || true
    fi
}
trap cleanup EXIT
# shellcheck source=scripts/device-build.sh
. "$REPO/scripts/device-build.sh"

build() {
    "$REPO/scripts/setup.sh" armhf
    configure_device_build
    cmake --build "$BUILD" -j2 || fail "build"
}

# GoogleTest's death tests re-execute the test binary; the user-mode
# emulator cannot exec an ARM binary without a host-wide binfmt_misc
# registration, which a shared build machine must not get. They run in the
# host build only.
unit_tests() {
    t0=$(date +%s)
    GTEST_FILTER='-*DeathTest.*' ctest --test-dir "$BUILD" -L unit -j2 --output-on-failure || fail "unit tests under qemu-arm"
    say "emulated unit tests took $(elapsed "$t0")"
}

# The outbound clients built against the sysroot's shared libcurl (and
# the rest of Debian's libraries) instead of the static minimal ones.
shared_library_clients() {
    t0=$(date +%s)
    cmake -S "$REPO" -B "$SHARED_BUILD" -DCMAKE_TOOLCHAIN_FILE="$REPO/cmake/armhf-toolchain.cmake" \
        -DMANAGER_SVC_ARMHF_SYSROOT="$SYSROOT" >"$BUILD/configure-shared.log" 2>&1 ||
        { cat "$BUILD/configure-shared.log" >&2; fail "configure with shared libraries"; }
    # shellcheck disable=SC2086 # a list of targets
    cmake --build "$SHARED_BUILD" -j2 --target $CLIENT_TESTS || fail "build with shared libraries"
    ctest --test-dir "$SHARED_BUILD" -R 'unit\.http_clients_test$' -j2 \
        --output-on-failure || fail "client unit tests with shared libraries under qemu-arm"
    say "client unit tests with shared libraries took $(elapsed "$t0")"
}

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Polls $1 (a command) twice a second for at most $2 seconds.
poll() {
    polls=$(($2 * 2))
    while [ "$polls" -gt 0 ]; do
        eval "$1" && return 0
        sleep 0.5
        polls=$((polls - 1))
    done
    return 1
}

start_daemon() {
    SBX=$BUILD/sandbox/roundtrip
    PORT=$(free_port)
    URL=127.0.0.1:$PORT/managerService/svcmgr  # curl takes a bare host as http
    "$SANDBOX_RUN" --fresh "$SBX" qemu-arm -L "$SYSROOT" "$BUILD/manager_svc" \
        -i 127.0.0.1 -p "$PORT" -v 2 >"$BUILD/roundtrip.log" 2>&1 &
    DAEMON_PID=$!
    poll "[ -f '$SBX/upper/var/.mgrsvc_ok' ] && $CURL -o /dev/null '$URL?method=get_info&name=none' 2>/dev/null" \
        "$READY_TIMEOUT" || { cat "$BUILD/roundtrip.log" >&2; fail "armhf daemon not ready"; }
}

# expect_reply DESCRIPTION EXPECTED-SUBSTRING CURL-ARGS...
# The reply is compared with its blanks removed.
expect_reply() {
    what=$1 expected=$2
    shift 2
    reply=$($CURL "$@") || fail "$what: no answer"
    case "$(printf '%s' "$reply" | tr -d ' ')" in
        *"$expected"*) say "$what: $reply" ;;
        *) fail "$what: expected $expected, got: $reply" ;;
    esac
}

stop_daemon() {
    kill -TERM "$DAEMON_PID"
    poll "! kill -0 $DAEMON_PID 2>/dev/null" "$STOP_TIMEOUT" || fail "armhf daemon did not stop"
    wait "$DAEMON_PID" || fail "armhf daemon exited with status $?"
    DAEMON_PID=""
    [ -f "$SBX/upper/tmp/.manager_svc.inf" ] || fail "registry file not written at stop"
}

round_trip() {
    t0=$(date +%s)
    start_daemon
    expect_reply register '"return":0' -X POST -H 'Content-Type: application/json' \
        -d '{"method":"register","name":"svcA","ip":"127.0.0.1","port":80}' "$URL"
    expect_reply get_info '"return":0' "$URL?method=get_info&name=svcA"
    expect_reply unregister '"return":0' -X DELETE "$URL?method=unregister&name=svcA"
    expect_reply "get_info after unregister" '"return":-2' "$URL?method=get_info&name=svcA"
    stop_daemon
    say "daemon round trip under qemu-arm took $(elapsed "$t0")"
}

needed() {
    "$TRIPLET-readelf" -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'
}

is_runtime() {
    case "$1" in
        libc.so.* | libm.so.* | libstdc++.so.* | libgcc_s.so.* | ld-linux*) return 0 ;;
    esac
    return 1
}

in_sysroot() {
    for dir in "$SYSROOT/lib/$TRIPLET" "$SYSROOT/usr/lib/$TRIPLET" "$SYSROOT/lib" "$SYSROOT/usr/lib"; do
        [ -e "$dir/$1" ] && realpath "$dir/$1" && return 0
    done
    fail "$1 not found in $SYSROOT"
}

# The libraries beyond the runtime that $1 needs, directly or not: one
# resolved path per line, each once.
libraries_beyond_runtime() {
    pending=$(needed "$1") seen=""
    while [ -n "$pending" ]; do
        # shellcheck disable=SC2086 # a list of library names
        set -- $pending
        lib=$1
        shift
        pending="$*"
        case " $seen " in *" $lib "*) continue ;; esac
        seen="$seen $lib"
        is_runtime "$lib" && continue
        path=$(in_sysroot "$lib")
        echo "$path"
        pending="$pending $(needed "$path")"
    done
}

footprint_report() {
    stripped=$BUILD/manager_svc.stripped
    "$TRIPLET-strip" -o "$stripped" "$BUILD/manager_svc"
    bytes=$(stat -c %s "$stripped")
    libraries=$(libraries_beyond_runtime "$stripped")
    library_bytes=0 library_count=0
    for lib in $libraries; do
        library_bytes=$((library_bytes + $(stat -c %s "$lib")))
        library_count=$((library_count + 1))
    done
    total=$((bytes + library_bytes))
    say "armhf footprint: binary $bytes B stripped + $library_count libraries" \
        "beyond the C/C++ runtime $library_bytes B = $total B ($((total / 1024)) KiB)," \
        "budget $((SIZE_BUDGET / 1024)) KiB"
    for lib in $libraries; do
        say "  $(stat -c %s "$lib") B ${lib#"$SYSROOT"}"
    done
    say "runtime libraries needed: $(needed "$stripped" | tr '\n' ' ')"
    [ "$bytes" -le "$SIZE_BUDGET" ] || fail "stripped binary over the $((SIZE_BUDGET / 1024)) KiB budget"
    [ "$total" -le "$SIZE_BUDGET" ] || fail "footprint over the $((SIZE_BUDGET / 1024)) KiB budget"
}

# The device's Debian package, checked to be for armhf.
package() {
    rm -rf "$BUILD/package"
    cpack -G DEB --config "$BUILD/CPackConfig.cmake" -B "$BUILD/package" >"$BUILD/package.log" 2>&1 ||
        { cat "$BUILD/package.log" >&2; fail "cpack"; }
    deb=$(ls "$BUILD"/package/*.deb)
    [ "$(dpkg-deb -f "$deb" Architecture)" = armhf ] || fail "$deb is not for armhf"
    say "package: $deb, Depends: $(dpkg-deb -f "$deb" Depends)"
    lintian "$deb" >"$BUILD/lintian.log" 2>&1 || true
    if grep -E '^[EW]: ' "$BUILD/lintian.log"; then
        fail "lintian finds errors or warnings in $deb"
    fi
    say "lintian: no errors, no warnings"
}

build
unit_tests
shared_library_clients
round_trip
footprint_report
package
say "all armhf checks passed in $(elapsed "$START")"
