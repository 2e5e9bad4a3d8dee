#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ (clang, ASan+UBSan, in build-fuzz/),
# runs every kept regression input, then fuzzes each target for SECONDS.
#
# usage: scripts/fuzz.sh SECONDS [TARGET...]
#   SECONDS  fuzzing time per target; 0 runs the regression inputs only
#   TARGET   registry_file_fuzz, handler_body_fuzz, web_path_fuzz (default: all)
#
# Every run happens inside the overlay sandbox (tests/sandbox/sandbox_run.sh)
# and a network namespace of its own: the registry code writes the device's
# fixed paths, and get_history must never reach another host. What a run
# writes lands in the sandbox's upper directory (on tmpfs when /dev/shm
# exists: the registry code writes a file per request, and a disk-backed
# overlay makes that many times slower); the new corpus entries and crash
# inputs are copied out of it afterwards, and it is removed on exit.
#
# Per target it prints the executions and the coverage reached (cov: edges,
# ft: features). Exits non-zero when a regression input fails or fuzzing
# finds a crash, leak, time-out or memory blow-up; the input that did it is
# kept in fuzz/regressions/<target>/ to be committed.
set -uo pipefail
cd "$(dirname "$0")/.."
root_dir=$(pwd)

build_dir="$root_dir/build-fuzz"
sandbox_run="$root_dir/tests/sandbox/sandbox_run.sh"
# Paths inside the sandbox; their files end up under <sandbox>/upper.
artifact_dir=/tmp/fuzz-artifacts
rss_limit_mb=2048
# One input may run a few requests; none waits on the network (no network).
input_timeout=25

usage() {
    echo "usage: $0 SECONDS [TARGET...]" >&2
    exit 2
}

# The longest input worth trying per target.
max_len_of() {
    case "$1" in
        registry_file_fuzz) echo 4096 ;;
        handler_body_fuzz) echo 2048 ;;
        web_path_fuzz) echo 512 ;;
        *) echo 1024 ;;
    esac
}

# Extra libFuzzer options per target.
extra_options_of() {
    case "$1" in
        handler_body_fuzz) echo "-dict=$root_dir/fuzz/dict/json.dict" ;;
        *) echo "" ;;
    esac
}

all_targets() {
    for src in fuzz/*_fuzz.cpp; do
        basename "$src" .cpp
    done
}

# The sandboxes of this run, removed on exit.
make_sandbox_base() {
    if [ -d /dev/shm ] && [ -w /dev/shm ]; then
        mktemp -d /dev/shm/manager_svc_fuzz.XXXXXX
    else
        mktemp -d "$build_dir/sandbox.XXXXXX"
    fi
}

build() {
    CC=clang CXX=clang++ cmake -S . -B "$build_dir" -DMANAGER_SVC_FUZZ=ON \
        -DBUILD_TESTING=OFF >"$build_dir/logs/configure.log" 2>&1 ||
        { cat "$build_dir/logs/configure.log"; return 1; }
    cmake --build "$build_dir" -j2 --target "$@"
}

# in_sandbox TARGET COMMAND...: runs the command in the target's fresh
# sandbox without network, with the variable that the targets check.
in_sandbox() {
    local target=$1
    shift
    unshare -n "$sandbox_run" --fresh "$sandbox_base/$target" \
        env MANAGER_SVC_FUZZ_SANDBOX=1 "$@"
}

# Runs the target once on every kept regression input.
run_regressions() {
    local target=$1 dir="fuzz/regressions/$1"
    local inputs=("$dir"/*)
    [ -e "${inputs[0]}" ] || return 0
    echo "fuzz: $target: ${#inputs[@]} regression input(s)"
    in_sandbox "$target" "$build_dir/fuzz/$target" "${inputs[@]/#/$root_dir/}" \
        >"$build_dir/logs/$target.regressions.log" 2>&1 && return 0
    tail -n 40 "$build_dir/logs/$target.regressions.log"
    echo "fuzz: $target FAILED on a regression input (log: build-fuzz/logs/$target.regressions.log)"
    return 1
}

# Copies what the run wrote into the overlay back out: new corpus entries
# into build-fuzz/corpus/<target>, crash inputs into fuzz/regressions.
collect() {
    local target=$1 upper="$sandbox_base/$1/upper"
    local corpus="$build_dir/corpus/$target"
    if [ -d "$upper$corpus" ]; then
        cp -a "$upper$corpus/." "$corpus/"
    fi
    local found=0
    for crash in "$upper$artifact_dir"/*; do
        [ -e "$crash" ] || continue
        cp "$crash" "fuzz/regressions/$target/"
        echo "fuzz: $target: kept fuzz/regressions/$target/$(basename "$crash");" \
            "fix the fault and commit the input with the fix"
        found=1
    done
    return "$found"
}

# Prints the executions and the coverage of the run from its log.
summarise() {
    local target=$1 log=$2
    local runs last
    runs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$log" | grep -o '[0-9]*$')
    last=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -n 1)
    echo "fuzz: $target: executions ${runs:-?}," \
        "cov: $(grep -o 'cov: [0-9]*' <<<"$last" | grep -o '[0-9]*')," \
        "ft: $(grep -o 'ft: [0-9]*' <<<"$last" | grep -o '[0-9]*')," \
        "corpus: $(grep -o 'corp: [0-9]*/[0-9a-zA-Z]*' <<<"$last" | cut -d' ' -f2)"
}

fuzz_target() {
    local target=$1 seconds=$2 log="$build_dir/logs/$1.log"
    local corpus="$build_dir/corpus/$target"
    mkdir -p "$corpus"
    # shellcheck disable=SC2046
    in_sandbox "$target" sh -c 'mkdir -p "$1" && shift && exec "$@"' sh "$artifact_dir" \
        "$build_dir/fuzz/$target" "$corpus" "$root_dir/fuzz/corpus/$target" \
        -max_total_time="$seconds" -max_len="$(max_len_of "$target")" \
        -rss_limit_mb="$rss_limit_mb" -timeout="$input_timeout" \
        -artifact_prefix="$artifact_dir/" -print_final_stats=1 \
        $(extra_options_of "$target") >"$log" 2>&1
    local status=$?
    summarise "$target" "$log"
    collect "$target" || status=1
    if [ "$status" -ne 0 ]; then
        grep -E 'ERROR|fuzz invariant|SUMMARY|Test unit written' "$log" | head -n 20
        echo "fuzz: $target FAILED (log: build-fuzz/logs/$target.log)"
    fi
    return "$status"
}

[ $# -ge 1 ] || usage
seconds=$1
shift
case "$seconds" in
    '' | *[!0-9]*) usage ;;
esac
targets=("$@")
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(all_targets)
for target in "${targets[@]}"; do
    [ -f "fuzz/$target.cpp" ] || { echo "fuzz: no target $target" >&2; exit 2; }
done

mkdir -p "$build_dir/logs"
sandbox_base=$(make_sandbox_base) || exit 1
trap 'rm -rf "$sandbox_base"' EXIT
build "${targets[@]}" || { echo "fuzz: build failed" >&2; exit 1; }

status=0
for target in "${targets[@]}"; do
    mkdir -p "fuzz/regressions/$target"
    run_regressions "$target" || status=1
done
if [ "$seconds" -gt 0 ]; then
    for target in "${targets[@]}"; do
        fuzz_target "$target" "$seconds" || status=1
    done
fi
[ "$status" -eq 0 ] && echo "fuzz: all clean" || echo "fuzz: FAILED"
exit "$status"
