#!/bin/sh
# The avpool tool as a user runs it: cli-test.sh usage|demo|roundtrip|serve AVPOOL [ENCODER_AREA], in a private
# IPC namespace. Every wait has a deadline; a background process and its children form a session of their own.

case_name=$1 AREA=$3
MEDIA_SCRIPT=$(cd "$(dirname "$0")/../../../tests/media" && pwd)/make-media.sh
work=$(mktemp -d "${TMPDIR:-/tmp}/avpool-cli.XXXXXX") || exit 1
cd "$work" || exit 1
# avpool on the PATH; a cross-built tool runs through the emulator named in AVPOOL_EMULATOR (words split).
mkdir bin && printf '#!/bin/sh\nexec %s "%s" "$@"\n' "${AVPOOL_EMULATOR:-}" "$2" >bin/avpool && chmod +x bin/avpool
PATH=$work/bin:$PATH

# SIGTERM first, so that demos, writers and the area remove what they created; SIGKILL after 5 s.
cleanup() {
    for p in $started; do kill -TERM "-$p" "$p" 2>/dev/null; done
    (sleep 5; for p in $started; do kill -KILL "-$p" "$p"; done) >/dev/null 2>&1 &
    for p in $started; do wait "$p" 2>/dev/null; done
    kill $! 2>/dev/null
    cd / && rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' HUP INT PIPE TERM

fail() {
    echo "FAIL [$case_name]: $*" >&2
    for f in *.out *.err; do [ -s "$f" ] && { echo "--- $f"; tail -n 20 "$f"; } >&2; done
    exit 1
}

# run NAME ARGS...: avpool ARGS with a deadline into NAME.out, NAME.err and $rc. start NAME COMMAND...: COMMAND
# in the background in a session of its own, its pid in $pid_NAME.
run() { name=$1; shift; timeout -k 2 20 avpool "$@" >"$name.out" 2>"$name.err" </dev/null; rc=$?; }
start() { name=$1; shift; setsid "$@" >"$name.out" 2>"$name.err" & eval "pid_$name=$!"; started="$started $!"; }

within() {  # SECONDS COMMAND...
    n=$(($1 * 10)); shift
    until "$@"; do [ $n -le 0 ] && fail "not within the deadline: $*"; sleep 0.1; n=$((n - 1)); done
}

finish() { within 20 eval "! kill -0 $1 2>/dev/null"; wait "$1"; rc=$?; }  # PID; its exit code in $rc
stops() { eval kill "-$1" "\$pid_$2"; ends_well "$2"; }  # SIGNAL NAME: the background NAME ends well on SIGNAL
ends_well() { eval finish "\$pid_$1"; [ "$rc" = 0 ] && [ ! -s "$1.err" ] || fail "$1 ended with exit $rc"; }

pool_up() { run poll stat "$@" && [ "$rc" = 0 ]; }
get_from() {  # NAME KIND CHANNEL ARGS...: once the pool is up, a get from its last minute on in the background
    within 10 pool_up "$2" "$3"; g=$1; shift; start "$g" avpool get "$@" --since 60
}
infos_has() { run infos infos && grep -q "^$1" infos.out; }
session_gone() { ! ps -o stat= -s "$1" | grep -qv '^Z'; }
# No pool segment or semaphore set is left (one that a process still attaches shows with key 0).
no_ipc() { [ -z "$(ipcs -m -s | grep '^0x0000')" ] || fail "IPC objects left: $(ipcs -m -s)"; }

# expect_table: rows "EXIT|ARGS|STDERR[|STDOUT]" on stdin. avpool ARGS (split on blanks) must exit EXIT with
# exactly STDERR on stderr (nothing when empty), STDOUT on stdout when given, nothing there when it fails.
expect_table() {
    while IFS='|' read -r want args err out; do
        set -f; run t $args; set +f
        [ "$rc" = "$want" ] || fail "avpool $args: exit $rc, expected $want"
        [ "$(cat t.err)" = "$err" ] || fail "avpool $args: stderr '$(cat t.err)', expected '$err'"
        [ "$rc" = 0 ] || [ ! -s t.out ] || fail "avpool $args failed and printed on stdout"
        [ -z "$out" ] || [ "$(cat t.out)" = "$out" ] || fail "avpool $args: stdout '$(cat t.out)'"
    done
}

# pools_are CREATOR CHANNEL live|stale UNITS: `avpool ls --json` lists exactly the pools of a demo on CHANNEL
# (jpg also CHANNEL + 1) and its information area, each under its key, geometry and parameters.
pools_are() {
    run ls ls --json
    python3 - "$@" >ls.err 2>&1 <<'END' || fail "ls --json: $(cat ls.err)"
import json, sys
creator, c, stale, units = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3] == "stale", int(sys.argv[4])
audio = {"format": 16, "channels": 1, "rate": 8000}
want = {
    ("jpg", c): (0x4C00 + c, 12, {"width": 640, "height": 480, "fps": 25}),
    ("jpg", c + 1): (0x4C01 + c, 8, {"width": 320, "height": 240, "fps": 10}),
    ("mp4", c): (0x4B00 + c, 240, {"width": 1280, "height": 720, "fps": 30, "gops": 8, "framesPerGop": 30}),
    ("pcm", None): (0x4A00, 200, audio),
    ("aac", c): (0x4F00 + c, 200, audio),
    ("amr", c): (0x5000 + c, 200, audio),
    ("opus", None): (0x5A00, 200, dict(audio, format=8)),
    ("lum", c): (0x4D00 + c, 6, {"width": 80, "height": 64, "fps": 30}),
    ("md", c): (0x4E00 + c, 5, {"width": 64, "height": 48, "fps": 30}),
    ("infos", None): (0x490, 0, {"profiles": 3, "connections": units, "maxConnections": 10}),
}
got = {(p["kind"], p["channel"]): (p["key"], p["slots"], p["parameters"], p["creator"], p["stale"],
                                   p["kind"] == "infos" or p["newest"] > 0) for p in json.load(open("ls.out"))["pools"]}
assert got == {name: (*row, creator, stale, True) for name, row in want.items()}, got
END
}

