#!/bin/bash
# Fuzzing: builds the libFuzzer targets with clang into build-fuzz/ and runs each for about a
# minute (all at once) on a temporary copy of its seed corpus in fuzz/corpus/<target>/, so the repository
# is never changed. Any crash, sanitizer report, failed property, time-out or out-of-memory
# fails the suite; the input that caused it is kept under build-fuzz/artifacts/.
#   QMTNM_FUZZ_SECONDS  run time of each target (default 60)
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
cd "$top"
secs=${QMTNM_FUZZ_SECONDS:-60}
build=build-fuzz
targets=(fuzz_hconf_header fuzz_hconf_entry fuzz_conf_format fuzz_areas)
declare -A dict=([fuzz_hconf_header]=fuzz/hconf.dict [fuzz_hconf_entry]=fuzz/hconf.dict
    [fuzz_conf_format]=fuzz/conf_format.dict [fuzz_areas]=fuzz/areas.dict)
# The areas write their files under /etc, /var and /tmp: their target runs inside tests/ns-run's
# throwaway namespaces, with its corpus and artifacts in the build directory (which those
# namespaces share) and its store on the namespace's own /dev/shm.
declare -A in_ns=([fuzz_areas]=1)

CC=clang CXX=clang++ cmake -S . -B "$build" -DQMTNM_BUILD_FUZZ=ON -DQMTNM_BUILD_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >/dev/null

# The settings store's database goes to a tmpfs when there is one: every write is synced.
tmpbase=${TMPDIR:-/tmp}
[ -d /dev/shm ] && [ -w /dev/shm ] && tmpbase=/dev/shm
work=$(mktemp -d "$tmpbase/qmtnm-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT

declare -A pid dir
for t in "${targets[@]}"; do
    dir[$t]=$work/$t
    db=$work/$t/store.db
    run=()
    if [ -n "${in_ns[$t]:-}" ]; then
        dir[$t]=$top/$build/work/$t
        rm -rf "${dir[$t]}"
        db=/dev/shm/store.db
        run=("$top/tests/ns-run")
    fi
    d=${dir[$t]}
    mkdir -p "$d/corpus" "$d/artifacts"
    cp fuzz/corpus/"$t"/* "$d/corpus/"
    (
        cd "$d"
        exec "${run[@]}" env SYSCONF_DB="$db" "$top/$build/fuzz/$t" \
            -dict="$top/${dict[$t]}" -max_total_time="$secs" -timeout=10 -print_final_stats=1 \
            -artifact_prefix="$d/artifacts/" corpus >"$d/log" 2>&1
    ) &
    pid[$t]=$!
done

passed=0
failed=0
for t in "${targets[@]}"; do
    if wait "${pid[$t]}"; then
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "${dir[$t]}/log")
        echo "$t: ${runs:-?} executions in ${secs}s, nothing found"
        passed=$((passed + 1))
    else
        echo "$t: FAILED" >&2
        tail -n 40 "${dir[$t]}/log" >&2
        mkdir -p "$build/artifacts/$t"
        cp "${dir[$t]}/artifacts/"* "$build/artifacts/$t/" 2>/dev/null || true
        echo "$t: the failing input is kept in $build/artifacts/$t/" >&2
        failed=$((failed + 1))
    fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
