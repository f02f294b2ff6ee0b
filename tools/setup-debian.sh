#!/usr/bin/env bash
# Installs what building, testing and running vlkr needs on Debian: the compiler and CMake, the
# test and benchmark frameworks, the demo's PNG and OBJ readers, pybind11 with numpy, scipy,
# pytest and dask for the Python package, gcovr for tools/coverage.sh, valgrind for
# tools/valgrind.sh and clang-16 with its runtime libraries for tools/fuzz.sh. Installs only
# what is missing; needs root (or sudo) when something is.
set -euo pipefail

packages=(cmake g++ pkg-config binutils clang-format libgtest-dev libbenchmark-dev
          libpng-dev libtinyobjloader-dev pybind11-dev python3-dev python3-numpy python3-scipy
          python3-pytest python3-dask gcovr valgrind clang-16 libclang-rt-16-dev)

missing=()
for pkg in "${packages[@]}"; do
    dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "setup-debian: need root to install ${missing[*]}" >&2; exit 1; }
    sudo=(sudo)
fi
"${sudo[@]}" apt-get -o DPkg::Lock::Timeout=600 update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq "${missing[@]}"
