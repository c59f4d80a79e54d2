#!/bin/sh
# Generates the small media files the media tests feed through the pools:
#   make-media.sh DIR [video|audio]      (default: video)
# video:
# DIR/camera.mjpeg: 25 JPEG pictures of 320x240 (1 s at 25/s), 4:2:0 with the
#                   standard Huffman tables, as cameras make them and RTP carries them
# DIR/camera.h264:  50 pictures of 320x240 in H.264 Annex B, an IDR picture every 10
# audio:
# DIR/tone.wav:     2.048 s of 440 Hz, 16-bit mono at 8000 Hz: exactly 16 pcm fragments of 2048 bytes
# DIR/stereo8.wav:  1 s of 8-bit stereo at 11025 Hz: 22050 bytes, 10 whole fragments and 1570 bytes
# DIR/tone.aac:     2 s of stereo AAC LC at 44100 Hz in ADTS frames
# DIR/loud.aac:     the same at a bitrate whose frames exceed 512 bytes
# Exits 77 (the tests' skip code) when ffmpeg, ffprobe or an encoder is missing.
set -eu
dir=$1
set=${2:-video}
for tool in ffmpeg ffprobe; do
    command -v "$tool" >/dev/null 2>&1 || { echo "make-media: no $tool here" >&2; exit 77; }
done
mkdir -p "$dir"
gen() { ffmpeg -nostdin -v error -y -f lavfi -i "$@"; }

if [ "$set" = audio ]; then
    gen sine=frequency=440:sample_rate=8000 -t 2.048 -ac 1 -c:a pcm_s16le "$dir/tone.wav"
    gen sine=frequency=300:sample_rate=11025 -t 1 -ac 2 -c:a pcm_u8 "$dir/stereo8.wav"
    gen sine=frequency=1000:sample_rate=44100 -t 2 -ac 2 -c:a aac -b:a 96k -f adts "$dir/tone.aac"
    gen anoisesrc=sample_rate=44100 -t 1 -ac 2 -c:a aac -b:a 320k -f adts "$dir/loud.aac"
    exit 0
fi
encoders=$(ffmpeg -hide_banner -encoders 2>/dev/null)
h264=""
for candidate in libx264 libopenh264; do
    case $encoders in *" $candidate "*) h264=$candidate; break ;; esac
done
[ -n "$h264" ] || { echo "make-media: this ffmpeg has no H.264 encoder" >&2; exit 77; }

source="testsrc=size=320x240:rate=25"
gen "$source" -t 1 -c:v mjpeg -pix_fmt yuvj420p -huffman default -f mjpeg "$dir/camera.mjpeg"
gen "$source" -t 2 -c:v "$h264" -g 10 -pix_fmt yuv420p -bsf:v h264_mp4toannexb -f h264 "$dir/camera.h264"
