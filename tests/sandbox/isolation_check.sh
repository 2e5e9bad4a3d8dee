#!/bin/sh
# Runs ctest (with the given arguments) inside an outer sandbox whose "host"
# holds a registry file, a ready marker and a debug log of its own: there /
# is an overlay, as in a container, so the inner sandboxes take a tmpfs, and
# no test may see those files or change them. Exits non-zero on failure.
# usage: isolation_check.sh BUILD_DIR [CTEST_ARG...]
set -eu
build=$(realpath "$1")
shift
outer=$(mktemp -d /tmp/isolation-check.XXXXXX)
trap 'rm -rf "$outer"' EXIT
host=$outer/upper
mkdir -p "$host/tmp" "$host/var" "$host/Ombrix/.mgrsvc_log"
seeded="$host/tmp/.manager_svc.inf $host/var/.mgrsvc_ok $host/Ombrix/.mgrsvc_log/.mgrsvc_log"
for file in $seeded; do echo "intruder,127.0.0.4,99" >"$file"; done
"$(dirname "$(realpath "$0")")/sandbox_run.sh" "$outer" \
    ctest --test-dir "$build" --output-on-failure "$@"
for file in $seeded; do
    [ "$(cat "$file")" = "intruder,127.0.0.4,99" ] || { echo "isolation_check: $file changed" >&2; exit 1; }
done
