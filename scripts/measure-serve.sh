#!/bin/sh
# Measures `avpool serve` with ffmpeg as its clients, in a private IPC
# namespace: the time from starting a client to its first decoded frame, per
# mount (median of RUNS), then CLIENTS clients at once on the H.264 mount for
# SECONDS: frames each received and the server's CPU.
#
#   scripts/measure-serve.sh [BUILD_DIR]     (RUNS=7 CLIENTS=10 SECONDS_EACH=10)
#
# FFMPEG_INPUT_OPTIONS="-analyzeduration 0 -probesize 32" leaves out the
# second or so ffmpeg spends probing a stream before its first frame.
set -eu
[ "${AVPOOL_MEASURE_INSIDE:-}" = 1 ] || exec env AVPOOL_MEASURE_INSIDE=1 unshare -i sh "$0" "$@"

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$repo/build}" && pwd)
runs=${RUNS:-7} clients=${CLIENTS:-10} seconds=${SECONDS_EACH:-10}
avpool=$build/tools/avpool/avpool
export GST_PLUGIN_PATH=$build/plugins/gstreamer
work=$(mktemp -d)
pids=""
trap 'kill $pids 2>/dev/null; sleep 1.5; rm -rf "$work"' EXIT

sh "$repo/tests/media/make-media.sh" "$work" >/dev/null
"$build/tools/avpool/encoder_area" mp4:0 jpg:1 >/dev/null &
pids=$!
sleep 0.3
"$avpool" put mp4 0 "$work/camera.h264" --loop >/dev/null 2>&1 &
pids="$! $pids"
"$avpool" put jpg 1 "$work/camera.mjpeg" --loop >/dev/null 2>&1 &
pids="$! $pids"
sleep 0.5
"$avpool" serve --port 0 >"$work/serve.out" 2>/dev/null &
serve=$!
pids="$serve $pids"
sleep 1
url=rtsp://127.0.0.1:$(sed -n 's/^listening on .* port //p' "$work/serve.out")

for profile in 0 1; do
    for run in $(seq "$runs"); do
        start=$(date +%s%N)
        ffmpeg -nostdin -v error $FFMPEG_INPUT_OPTIONS -rtsp_transport tcp -i "$url/profile$profile" -frames:v 1 -f null - 2>/dev/null
        echo $((($(date +%s%N) - start) / 1000000))
    done | sort -n >"$work/times"
    echo "profile$profile: first frame after $(sed -n "$(((runs + 1) / 2))p" "$work/times") ms (median of $runs;" \
        "$(head -n 1 "$work/times") to $(tail -n 1 "$work/times"))"
done

ticks() { awk '{ print $14 + $15 }' "/proc/$serve/stat"; }
before=$(ticks)
for i in $(seq "$clients"); do
    timeout $((seconds + 20)) ffmpeg -nostdin -v error -rtsp_transport tcp -i "$url/profile0" -t "$seconds" \
        -f framemd5 "$work/client$i.md5" >/dev/null 2>&1 &
    clients_pids="${clients_pids:-} $!"
done
wait $clients_pids || true
used=$(($(ticks) - before))
frames=$(for i in $(seq "$clients"); do grep -vc '^#' "$work/client$i.md5" || true; done | sort -n | tr '\n' ' ')
echo "$clients clients at once for $seconds s: decoded frames per client: $frames"
echo "serve CPU: $((used * 1000 / $(getconf CLK_TCK))) ms over the run"