# media [audio]: makes the test media here, or skips the case without ffmpeg.
media() {
    sh "$MEDIA_SCRIPT" . "$@" >media.log 2>&1 && return
    [ $? = 77 ] && { echo "SKIP [$case_name]: $(cat media.log)"; exit 77; }
    fail "make-media.sh $* failed"
}

case $case_name in
usage)
    # Exit codes and the one line on stderr: 2 for a wrong command line, 1 for work that cannot be done.
    echo "not media at all" >notes.txt
    expect_table <<'END'
2||avpool: no verb given; see 'avpool --help'
2|frobnicate|avpool: no verb 'frobnicate'; see 'avpool --help'
2|help nope|avpool: no verb 'nope'; see 'avpool --help'
2|stat jpg 3x|avpool: stat: channel must be an integer, not '3x'
2|stat jpg 256|avpool: stat: channel must be between 0 and 255, not 256
2|stat mov 1|avpool: stat: unknown pool kind 'mov' (known: jpg, mp4, pcm, aac, amr, opus, lum, md)
2|stat aac|avpool: stat: expected a pool kind and a channel; usage: avpool stat KIND [CHANNEL] [--last N]
2|stat opus 7|avpool: stat: opus has one pool under a fixed key and no channel 7
2|demo --seconds 0|avpool: demo: --seconds must be between 1 and 86400, not 0
2|demo --seconds|avpool: demo: option --seconds needs a value N
2|demo --loud|avpool: demo: unknown option '--loud'; see 'avpool demo --help'
2|demo --quiet=yes|avpool: demo: option --quiet takes no value
2|infos extra|avpool: infos: expected no arguments besides options; usage: avpool infos [--key K]
2|users kick 3|avpool: users: unknown action 'kick' (known: add, del, list)
2|users add abcdefghijklmnopqrstuvwxyz123456 x|avpool: users add: NAME must be at most 31 bytes, not 32
2|users del 10|avpool: users del: SLAT must be between 0 and 9, not 10
2|snapshot 5 x.jpg|avpool: snapshot: profile must be between 0 and 4, not 5
2|ls x|avpool: ls: expected no arguments; usage: avpool ls [--json]
2|put jpg 0|avpool: put: expected a pool kind, a channel and a file; usage: avpool put KIND CHANNEL FILE [--loop] [options]
2|put pcm 2 notes.txt|avpool: put: there is one pcm pool per machine: CHANNEL must be 0, not 2
2|get mov 4|avpool: get: unknown pool kind 'mov' (known: jpg, mp4, pcm, aac)
1|demo --channel 176 --seconds 1|avpool: demo: on channel 176 the aac and opus pools would keep their locks under one key, 0x5a00; choose other channels with --channel
1|stat mp4 255|avpool: no mp4 pool on channel 255 (key 0x4bff)
1|stat pcm|avpool: no pcm pool (key 0x4a00)
1|infos --key 4242|avpool: no information area (key 0x1092)
1|snapshot 0 none.jpg|avpool: no information area (key 0x490)
1|get mp4 4|avpool: get: no mp4 pool on channel 4 (key 0x4b04)
1|put jpg 0 none.mjpeg|avpool: put: cannot read none.mjpeg: No such file or directory
1|put pcm 0 notes.txt|avpool: put: notes.txt: not a WAV file: it does not begin with a RIFF/WAVE header
1|put mp4 0 notes.txt|avpool: put: notes.txt: not an H.264 Annex B stream: it does not begin with a start code
0|clean||nothing to clean
0|ls --json||{"pools": []}
0|watch --count 1|
END
    [ -e none.jpg ] && fail "snapshot without an information area created its file"
    [ "$(head -n 1 t.out | cut -d' ' -f1-2)" = "avpool watch" ] || fail "watch printed no block"
    # Every verb has its help, the same as `help VERB`, listed by the tool's.
    run all --help
    for verb in demo infos snapshot stat users ls watch clean put get; do
        run h "$verb" --help
        [ "$rc" = 0 ] && [ ! -s h.err ] && head -n 1 h.out | grep -q "^usage: avpool $verb" &&
            grep -q "^  $verb " all.out && run h2 help "$verb" && cmp -s h.out h2.out ||
            fail "$verb --help: exit $rc, $(head -n 1 h.out), not listed or not as 'help $verb'"
    done
    ;;

