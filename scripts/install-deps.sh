#!/bin/sh
# Installs the Debian packages the project needs, and only those that are
# missing, so that it returns at once on a machine that has them all.
#
#   scripts/install-deps.sh [native] [cross] [fuzz] [all]    (default: all)
#
# native: compiler, CMake, the test/benchmark libraries, ffmpeg and GStreamer (development
#         files for the plugin, the tools and the plugins its tests use) for the build machine.
# cross:  the arm-linux-gnueabihf compiler, qemu-arm to run its programs, and the
#         GoogleTest sources, which scripts/armhf-build.sh compiles for the device.
# fuzz:   clang and its libFuzzer runtime for the getters' fuzz targets.
set -eu

# ffmpeg makes the media the media tests put through the pools (they skip without it).
# The GStreamer plugin is built against libgstreamer*-dev; its tests run pipelines with
# elements of plugins-base (appsink), -good (jpegdec) and -bad (h264parse); the package
# checks run gst-inspect-1.0 from gstreamer1.0-tools. `avpool serve` is built on
# gst-rtsp-server (libgstrtspserver-1.0-dev).
gstreamer_packages="pkg-config libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstrtspserver-1.0-dev gstreamer1.0-tools
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad"
native_packages="make ninja-build cmake g++ libgtest-dev googletest libbenchmark-dev ffmpeg python3 $gstreamer_packages"
cross_packages="make ninja-build cmake g++-arm-linux-gnueabihf qemu-user googletest"
fuzz_packages="make cmake clang libclang-rt-14-dev"

wanted=""
[ $# -gt 0 ] || set -- all
for set_name in "$@"; do
    case "$set_name" in
        native) wanted="$wanted $native_packages" ;;
        cross) wanted="$wanted $cross_packages" ;;
        fuzz) wanted="$wanted $fuzz_packages" ;;
        all) wanted="$wanted $native_packages $cross_packages $fuzz_packages" ;;
        -h|--help)
            sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'
            exit 0
            ;;
        *)
            echo "install-deps: unknown package set '$set_name' (native, cross, fuzz or all)" >&2
            exit 2
            ;;
    esac
done

installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

missing=""
for package in $wanted; do
    case " $missing " in *" $package "*) continue ;; esac
    installed "$package" || missing="$missing $package"
done

if [ -z "$missing" ]; then
    echo "install-deps: all packages present"
    exit 0
fi

if [ "$(id -u)" -eq 0 ]; then
    as_root=""
elif command -v sudo >/dev/null 2>&1; then
    as_root="sudo"
else
    echo "install-deps: missing:$missing; run as root or install sudo" >&2
    exit 1
fi

echo "install-deps: installing$missing"
# A list that fails (the armhf security index that scripts/armhf-sysroot.sh's
# foreign architecture brings is at times out of step) does not stop the rest.
$as_root apt-get update -q || echo "install-deps: some package lists failed to update; going on" >&2
# shellcheck disable=SC2086 # one word per package
$as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing
