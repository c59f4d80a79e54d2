#!/bin/sh
# Builds the project for the armhf device and runs its whole test suite on this
# machine under qemu-arm, each test program in its own IPC namespace.
#
#   scripts/armhf-test.sh [BUILD_DIR]        (default: build-armhf in the repository)
#
# Missing packages are installed first (scripts/install-deps.sh cross).
# JOBS sets the parallel build and test level (default: number of cores);
# CTEST_ARGS adds options to ctest, e.g. CTEST_ARGS="-R jpeg".
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$repo/build-armhf}
jobs=${JOBS:-$(nproc)}

"$repo/scripts/armhf-build.sh" "$build"
# shellcheck disable=SC2086 # CTEST_ARGS holds several options
ctest --test-dir "$build" --output-on-failure -j "$jobs" ${CTEST_ARGS:-}