demo)
    # A demo seen through every verb, another beside it; killed, it leaves stale pools and slats: the budget heals
    # on its next use, the next demo takes over the fixed keys, clean removes the rest, SIGINT leaves nothing.
    start crashed avpool demo --seconds 60 --quiet
    within 15 infos_has 'users: 6$'
    run s stat md 0
    grep -qx 'vibration: *42' s.out || fail "stat md 0 shows no vibration 42"
    run s stat amr 0
    awk '{ sub(/^\*/, " ") } $1 ~ /^[0-9]+$/ && NF == 12 { n++; if ($11 != 255 || $12 != $2 % 8) bad = 1 }
        END { exit bad || n == 0 }' s.out || fail "amr fragments without streamParam 255 and fragmentParam ID % 8"
    # infos: each profile read at its own place, its pool's size.
    run i infos
    [ "$(sed -n 's/^sharedMemSize: *//p' i.out | tr '\n' ' ')" = "262940 98892 667892 " ] ||
        fail "profiles' sharedMemSize: $(grep sharedMemSize i.out)"
    # snapshot: a whole frame as the producer stamped it (magic, number, length).
    run s snapshot 0 p0.jpg
    stamp=$(od -An -tu4 -w16 -N16 p0.jpg | awk '{ print $1, $4 }')
    [ "$rc" = 0 ] && [ "$stamp" = "826562113 $(wc -c <p0.jpg)" ] &&
        grep -qx "${stamp#* } bytes of profile 0 (jpg pool on channel 0) written to p0.jpg" s.out ||
        fail "snapshot 0: exit $rc, stamp $stamp"
    # users: slats after the six consumers' up to the tenth, then refused.
    run u users add alice door
    [ "$rc $(cat u.out)" = "0 6" ] || fail "users add: exit $rc, slat $(cat u.out)"
    run u users list
    grep -qE '^ +6 +4 +1 .* alice +door$' u.out || fail "users list shows no alice in slat 6 (type 4, weight 1)"
    expect_table <<END
0|users add bob x||7
0|users add carol x||8
0|users add dave x||9
1|users add eve x|Add_Active_User failed: no more slat.
0|users del 6|
1|users del 6|avpool: users del: slat 6 is not in use
1|demo --seconds 1|avpool: demo: the jpg pool on channel 0 belongs to running pid $pid_crashed; choose other channels with --channel
1|snapshot 2 p2.jpg|avpool: snapshot: profile 2 is not a streaming JPEG profile (state 2, infoParam3 0)
1|snapshot 3 p3.jpg|avpool: snapshot: profile 3 is not published (sizeofPools 3)
1|snapshot 0 no/dir.jpg|avpool: snapshot: cannot write no/dir.jpg: No such file or directory
END
    for slat in 7 8 9; do avpool users del $slat || fail "users del $slat"; done
    # A demo on other channels runs to its end; pcm, opus and the information area stay the first's.
    run b demo --seconds 1 --channel 2 --quiet
    [ "$rc" = 0 ] && grep -qx "result: ok" b.out || fail "demo --channel 2 beside a demo: exit $rc"
    pools_are "$pid_crashed" 0 live 6

    kill -KILL "-$pid_crashed"
    within 10 session_gone "$pid_crashed"
    infos_has 'currentTotalConnections: 0$' || fail "the budget did not heal: $(grep currentTotal infos.out)"
    pools_are "$pid_crashed" 0 stale 0
    expect_table <<END
