#!/usr/bin/env bash
# Builds the library, its core library and the tests with ThreadSanitizer and runs the
# concurrency test, which has eight threads call every family at once; any report of a data
# race fails the run.
#
#   tools/tsan.sh [build-dir]           (default build-tsan)
#   VLKR_TSAN_ALL=1 tools/tsan.sh       also builds and runs the rest of the suite
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-tsan}

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVLKR_TSAN=ON -DVLKR_BUILD_TESTS=ON \
    -DVLKR_BUILD_EXAMPLES=OFF -DVLKR_BUILD_BENCH=OFF -DVLKR_PYTHON=OFF >/dev/null

export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
# Kernels with more address randomisation than this TSan runtime expects make it fail at start;
# running without randomisation avoids that where setarch is at hand.
run=()
if command -v setarch >/dev/null && setarch "$(uname -m)" -R true 2>/dev/null; then
    run=(setarch "$(uname -m)" -R)
fi

if [ "${VLKR_TSAN_ALL:-0}" = 1 ]; then
    nice cmake --build "$build" -j2
    "${run[@]}" ctest --test-dir "$build" --output-on-failure
else
    nice cmake --build "$build" -j2 --target vlkr_tests_concurrency
    # Several repetitions, so that the threads meet in more orders.
    (cd "$build/tests" && "${run[@]}" ./vlkr_tests_concurrency --gtest_repeat=3 --gtest_brief=1)
fi
echo "tsan: no reports"
