#!/bin/sh
# Measures avpoolsrc, copying and zero-copy, against `avpool get` on the same
# pool: frames per second delivered and CPU time per frame of the reader.
#
#   scripts/measure-gst.sh [BUILD_DIR]        (default: build)
#
# A producer (`avpool put jpg`) loops over 1080p JPEG pictures of about 120 KB
# at 25 and at 1000 frames per second; each reader takes a fixed number of
# frames to /dev/null (fakesink). CPU is the reader's user + system time
# (getrusage, through python3), less what the program spends starting up
# without reading a frame. Runs in a private IPC namespace; needs ffmpeg,
# gst-launch-1.0 and python3.
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$repo/build}" && pwd)
if [ -z "${AVPOOL_MEASURE_ISOLATED:-}" ]; then
    AVPOOL_MEASURE_ISOLATED=1 exec "$repo/tests/run-isolated.sh" "$0" "$build"
fi
avpool=$build/tools/avpool/avpool
export GST_PLUGIN_PATH=$build/plugins/gstreamer
work=$(mktemp -d "${TMPDIR:-/tmp}/avpool-measure.XXXXXX")
export GST_REGISTRY=$work/registry.bin
producer=""
trap 'kill $producer 2>/dev/null; rm -rf "$work"' EXIT

ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -t 2 -c:v mjpeg -q:v 1 \
    -f mjpeg "$work/pictures.mjpeg"
frame_kb=$(($(wc -c <"$work/pictures.mjpeg") / 50 / 1024))
gst-launch-1.0 -q fakesrc num-buffers=1 ! fakesink >/dev/null  # fills the registry

# cpu_seconds COMMAND...: "elapsed cpu" of one run, in seconds.
cpu_seconds() {
    python3 -c '
import resource, subprocess, sys, time
start = time.monotonic()
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
used = resource.getrusage(resource.RUSAGE_CHILDREN)
print("%.6f %.6f" % (time.monotonic() - start, used.ru_utime + used.ru_stime))' "$@"
}

# The start-up of each program, measured without frames.
gst_start=$(cpu_seconds gst-launch-1.0 -q fakesrc num-buffers=1 ! fakesink | cut -d' ' -f2)
get_start=$(cpu_seconds "$avpool" get jpg 0 --count 0 --help | cut -d' ' -f2)

report() {  # name fps frames elapsed cpu start
    awk -v name="$1" -v fps="$2" -v n="$3" -v e="$4" -v c="$5" -v s="$6" 'BEGIN {
        printf "| %-24s | %5d | %8.1f | %6.1f | %5.1f %% |\n", name, fps, n / e, (c - s) * 1e6 / n, (c - s) * 100 / e }'
}

echo "| reader ($frame_kb KB frames)    | put/s | frames/s | CPU us/frame | CPU |"
echo "|---|---|---|---|---|"
for fps in 25 1000; do
    frames=$((fps == 25 ? 375 : 10000))
    "$avpool" put jpg 0 "$work/pictures.mjpeg" --loop --fps "$fps" >/dev/null 2>&1 &
    producer=$!
    sleep 1
    set -- $(cpu_seconds "$avpool" get jpg 0 --count "$frames" -o /dev/null)
    report "avpool get" "$fps" "$frames" "$1" "$2" "$get_start"
    for copy in false true; do
        set -- $(cpu_seconds gst-launch-1.0 -q avpoolsrc kind=jpg channel=0 zero-copy="$copy" \
            num-buffers="$frames" ! fakesink sync=false)
        name="avpoolsrc zero-copy=$copy"
        report "$name" "$fps" "$frames" "$1" "$2" "$gst_start"
    done
    kill "$producer"
    wait "$producer" 2>/dev/null || true
    producer=""
done
