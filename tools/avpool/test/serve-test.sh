#!/bin/sh
# avpool serve with ffmpeg as its clients: serve-test.sh CASE AVPOOL ENCODER_AREA
#   frames: each mount plays over RTSP/TCP and decodes to exactly the frames
#           of the file put into its pool, a contiguous run of them
#   budget: the client past the budget gets 503; units come back at TEARDOWN,
#           at a plain disconnect and, after kill -9 of the server, at the
#           next use of the budget; the users table names the clients
# Meant for a private IPC namespace; every wait has a deadline. Exits 77
# where ffmpeg or an H.264 encoder is missing.

case_name=$1 AVPOOL=$2 AREA=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/avpool-serve.XXXXXX") || exit 1
background=""
# SIGTERM first, so that the writers and the area remove their pools, then
# SIGKILL for whatever has not ended within 5 s.
cleanup() {
    for pid in $background; do kill -TERM "$pid" 2>/dev/null; done
    (sleep 5 && kill -KILL $background) >/dev/null 2>&1 &
    watchdog=$!
    for pid in $background; do wait "$pid" 2>/dev/null; done
    kill "$watchdog" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL [$case_name]: $*" >&2
    for f in "$work"/*.out "$work"/*.err; do [ -s "$f" ] && { echo "--- $(basename "$f")"; tail -n 20 "$f"; } >&2; done
    exit 1
}

# start NAME COMMAND...: in the background, output in $work/NAME.{out,err}.
start() {
    name=$1
    shift
    "$@" >"$work/$name.out" 2>"$work/$name.err" &
    eval "pid_$name=$!"
    background="$background $!"
}

# until_true SECONDS WHAT COMMAND...: polls every 0.1 s.
until_true() {
    limit=$(($1 * 10)) what=$2 waited=0
    shift 2
    until "$@"; do
        [ "$waited" -ge "$limit" ] && fail "never: $what"
        sleep 0.1
        waited=$((waited + 1))
    done
}

shown() { grep -q "$2" "$work/$1.out" 2>/dev/null; }
budget_is() { "$AVPOOL" infos >"$work/infos.out" 2>&1 && grep -q "^budget: *$1 of 10 units taken" "$work/infos.out"; }

# An area with profile 0 on the mp4 pool of channel 0 and profile 1 on the
# jpg pool of channel 1, both pools fed from files (the jpg one in a loop, the
# mp4 one with the options given), and the server.
setup() {
    sh "$(dirname "$0")/../../../tests/media/make-media.sh" "$work" || exit $?
    # SPS and PPS only in front of the first of 15 GOPs, as a GStreamer
    # encoder sends them: a client that starts on another decodes only with
    # those the area publishes (the frames repeat every 50, as in camera.h264).
    ffmpeg -nostdin -v error -i "$work/camera.h264" -c copy -bsf:v filter_units=pass_types=7-8 -frames:v 1 \
        -f h264 "$work/sets.h264" &&
        ffmpeg -nostdin -v error -i "$work/camera.h264" -c copy -bsf:v filter_units=remove_types=7-8 \
            -f h264 "$work/slices.h264" || fail "ffmpeg cannot rewrite camera.h264"
    cat "$work/sets.h264" "$work/slices.h264" "$work/slices.h264" "$work/slices.h264" >"$work/once.h264"
    start area "$AREA" mp4:0 jpg:1
    until_true 5 "the information area" shown area published
    start put0 "$AVPOOL" put mp4 0 "$work/once.h264" "$@"
    start put1 "$AVPOOL" put jpg 1 "$work/camera.mjpeg" --loop
    until_true 5 "both pools" sh -c "'$AVPOOL' stat mp4 0 >/dev/null 2>&1 && '$AVPOOL' stat jpg 1 >/dev/null 2>&1"
    start serve "$AVPOOL" serve --port 0
    until_true 10 "serve listening" shown serve "^listening on"
    port=$(sed -n 's/^listening on .* port //p' "$work/serve.out")
    url=rtsp://127.0.0.1:$port
}

# hashes FILE: the md5 of each decoded frame, one a line.
hashes() { grep -v '^#' "$1" | awk -F, '{ gsub(/ /, "", $6); print $6 }'; }

# window EXPECTED GOT: GOT is a run of EXPECTED's lines, round its end.
window() {
    awk 'NR == FNR { want[n++] = $0; next }
         FNR == 1 { for (i = 0; i < n && want[i] != $0; i++); if (i == n) exit 1; at = i }
         { if (want[(at + FNR - 1) % n] != $0) exit 1; got++ }
         END { exit (got == 0) }' "$1" "$2"
}

case $case_name in
frames)
    setup
    until_true 5 "the writer past the GOP with SPS and PPS" sh -c \
        "'$AVPOOL' stat mp4 0 2>/dev/null | grep -qE '^\\* GOP +[0-9]+ +gopID +([2-9]|[1-9][0-9])'"
    for mount in 0:h264:40 1:mjpeg:30; do
        profile=${mount%%:*} rest=${mount#*:}
        format=${rest%%:*} count=${rest#*:}
        file=$work/camera.$format
        [ "$format" = h264 ] && file=$work/once.h264
        ffmpeg -nostdin -v error -f "$format" -i "$file" -f framemd5 "$work/file$profile.md5" || fail "ffmpeg cannot decode $file"
        hashes "$work/file$profile.md5" >"$work/file$profile.txt"
        timeout 20 ffmpeg -nostdin -v error -rtsp_transport tcp -i "$url/profile$profile" -frames:v "$count" \
            -f framemd5 "$work/rtsp$profile.md5" 2>"$work/client$profile.err" || fail "ffmpeg could not play profile$profile"
        hashes "$work/rtsp$profile.md5" >"$work/rtsp$profile.txt"
        [ "$(wc -l <"$work/rtsp$profile.txt")" = "$count" ] || fail "profile$profile gave $(wc -l <"$work/rtsp$profile.txt") frames"
        window "$work/file$profile.txt" "$work/rtsp$profile.txt" ||
            fail "the frames of profile$profile are not a run of the frames of $file"
    done
    until_true 5 "both clients left" budget_is 0
    [ "$(grep -c ' (teardown)$' "$work/serve.out")" = 2 ] || fail "the clients did not leave with TEARDOWN"
    ;;
budget)
    setup --loop
    # Eight units for active users, two for RTSP clients.
    for i in 1 2 3 4 5 6 7 8; do "$AVPOOL" users add "user$i" web >/dev/null || fail "users add $i"; done
    play() { start "$1" ffmpeg -nostdin -v error -rtsp_transport tcp -i "$url/$2" -c copy -t 30 -f null -; }
    play a profile0
    play b profile1
    until_true 10 "two clients playing" sh -c "'$AVPOOL' users list >'$work/users.out' 2>&1 &&
        [ \$(grep -c ' rtsp /profile[01] *127.0.0.1:[0-9]* playing\$' '$work/users.out') = 2 ]"
    budget_is 10 || fail "two clients do not fill the budget: $(grep budget "$work/infos.out")"
    grep -qE '^ *[0-9] +2 +1 .* rtsp /profile0 +127\.0\.0\.1:[0-9]+ playing$' "$work/users.out" ||
        fail "no user of type 2, weight 1 for profile0"
    timeout 20 ffprobe -v error -rtsp_transport tcp "$url/profile0" >"$work/c.out" 2>"$work/c.err" &&
        fail "a third client was served"
    grep -q "503 Service Unavailable" "$work/c.err" || fail "the third client was not refused with 503"
    grep -q "^refused 127.0.0.1:[0-9]* /profile0: no more slat. (503)$" "$work/serve.out" || fail "serve did not log the refusal"
    kill -KILL "$pid_a"
    until_true 5 "units back after a disconnect" budget_is 9
    kill -INT "$pid_b"
    until_true 5 "units back after TEARDOWN" budget_is 8
    grep -q ' (connection closed)$' "$work/serve.out" && grep -q ' (teardown)$' "$work/serve.out" ||
        fail "serve did not log both ways of leaving"
    play d profile0
    until_true 10 "a new client" budget_is 9
    kill -KILL "$pid_serve"
    until_true 5 "units back after kill -9 of the server" budget_is 8
    "$AVPOOL" users list | grep -q rtsp && fail "a dead server's client is still listed"
    ;;
*)
    fail "unknown case"
    ;;
esac
echo "serve-test $case_name: passed"
