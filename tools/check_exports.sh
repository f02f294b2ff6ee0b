#!/usr/bin/env bash
# Checks that a built libvlkr exports exactly the names of its version script, that the script
# lists them in byte order, and that the public header declares each of them.
set -euo pipefail
lib=$1 map=$2 header=$3

exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort)
listed=$(sed -n 's/^[[:space:]]*\(vlkr[A-Za-z0-9_]*\);$/\1/p' "$map")
status=0

if [ "$exported" != "$(printf '%s\n' "$listed" | sort)" ]; then
    echo "exports differ from the version script:"
    diff <(printf '%s\n' "$exported") <(printf '%s\n' "$listed" | sort) || true
    status=1
fi
if [ "$listed" != "$(printf '%s\n' "$listed" | LC_ALL=C sort)" ]; then
    echo "the version script is not in byte order"
    status=1
fi
for name in $listed; do
    grep -q "VLKR_API [^;]*\b$name(" "$header" || { echo "$name is not declared"; status=1; }
done
count=$(grep -c '^VLKR_API' "$header")
[ "$count" -eq 52 ] || { echo "the header declares $count operations, not 52"; status=1; }
[ $status -eq 0 ] && echo "exports ok: $(printf '%s\n' "$listed" | wc -l) names"
exit $status
