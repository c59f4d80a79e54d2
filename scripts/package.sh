#!/bin/sh
# Builds the Debian packages (libavpool0, libavpool-dev, avpool-tools,
# gstreamer1.0-avpool) and checks them as they are installed:
#
#   scripts/package.sh [native] [armhf]        (default: both)
#
# native: amd64 packages from build-deb (prefix /usr, Release). They are
#         unpacked into a scratch root, where the tool must run and
#         gst-inspect-1.0 must load the plugin with no library path set
#         (each finds libavpool through its RPATH), and the plugin must lie
#         in the system's GStreamer plugin directory. As root they are also
#         installed with dpkg, checked the same way from /usr, and removed.
# armhf:  armhf packages from the cross build in build-armhf-deb, the plugin
#         built against Debian's armhf GStreamer unpacked by
#         scripts/armhf-sysroot.sh; the unpacked tool runs under qemu-arm, the
#         plugin is an ARM object that needs only libraries of the Debian
#         packages it depends on, and armhf gst-inspect-1.0 loads it under
#         qemu-arm.
#
# Packages land in BUILD_DIR/packages. JOBS sets the build's parallel level.
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
jobs=${JOBS:-$(nproc)}
scratch=$(mktemp -d "${TMPDIR:-/tmp}/avpool-package.XXXXXX")
installed=""
passed=0
cleanup() {
    [ -z "$installed" ] || dpkg -r $installed >/dev/null 2>&1 || true
    rm -rf "$scratch"
}
trap cleanup EXIT

fail() {
    echo "package: FAIL: $*" >&2
    exit 1
}

