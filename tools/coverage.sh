#!/usr/bin/env bash
# Line and branch coverage of the library code by the test suite: builds build-cov with gcc's
# --coverage and no optimisation, runs CTest there and prints a table per library folder (core,
# frame, raytrace, sh, volume) and in total, counting library sources only.
#
#   tools/coverage.sh [--check] [--report-only]
#
# --check fails (exit 1) when a folder is below 95% of lines or 90% of branches.
# --report-only neither builds nor runs the tests: it reports the counters of the last run.
# gcovr's JSON reports are left in build-cov/coverage*.json, and each file's unrun lines and
# lines with a branch never taken in build-cov/uncovered.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

check=0 run=1
while [ $# -gt 0 ]; do
    case $1 in
        --check) check=1; shift ;;
        --report-only) run=0; shift ;;
        *) echo "usage: $0 [--check] [--report-only]" >&2; exit 2 ;;
    esac
done
command -v gcovr >/dev/null || { echo "coverage: gcovr is missing (tools/setup-debian.sh)" >&2; exit 2; }

build=build-cov
# Debug for the assertions' sake, -O0 so that every source line keeps its own code. The
# examples and the Python package are left out: only the test programs check results, so only
# what they run should count as covered. Counters are updated atomically: the concurrency test
# runs eight threads through the same code, and plain updates race into nonsense counts.
if [ $run = 1 ]; then
    # Counters go before the build, whose test discovery runs the programs once, and after it.
    [ -d "$build" ] && find "$build" -name '*.gcda' -delete
    nice cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=gcc \
        -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_FLAGS="--coverage -O0 -fprofile-update=atomic" \
        -DCMAKE_CXX_FLAGS="--coverage -O0 -fprofile-update=atomic" \
        -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
        -DVLKR_BUILD_TESTS=ON -DVLKR_BUILD_EXAMPLES=OFF -DVLKR_BUILD_BENCH=OFF -DVLKR_PYTHON=OFF \
        -DVLKR_SANITIZE=OFF >/dev/null
    nice cmake --build "$build" -j2 >/dev/null
    find "$build" -name '*.gcda' -delete
    nice ctest --test-dir "$build" -j2 --output-on-failure >"$build/coverage-ctest.log" ||
        { tail -30 "$build/coverage-ctest.log"; exit 1; }
fi

# Library sources only: the five folders, not tests/, examples/ or the generated version.cpp.
# Branches that only an exception or unwinding would take (the library throws none) and those
# gcc proves can never be taken are not decisions of the code, so they do not count.
# The test programs compile some library headers themselves, with exceptions on: their copies
# add call edges that gcc does not mark as throws and say nothing of the library, so the objects
# of the test sources are not read (the module entry that the frame test compiles in still is).
filters=()
for folder in core frame raytrace sh volume; do filters+=(--filter "$folder/"); done
test_objects=".*/tests/CMakeFiles/vlkr_tests_[a-z]+\.dir/(abi|core|frame|raytrace|sh|volume)"
gcovr --root . --object-directory "$build" "${filters[@]}" \
    --exclude-directories "$build/CMakeFiles" --exclude-directories "$test_objects" \
    --exclude-unreachable-branches --exclude-throw-branches \
    --json-summary "$build/coverage.json" --json "$build/coverage-lines.json" \
    2>"$build/gcovr.log" || { cat "$build/gcovr.log" >&2; exit 1; }

python3 - "$build" "$check" <<'EOF'
import json, math, sys
build = sys.argv[1]
# Each file's uncovered lines, and lines with a branch never taken, for finding what to test.
with open(f"{build}/uncovered.txt", "w") as out:
    for f in json.load(open(f"{build}/coverage-lines.json"))["files"]:
        lines = [l for l in f["lines"] if not l.get("gcovr/noncode")]
        missed = [l["line_number"] for l in lines if l["count"] == 0]
        part = [l["line_number"] for l in lines
                if l["count"] and any(b["count"] == 0 for b in l["branches"])]
        if missed or part:
            out.write(f"{f['file']}\n  lines: {missed}\n  branches: {part}\n")
summary = json.load(open(f"{build}/coverage.json"))
folders = {}
for f in summary["files"]:
    folder = f["filename"].split("/")[0]
    t = folders.setdefault(folder, [0, 0, 0, 0])
    t[0] += f["line_covered"]; t[1] += f["line_total"]
    t[2] += f["branch_covered"]; t[3] += f["branch_total"]
def pct(a, b):
    return 100.0 * a / b if b else 100.0
def shown(p):  # rounded down, so that a share just below a threshold does not print as it
    return math.floor(p * 10) / 10
print(f"{'folder':<10} {'lines':>17} {'branches':>17}")
total = [0, 0, 0, 0]
failed = []
for name in ["core", "frame", "raytrace", "sh", "volume"]:
    t = folders.get(name, [0, 0, 0, 0])
    total = [a + b for a, b in zip(total, t)]
    lp, bp = pct(t[0], t[1]), pct(t[2], t[3])
    print(f"{name:<10} {t[0]:>5}/{t[1]:<5} {shown(lp):5.1f}% {t[2]:>5}/{t[3]:<5} {shown(bp):5.1f}%")
    if lp < 95.0 or bp < 90.0:
        failed.append(name)
lp, bp = pct(total[0], total[1]), pct(total[2], total[3])
print(f"{'total':<10} {total[0]:>5}/{total[1]:<5} {shown(lp):5.1f}% "
      f"{total[2]:>5}/{total[3]:<5} {shown(bp):5.1f}%")
if sys.argv[2] == "1" and failed:
    print("coverage: below 95% of lines or 90% of branches in " + ", ".join(failed))
    sys.exit(1)
EOF
