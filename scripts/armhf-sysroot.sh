#!/bin/sh
# Unpacks Debian's armhf GStreamer development files and the libraries they
# link to into a directory the cross build compiles and links the GStreamer
# plugin against, without installing anything armhf on the build machine:
#
#   scripts/armhf-sysroot.sh [DIR]        (default: build-armhf-sysroot)
#
# Installing the armhf -dev packages beside the amd64 ones would need both
# sides at the very same versions, which breaks whenever an update reaches
# one side's index first; unpacked apart, they only need the same ABI.
# Adds the armhf architecture to dpkg and updates the package lists when
# the armhf lists are missing (a failing index, such as the security one for
# armhf, is passed over). Prints the directory; returns at once when it
# already holds the packages.
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
root=${1:-$repo/build-armhf-sysroot}
triple=arm-linux-gnueabihf
# The plugin's modules (gstreamer-1.0, gstreamer-base-1.0) with every module
# their pkg-config files require, privately too, and the shared libraries
# those link to.
dev_packages="libgstreamer1.0-dev libglib2.0-dev libffi-dev libpcre2-dev libunwind-dev libdw-dev
    libelf-dev zlib1g-dev liblzma-dev"
runtime_packages="libgstreamer1.0-0 libglib2.0-0 libffi8 libpcre2-8-0 libunwind8 libdw1 libelf1 zlib1g
    liblzma5 libbz2-1.0 libzstd1"
# gst-inspect-1.0, with which the packages' check loads the plugin under qemu-arm.
check_packages="gstreamer1.0-tools"
stamp=$root/.packages

wanted=$(echo $dev_packages $runtime_packages $check_packages)
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ]; then
    echo "$root"
    exit 0
fi

if [ "$(id -u)" -eq 0 ]; then as_root=""; else as_root="sudo"; fi
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    $as_root dpkg --add-architecture armhf
fi
if ! apt-cache show libgstreamer1.0-dev:armhf >/dev/null 2>&1; then
    $as_root apt-get update -q >&2 || echo "armhf-sysroot: some package lists failed; going on with the others" >&2
fi

downloads=$root.debs
rm -rf "$root" "$downloads"
mkdir -p "$root" "$downloads"
packages=""
for package in $wanted; do packages="$packages $package:armhf"; done
# shellcheck disable=SC2086 # one word per package
(cd "$downloads" && apt-get download -q $packages >&2)
for deb in "$downloads"/*.deb; do dpkg-deb -x "$deb" "$root"; done
rm -rf "$downloads"

# Links that name their target by an absolute path point into the build
# machine; point them into the unpacked tree.
find "$root" -type l | while read -r link; do
    target=$(readlink "$link")
    case $target in
        /*) ln -sfn "$root$target" "$link" ;;
    esac
done
[ -f "$root/usr/lib/$triple/pkgconfig/gstreamer-1.0.pc" ] || {
    echo "armhf-sysroot: no gstreamer-1.0.pc for armhf in $root" >&2
    exit 1
}
echo "$wanted" >"$stamp"
echo "$root"
