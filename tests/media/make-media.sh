#!/bin/sh
# Generates the small media files the media tests feed through the pools:
#
#   make-media.sh DIR
#
# DIR/camera.mjpeg: 25 JPEG pictures of 320x240 one after the other (1 s at 25/s)
# DIR/camera.h264:  50 pictures of 320x240 as an H.264 Annex B stream, an IDR
#                   picture every 10
#
# Exits 77 (the tests' skip code) when ffmpeg, ffprobe or an H.264 encoder is
# missing.
set -eu
dir=$1
for tool in ffmpeg ffprobe; do
    command -v "$tool" >/dev/null 2>&1 || { echo "make-media: no $tool here" >&2; exit 77; }
done
encoders=$(ffmpeg -hide_banner -encoders 2>/dev/null)
h264=""
for candidate in libx264 libopenh264; do
    case $encoders in *" $candidate "*) h264=$candidate; break ;; esac
done
[ -n "$h264" ] || { echo "make-media: this ffmpeg has no H.264 encoder" >&2; exit 77; }

mkdir -p "$dir"
source="testsrc=size=320x240:rate=25"
ffmpeg -nostdin -v error -y -f lavfi -i "$source" -t 1 -c:v mjpeg -f mjpeg "$dir/camera.mjpeg"
ffmpeg -nostdin -v error -y -f lavfi -i "$source" -t 2 -c:v "$h264" -g 10 -pix_fmt yuv420p \
    -bsf:v h264_mp4toannexb -f h264 "$dir/camera.h264"
