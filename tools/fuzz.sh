#!/usr/bin/env bash
# Builds the libFuzzer targets with clang-16 (build-fuzz) and runs each for a while, starting
# from its committed corpus folder. Usage: tools/fuzz.sh [seconds-per-target] [targets...]
# (targets: raytrace sh volume; default all, 60 s each). Prints each target's executions,
# keeps this run's crash inputs in build-fuzz/crashes/<target>/ and exits nonzero if any
# target crashed. New inputs the fuzzer finds go to build-fuzz/corpus/<target>/, not to the
# committed corpus; copy a crash input into tests/fuzz/corpus/<target>/ to keep it as a test.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(raytrace sh volume)
for t in "${targets[@]}"; do
    case "$t" in raytrace | sh | volume) ;; *) echo "fuzz: unknown target $t" >&2; exit 2 ;; esac
done

cmake -S . -B build-fuzz -DCMAKE_C_COMPILER=clang-16 -DCMAKE_CXX_COMPILER=clang++-16 \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVLKR_BUILD_FUZZERS=ON >/dev/null
cmake --build build-fuzz -j2 >/dev/null

crashes="$PWD/build-fuzz/crashes"
failed=()
for t in "${targets[@]}"; do
    rm -rf "${crashes:?}/$t"  # the folder holds this run's crash inputs only
    mkdir -p "$crashes/$t" "build-fuzz/corpus/$t"
    log="build-fuzz/fuzz-$t.log"
    echo "== fuzz $t for ${seconds}s"
    status=0
    # Leaks count as crashes too: every block the library allocates must be given back.
    ASAN_OPTIONS=abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        nice "build-fuzz/tests/fuzz/vlkr_fuzz_$t" -max_total_time="$seconds" -timeout=20 \
        -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$crashes/$t/" \
        "build-fuzz/corpus/$t" "tests/fuzz/corpus/$t" >"$log" 2>&1 || status=$?
    grep -E '^#[0-9]+ +DONE|^stat::number_of_executed_units|^stat::average_exec_per_sec' "$log" || true
    if [ "$status" -ne 0 ]; then
        echo "fuzz: $t failed (exit $status); its log: $log"
        grep -E 'ERROR|runtime error|vlkr fuzz:' "$log" | head -5 || true
        failed+=("$t")
    fi
done
if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzz: crashes in ${failed[*]}; inputs kept in $crashes"
    ls -l "$crashes"/*/ 2>/dev/null || true
    exit 1
fi
echo "fuzz: no crashes"