1|get jpg 0|avpool: get: the jpg pool on channel 0 is stale: its creator $pid_crashed is gone
END
    start demo avpool demo --seconds 60 --channel 2 --quiet
    within 15 infos_has 'users: 6$'
    printf "removed %s %s: segment 0x%s (creator $pid_crashed is gone), semaphore set 0x%s\n" jpg 0 4c00 4c00 \
        jpg 1 4c01 4c01 mp4 0 4b00 4b00 aac 0 4f00 4f00 amr 0 5000 5000 lum 0 4d00 4d00 md 0 4e00 4e00 >clean.expected
    run clean clean
    cmp -s clean.out clean.expected || fail "clean: $(diff clean.expected clean.out)"
    pools_are "$pid_demo" 2 live 6
    kill -INT "$pid_demo"
    finish "$pid_demo"
    [ "$rc" = 130 ] && grep -qx "result: interrupted by signal 2" demo.out || fail "demo ended by SIGINT: exit $rc"
    session_gone "$pid_demo" || fail "consumers outlived the demo: $(ps -s "$pid_demo")"
    no_ipc
    ;;

roundtrip)
    # MJPEG, H.264, AAC and WAV through the pools and back byte for byte; put ends at its file's end or on a signal,
    # get after N frames or when the pool goes. get's WAV header is ffmpeg's bit-exact one, sizes unknown in a pipe.
    media
    media audio
    for f in tone stereo8; do ffmpeg -nostdin -v error -i $f.wav -c copy -map_metadata -1 -fflags +bitexact -f wav \
        ref-$f.wav || fail "ffmpeg cannot remux $f.wav"; done
    start pj avpool put jpg 3 camera.mjpeg --fps 100 --linger 2000
    get_from gj jpg 3 --count 25 -o out.mjpeg
    start pm avpool put mp4 4 camera.h264 --loop --fps 50 --slots 20
    start pa avpool put aac 3 tone.aac --linger 500
    expect_table <<END
1|put jpg 3 camera.mjpeg|avpool: put: the jpg pool on channel 3 is in use by process $pid_pj
END
    get_from gm mp4 4 -o out.h264
    get_from ga aac 3 -o out.aac
    ends_well gj
    cmp camera.mjpeg out.mjpeg || fail "MJPEG read back with get --count 25 differs"
    ends_well pj
    within 10 cmp -s -n "$(wc -c <camera.h264)" camera.h264 out.h264
    stops TERM pm
    ends_well gm

    start pp avpool put pcm 0 tone.wav --loop
    within 10 pool_up pcm
    start gl avpool get pcm 0 -o live.wav
    run g get pcm 0 --since 60 --count 16 -o out.wav
    [ "$rc" = 0 ] && [ ! -s g.err ] && cmp ref-tone.wav out.wav || fail "get pcm 0 --count 16: exit $rc"
    # SIGINT ends a live get with the file's sizes set.
    stops INT gl
    od -An -tu4 -w44 -N44 live.wav | awk -v n="$(wc -c <live.wav)" '{ exit !($2 == n - 8 && $11 == n - 44) }' &&
        [ $(($(wc -c <live.wav) % 2048)) = 44 ] && cmp -s -i 8:8 -n 32 live.wav ref-tone.wav ||
        fail "get pcm ended by SIGINT: header $(od -An -tu4 -N44 live.wav)"
    stops INT pp
    # 8-bit stereo that ends inside a fragment: completed with silence (0x80).
    start pp avpool put pcm 0 stereo8.wav --linger 500
    within 10 pool_up pcm
    { timeout -k 2 20 avpool get pcm 0 --since 60 --count 11 2>pipe.err </dev/null; echo $? >pipe.rc; } | cat >pipe.wav
    { head -c 4 ref-stereo8.wav; printf '\377\377\377\377'; tail -c +9 ref-stereo8.wav | head -c 32
        printf '\377\377\377\377'; tail -c +45 ref-stereo8.wav; head -c 478 /dev/zero | tr '\0' '\200'; } >pipe.expected
    [ "$(cat pipe.rc)" = 0 ] && [ ! -s pipe.err ] && cmp pipe.expected pipe.wav || fail "get pcm into a pipe"
    ends_well pp

    ends_well ga
    cmp tone.aac out.aac || fail "AAC read back until its pool went differs"
    ends_well pa
    run e put aac 3 loud.aac
    [ "$rc" = 1 ] && grep -qx "avpool: put: loud.aac: ADTS frame at byte [0-9]* has [0-9]* bytes, more than an aac fragment holds (512)" e.err ||
        fail "put of ADTS frames over 512 bytes: exit $rc"
    no_ipc
    ;;

