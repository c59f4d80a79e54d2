#!/bin/sh
# Checks that a build for this machine and a build for the armhf device meet in
# the same pools byte for byte: builds avpool_golden in both (configuring the
# trees where needed) and runs tests/interop/run-golden.sh on them.
#
#   scripts/interop-test.sh [NATIVE_BUILD_DIR] [ARMHF_BUILD_DIR]
#
# Defaults: build-interop-native and build-armhf in the repository. An existing
# native build tree (with tests enabled) can be given instead; the armhf tree is
# the one scripts/armhf-test.sh uses, so GoogleTest is compiled for it once.
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
native=${1:-$repo/build-interop-native}
armhf=${2:-$repo/build-armhf}
jobs=${JOBS:-$(nproc)}

"$repo/scripts/install-deps.sh" native cross

# Configured every time (cheap), so that a tree made before the golden program
# existed learns of it; a new tree gets neither tools nor benchmarks.
if [ -f "$native/CMakeCache.txt" ]; then
    cmake -S "$repo" -B "$native" >/dev/null
else
    cmake -S "$repo" -B "$native" -DAVPOOL_BUILD_BENCH=OFF -DAVPOOL_BUILD_TOOLS=OFF >/dev/null
fi
cmake --build "$native" -j "$jobs" --target avpool_golden
"$repo/scripts/armhf-build.sh" "$armhf" avpool_golden

"$repo/tests/interop/run-golden.sh" "$native" "$armhf"
