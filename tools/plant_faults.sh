#!/usr/bin/env bash
# Planted-fault check: applies each fault of tools/faults.txt to the working tree in turn,
# rebuilds incrementally, runs the test suite and reports whether some test caught it.
#
#   tools/plant_faults.sh [--build-dir DIR] [--check] [fault-name...]
#
# DIR (default build-faults) is configured once with the normal Release options and tests on.
# --check only verifies that every chosen substitution matches exactly once, without building.
# Every mutated file is restored from a saved copy afterwards, also on Ctrl-C or an error.
# Logs of each fault's build and test run go to DIR/fault-logs/. The table goes to stdout.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build-faults check=0
while [ $# -gt 0 ]; do
    case $1 in
        --build-dir) build=$2; shift 2 ;;
        --check) check=1; shift ;;
        -*) echo "usage: $0 [--build-dir DIR] [--check] [fault-name...]" >&2; exit 2 ;;
        *) break ;;
    esac
done

# Reads faults.txt into parallel arrays, keeping only the named faults when names are given.
names=() files=() exprs=()
while IFS= read -r line; do
    [[ -z ${line// } || $line == \#* ]] && continue
    [[ $line == *" | "*" | "* ]] || { echo "malformed line in tools/faults.txt: $line" >&2; exit 2; }
    name=${line%% | *} rest=${line#* | }
    file=${rest%% | *} expr=${rest#* | }
    if [ $# -gt 0 ] && [[ " $* " != *" $name "* ]]; then continue; fi
    names+=("$name") files+=("$file") exprs+=("$expr")
done < tools/faults.txt
for want in "$@"; do
    [[ " ${names[*]} " == *" $want "* ]] || { echo "no fault named $want" >&2; exit 2; }
done
[ ${#names[@]} -gt 0 ] || { echo "no faults chosen" >&2; exit 2; }

# Applies substitution $2 to file $1 in place; fails unless it matched exactly once.
mutate() {
    FAULT_EXPR=$2 perl -0777 -i -e '
        local $_ = <>;
        my $n = eval "\$_ =~ $ENV{FAULT_EXPR}g";
        die "bad expression: $@" if $@;
        $n ||= 0;
        die "matched $n times, not once\n" unless $n == 1;
        print;' "$1"
}

saved=""  # the file currently mutated; its pristine copy is $saved_copy
saved_copy=$(mktemp)
restore() {
    if [ -n "$saved" ]; then cp "$saved_copy" "$saved"; saved=""; fi
}
trap 'restore; rm -f "$saved_copy"' EXIT
trap 'exit 130' INT TERM

# Every chosen substitution must match exactly once before anything is built.
stale=0
for i in "${!names[@]}"; do
    cp "${files[$i]}" "$saved_copy"; saved=${files[$i]}
    if msg=$(mutate "${files[$i]}" "${exprs[$i]}" 2>&1); then
        [ $check = 1 ] && echo "ok    ${names[$i]}"
    else
        echo "STALE ${names[$i]} (${files[$i]}): $msg" >&2; stale=1
    fi
    restore
done
[ $stale = 0 ] || { echo "fix the stale entries in tools/faults.txt" >&2; exit 1; }
[ $check = 0 ] || exit 0

logs=$build/fault-logs
start=$SECONDS
if [ ! -f "$build/CMakeCache.txt" ]; then
    echo "configuring $build" >&2
    nice cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DVLKR_BUILD_TESTS=ON >/dev/null
fi
mkdir -p "$logs"

# Builds and runs the suite, logging to $1.build.log and $1.test.log. Returns 2 when the build
# fails, 1 when some test fails (printing the first three failing tests), else 0.
build_and_test() {
    nice cmake --build "$build" -j2 >"$1.build.log" 2>&1 || return 2
    rm -f "$build/Testing/Temporary/LastTestsFailed.log"
    if nice ctest --test-dir "$build" -j2 --timeout 60 >"$1.test.log" 2>&1; then return 0; fi
    # Typed tests show as Suite.Test<Suite/8u.  # TypeParam = ...>: shortened to Suite.Test[8u].
    cut -d: -f2- "$build/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | head -3 |
        sed -E 's/<[^<>]*\/([^/.<>]*)\.  # TypeParam = [^<>]*>/[\1]/' | paste -sd, - | sed 's/,/, /g'
    return 1
}

# The unmodified tree must build and pass, or every fault would look caught.
echo "baseline build and test" >&2
if build_and_test "$logs/baseline" >/dev/null; then :; else
    echo "the unmodified tree does not build or pass its tests; see $logs/baseline.*.log" >&2
    exit 1
fi

echo "| fault | file | caught? | failing tests |"
echo "| --- | --- | --- | --- |"
caught=0 broken=0
for i in "${!names[@]}"; do
    name=${names[$i]} file=${files[$i]}
    echo "[$((i + 1))/${#names[@]}] $name" >&2
    cp "$file" "$saved_copy"; saved=$file
    mutate "$file" "${exprs[$i]}"
    set +e
    failing=$(build_and_test "$logs/$name")
    result=$?
    set -e
    restore
    case $result in
        0) verdict=MISSED failing="" ;;
        1) verdict=CAUGHT; caught=$((caught + 1)) ;;
        *) verdict=BUILD-FAIL failing="(see $logs/$name.build.log)"; broken=$((broken + 1)) ;;
    esac
    echo "| $name | $file | $verdict | $failing |"
done
echo
echo "run time: $((SECONDS - start)) s"
[ $broken = 0 ] || echo "$broken fault(s) did not build: their expressions need fixing"
echo "caught $caught of ${#names[@]}"