serve)
    # The area's profile 0 on mp4 pool 0, 1 on jpg pool 1. Each mount plays over RTSP/TCP exactly a run of
    # the frames put into its pool. The client past the budget gets 503; units come back at TEARDOWN, at a
    # plain disconnect and, after kill -9 of the server, at the next use of the budget.
    media
    # SPS and PPS only before the first of 15 GOPs: a client starting on another needs the area's (50 frames repeat).
    ffmpeg -nostdin -v error -i camera.h264 -c copy -bsf:v filter_units=pass_types=7-8 -frames:v 1 -f h264 sets.h264 &&
        ffmpeg -nostdin -v error -i camera.h264 -c copy -bsf:v filter_units=remove_types=7-8 -f h264 slices.h264 ||
        fail "ffmpeg cannot rewrite camera.h264"
    cat sets.h264 slices.h264 slices.h264 slices.h264 >once.h264
    start area "$AREA" mp4:0 jpg:1
    within 5 grep -q published area.out
    start put0 avpool put mp4 0 once.h264
    start put1 avpool put jpg 1 camera.mjpeg --loop
    for pool in "mp4 0" "jpg 1"; do within 5 pool_up $pool; done
    start serve avpool serve --port 0
    within 10 grep -q "^listening on" serve.out
    url=rtsp://127.0.0.1:$(sed -n 's/^listening on .* port //p' serve.out)
    within 5 sh -c "avpool stat mp4 0 2>/dev/null | grep -qE '^\\* GOP +[0-9]+ +gopID +([2-9]|[1-9][0-9])'"
    hashes() { awk -F, '!/^#/ { gsub(/ /, "", $6); printf "%s ", $6 }'; }
    for mount in "0 once.h264 h264 40" "1 camera.mjpeg mjpeg 30"; do
        set -- $mount
        want=$(ffmpeg -nostdin -v error -f "$3" -i "$2" -f framemd5 - | hashes)
        got=$(timeout 20 ffmpeg -nostdin -v error -rtsp_transport tcp -i "$url/profile$1" -frames:v "$4" \
            -vsync passthrough -f framemd5 - 2>client$1.err | hashes)
        # $4 frames that follow each other in the file, round its end: a part of the file thrice over.
        [ "$(echo $got | wc -w)" = "$4" ] && case " $want$want$want" in *" $got"*) ;; *) false ;; esac ||
            fail "profile$1 did not play $4 frames in a run of the frames of $2: $(echo $got | wc -w) frames"
    done
    within 5 infos_has 'budget: *0 of 10 units taken'
    [ "$(grep -c ' (teardown)$' serve.out)" = 2 ] || fail "the clients did not leave with TEARDOWN"

    # Eight units for active users, two for RTSP clients.
    for i in 1 2 3 4 5 6 7 8; do avpool users add "user$i" web >/dev/null || fail "users add $i"; done
    play() { start "$1" ffmpeg -nostdin -v error -rtsp_transport tcp -i "$url/profile1" -c copy -t 30 -f null -; }
    # Each client a user of type 2 and weight 1, named after its mount and address.
    client='^ *[0-9] +2 +1 .* rtsp /profile1 +127\.0\.0\.1:[0-9]+ playing$'
    playing() { run users users list && [ "$(grep -cE "$client" users.out)" = 2 ]; }
    play a; play b
    within 10 playing
    infos_has 'budget: *10 of 10 units taken' || fail "two clients do not fill the budget: $(grep budget infos.out)"
    timeout 20 ffprobe -v error -rtsp_transport tcp "$url/profile1" >c.out 2>c.err && fail "a third client was served"
    grep -q "503 Service Unavailable" c.err || fail "the third client was not refused with 503"
    grep -q "^refused 127.0.0.1:[0-9]* /profile1: no more slat. (503)$" serve.out || fail "no refusal logged"
    # Each step and the units then taken: a client killed, one that tears down, a new one, the server killed.
    for step in "kill -KILL $pid_a:9" "kill -INT $pid_b:8" "play d:9" "kill -KILL $pid_serve:8"; do
        ${step%:*}; within 10 infos_has "budget: *${step#*:} of"
    done
    grep -q ' (connection closed)$' serve.out && [ "$(grep -c ' (teardown)$' serve.out)" = 3 ] ||
        fail "serve did not log both ways of leaving"
    ! avpool users list | grep -q rtsp || fail "a dead server's client is still listed"
    ;;

*) fail "unknown case" ;;
esac
