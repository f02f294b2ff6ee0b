#!/usr/bin/env bash
# Fails when any library or Python-binding source differs from what clang-format (the
# repository's .clang-format) would write; the tests, benchmarks and examples are not held to it.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files include core frame raytrace sh volume python | grep -E '\.(h|c|cpp)$' |
    xargs clang-format --dry-run -Werror
echo "format ok"