# build DIR CMAKE-ARGS...: a Release tree with the /usr layout, no tests.
build() {
    dir=$1
    shift
    rm -rf "$dir/packages"
    cmake -S "$repo" -B "$dir" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=Release \
        -DAVPOOL_BUILD_TESTS=OFF -DAVPOOL_BUILD_BENCH=OFF "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    (cd "$dir" && cpack >/dev/null)
    ls "$dir"/packages/*.deb
}

# expect_packages DIR ARCH NAME...: exactly these packages for ARCH.
expect_packages() {
    dir=$1 arch=$2
    shift 2
    for name in "$@"; do
        deb="$dir/packages/${name}_$(version "$dir")_$arch.deb"
        [ -f "$deb" ] || fail "no $deb"
        [ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || fail "$deb is not for $arch"
    done
    [ "$(ls "$dir"/packages/*.deb | wc -l)" = $# ] || fail "other packages than $* in $dir/packages"
}

version() {
    sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$1/CMakeCache.txt"
}

# check_tool COMMAND...: the tool answers --help with its usage.
check_tool() {
    "$@" --help >"$scratch/help.out" 2>&1 || fail "$* --help failed: $(cat "$scratch/help.out")"
    grep -q "usage" "$scratch/help.out" || grep -qi "avpool" "$scratch/help.out" ||
        fail "$* --help printed no usage"
}

# check_plugin: gst-inspect-1.0 finds both elements (with the plugin path
# given in the environment, if any) and reads their details from the plugin.
check_plugin() {
    for element in avpoolsrc avpoolsink; do
        GST_REGISTRY="$scratch/registry.bin" gst-inspect-1.0 "$element" >"$scratch/inspect.out" 2>&1 ||
            fail "gst-inspect-1.0 $element: $(tail -n 3 "$scratch/inspect.out")"
        grep -q "kind" "$scratch/inspect.out" || fail "gst-inspect-1.0 $element shows no kind property"
    done
}

native() {
    command -v gst-inspect-1.0 >/dev/null || fail "gst-inspect-1.0 is missing (scripts/install-deps.sh native)"
    dir=$repo/build-deb
    build "$dir"
    expect_packages "$dir" amd64 libavpool0 libavpool-dev avpool-tools gstreamer1.0-avpool
    plugin_dir=$(pkg-config --variable=pluginsdir gstreamer-1.0)
    deb=$(ls "$dir"/packages/gstreamer1.0-avpool_*.deb)
    dpkg-deb -c "$deb" | grep -q " \.$plugin_dir/libgstavpool.so$" ||
        fail "the plugin is not in $plugin_dir, where GStreamer looks"

    root=$scratch/root
    for deb in "$dir"/packages/*.deb; do dpkg-deb -x "$deb" "$root"; done
    unset LD_LIBRARY_PATH
    check_tool "$root/usr/bin/avpool"
    GST_PLUGIN_PATH="$root$plugin_dir" check_plugin
    echo "package: amd64 packages unpacked in a scratch root: avpool --help and gst-inspect-1.0 work"
    passed=$((passed + 1))

    if [ "$(id -u)" -ne 0 ]; then
        echo "package: not root: the packages are not installed into the system"
        return
    fi
    installed="gstreamer1.0-avpool avpool-tools libavpool-dev libavpool0"
    dpkg -i "$dir"/packages/*.deb >/dev/null
    check_tool avpool
    [ "$(command -v avpool)" = /usr/bin/avpool ] || fail "avpool is not the installed /usr/bin/avpool"
    (
        unset GST_PLUGIN_PATH
        check_plugin
    )
    pkg-config --exists avpool || fail "pkg-config does not know the installed avpool"
    dpkg -r $installed >/dev/null
    installed=""
    echo "package: amd64 packages installed with dpkg: avpool --help and gst-inspect-1.0 work; removed again"
    passed=$((passed + 1))
}

armhf() {
    "$repo/scripts/install-deps.sh" cross
    sysroot=$("$repo/scripts/armhf-sysroot.sh" "$repo/build-armhf-sysroot")
    dir=$repo/build-armhf-deb
    # The toolchain does not tell CMake the multiarch triple, so the Debian
    # library directory is named here.
    AVPOOL_ARMHF_SYSROOT=$sysroot build "$dir" -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/toolchains/armhf.cmake" \
        -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf
    expect_packages "$dir" armhf libavpool0 libavpool-dev avpool-tools gstreamer1.0-avpool
    root=$scratch/armhf
    for deb in "$dir"/packages/*.deb; do dpkg-deb -x "$deb" "$root"; done
    [ -f "$root/usr/lib/arm-linux-gnueabihf/libavpool.so.0" ] || fail "libavpool.so.0 is not in lib/arm-linux-gnueabihf"
    check_tool qemu-arm -L /usr/arm-linux-gnueabihf "$root/usr/bin/avpool"
    echo "package: armhf packages unpacked in a scratch root: avpool --help works under qemu-arm"
    passed=$((passed + 1))

    plugin=$root/usr/lib/arm-linux-gnueabihf/gstreamer-1.0/libgstavpool.so
    [ -f "$plugin" ] || fail "the armhf plugin is not in lib/arm-linux-gnueabihf/gstreamer-1.0"
    file -L "$plugin" | grep -q "ELF 32-bit LSB shared object, ARM, EABI5" || fail "$(file -L "$plugin")"
    readelf -d "$plugin" | grep -q 'RUNPATH.*\[\$ORIGIN/\.\.\]' || fail "the armhf plugin does not find libavpool beside it"
    readelf -d "$plugin" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' >"$scratch/needed"
    for lib in $(cat "$scratch/needed"); do
        case $lib in
            libavpool.so.0 | libgstbase-1.0.so.0 | libgstreamer-1.0.so.0 | libgobject-2.0.so.0 | libglib-2.0.so.0 | \
                libstdc++.so.6 | libgcc_s.so.1 | libc.so.6 | libm.so.6) ;;
            *) fail "the armhf plugin needs $lib, which its package's dependencies do not bring" ;;
        esac
    done
    # gst-inspect-1.0 for armhf under qemu-arm, with the armhf GStreamer of the
    # sysroot and the plugin and library of the packages; in the inspecting
    # process itself (the plugin scanner would run as an ARM program).
    libs=$root/usr/lib/arm-linux-gnueabihf:$sysroot/usr/lib/arm-linux-gnueabihf:$sysroot/lib/arm-linux-gnueabihf
    for element in avpoolsrc avpoolsink; do
        GST_REGISTRY_FORK=no GST_REGISTRY="$scratch/armhf-registry.bin" GST_PLUGIN_SYSTEM_PATH="$root/usr/lib/arm-linux-gnueabihf/gstreamer-1.0" \
            qemu-arm -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH="$libs" "$sysroot/usr/bin/gst-inspect-1.0" "$element" \
            >"$scratch/inspect.out" 2>&1 || fail "armhf gst-inspect-1.0 $element: $(tail -n 3 "$scratch/inspect.out")"
        grep -q "kind" "$scratch/inspect.out" || fail "armhf gst-inspect-1.0 $element shows no kind property"
    done
    echo "package: the armhf plugin package: an ARM object found where GStreamer looks, armhf gst-inspect-1.0 loads both elements under qemu-arm"
    passed=$((passed + 1))
}

[ $# -gt 0 ] || set -- native armhf
for target in "$@"; do
    case "$target" in
        native | armhf) "$target" ;;
        *)
            echo "package: unknown target '$target' (native or armhf)" >&2
            exit 2
            ;;
    esac
done
echo "package: $passed passed, 0 failed"
