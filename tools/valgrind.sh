#!/usr/bin/env bash
# Runs every GoogleTest program of the suite under valgrind's memcheck and fails on any memory
# error or on a definitely or indirectly lost block. Each program runs as a whole rather than
# once per test as CTest would, which saves the tool's start-up on every test, split into
# GoogleTest shards that run side by side, because memcheck itself runs on one core.
#
#   tools/valgrind.sh [build-dir]        (default build-valgrind)
#   VLKR_VALGRIND_JOBS=<n>               shards per program (default 2)
#   VLKR_VALGRIND_FILTER_<program>=<gtest filter> narrows one program, e.g.
#   VLKR_VALGRIND_FILTER_vlkr_tests_raytrace='-KDTreeBudget.*'
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-valgrind}
jobs=${VLKR_VALGRIND_JOBS:-2}

command -v valgrind >/dev/null || { echo "valgrind.sh: valgrind is not installed" >&2; exit 2; }

# Optimised code with line tables, as the library ships; the Python package is left out
# because the interpreter is not what is being checked.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVLKR_BUILD_TESTS=ON \
    -DVLKR_BUILD_EXAMPLES=OFF -DVLKR_BUILD_BENCH=OFF -DVLKR_PYTHON=OFF >/dev/null
nice cmake --build "$build" -j2

programs=$(find "$build/tests" -maxdepth 1 -type f -name 'vlkr_tests_*' -perm -u+x | sort)
[ -n "$programs" ] || { echo "valgrind.sh: no test programs in $build/tests" >&2; exit 2; }
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

failed=()
start=$SECONDS
for program in $programs; do
    name=$(basename "$program")
    filter_var="VLKR_VALGRIND_FILTER_${name}"
    filter=${!filter_var:-*}
    begin=$SECONDS
    echo "== $name (filter $filter, $jobs shards)"
    pids=()
    for ((shard = 0; shard < jobs; ++shard)); do
        # Tests run from the build's test folder, as CTest runs them.
        (cd "$build/tests" &&
            GTEST_TOTAL_SHARDS=$jobs GTEST_SHARD_INDEX=$shard nice valgrind --quiet \
                --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite,indirect \
                --show-leak-kinds=definite,indirect "./$name" --gtest_filter="$filter") \
            >"$logs/$shard" 2>&1 &
        pids+=($!)
    done
    status=0
    for ((shard = 0; shard < jobs; ++shard)); do
        wait "${pids[$shard]}" || status=1
        cat "$logs/$shard"
    done
    if [ "$status" -eq 0 ]; then
        echo "== $name passed in $((SECONDS - begin)) s"
    else
        echo "== $name FAILED in $((SECONDS - begin)) s"
        failed+=("$name")
    fi
done
echo "== valgrind total $((SECONDS - start)) s"
if [ ${#failed[@]} -ne 0 ]; then
    echo "valgrind.sh: failed: ${failed[*]}" >&2
    exit 1
fi
echo "valgrind: no errors"
