#!/bin/sh
# Cross-builds the project for the armhf device in BUILD_DIR (default:
# build-armhf in the repository), with a GoogleTest compiled for armhf from
# Debian's sources into BUILD_DIR/_deps/gtest-install the first time.
#
#   scripts/armhf-build.sh [BUILD_DIR] [TARGET...]
#
# Extra configure options can be given in AVPOOL_CMAKE_ARGS; JOBS sets the
# parallel build level (default: number of cores).
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$repo/build-armhf}
[ $# -gt 0 ] && shift
mkdir -p "$build"
build=$(cd "$build" && pwd)
toolchain=$repo/cmake/toolchains/armhf.cmake
jobs=${JOBS:-$(nproc)}

"$repo/scripts/install-deps.sh" cross

gtest_src=/usr/src/googletest
gtest_prefix=$build/_deps/gtest-install
# Only GoogleTest itself (the suites use no mocks), unoptimised: it compiles in
# a third of the time, and what the tests spend runs in the library and the kernel.
if [ ! -f "$gtest_prefix/lib/cmake/GTest/GTestConfig.cmake" ]; then
    echo "armhf-build: compiling GoogleTest for armhf into $gtest_prefix"
    cmake -S "$gtest_src" -B "$build/_deps/gtest-build" \
        -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DBUILD_GMOCK=OFF \
        -DCMAKE_INSTALL_PREFIX="$gtest_prefix" \
        -DCMAKE_INSTALL_LIBDIR=lib
    cmake --build "$build/_deps/gtest-build" -j "$jobs"
    cmake --install "$build/_deps/gtest-build"
fi

# The GoogleTest prefix joins the find roots, so the cross build finds it and
# never the build machine's own copy.
# shellcheck disable=SC2086 # AVPOOL_CMAKE_ARGS holds several options
cmake -S "$repo" -B "$build" \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_FIND_ROOT_PATH="$gtest_prefix" \
    -DCMAKE_PREFIX_PATH="$gtest_prefix" \
    -DAVPOOL_BUILD_BENCH=OFF \
    ${AVPOOL_CMAKE_ARGS:-}

if [ $# -gt 0 ]; then
    cmake --build "$build" -j "$jobs" --target "$@"
else
    cmake --build "$build" -j "$jobs"
fi
