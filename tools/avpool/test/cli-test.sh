#!/bin/sh
# Checks of the avpool tool as a user runs it: cli-test.sh CASE PATH-TO-AVPOOL.
# Meant to run in a private IPC namespace (the demo creates pools under the
# fixed keys of jpg channels 0 and 1, mp4, aac, amr, lum and md channel 0 and
# the pcm and opus pools). Every wait has a deadline.

case_name=$1
AVPOOL=$2
# A cross-built tool runs through the emulator named here (words split).
EMULATOR=${AVPOOL_EMULATOR:-}
MEDIA_SCRIPT=$(dirname "$0")/../../../tests/media/make-media.sh
work=$(mktemp -d "${TMPDIR:-/tmp}/avpool-cli.XXXXXX") || exit 1
background=""

cleanup() {
    for pid in $background; do kill -KILL "$pid" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL [$case_name]: $*" >&2
    for f in "$work"/*; do
        [ -s "$f" ] || continue
        echo "--- $(basename "$f")" >&2
        tail -n 40 "$f" >&2
    done
    exit 1
}

# run FILE-PREFIX SECONDS ARGS...: runs avpool in the foreground with a
# deadline; stdout, stderr and the exit code land in $work/PREFIX.{out,err,rc}.
run() {
    prefix=$1 limit=$2
    shift 2
    timeout -k 2 "$limit" $EMULATOR "$AVPOOL" "$@" >"$work/$prefix.out" 2>"$work/$prefix.err"
    echo $? >"$work/$prefix.rc"
}
rc_of() { cat "$work/$1.rc"; }

expect_rc() {
    [ "$(rc_of "$1")" = "$2" ] || fail "avpool $3: exit $(rc_of "$1"), expected $2"
}

# The whole of stderr must be this one line.
expect_error_line() {
    printf '%s\n' "$2" >"$work/expected.err"
    cmp -s "$work/$1.err" "$work/expected.err" || fail "stderr of $1 is not exactly: $2"
}

expect_line() {
    grep -qxF -- "$2" "$work/$1.out" || fail "no line '$2' in $1.out"
}

# wait_for PID SECONDS: the process's exit code, or kill it and fail.
wait_for() {
    waited=0
    while kill -0 "$1" 2>/dev/null; do
        if [ "$waited" -ge $(($2 * 10)) ]; then
            kill -KILL "$1" 2>/dev/null
            fail "process $1 still running after $2 s"
        fi
        sleep 0.1
        waited=$((waited + 1))
    done
    wait "$1"
}

# until_shown PREFIX SECONDS CHECK WHAT ARGS...: runs avpool ARGS until it
# succeeds and "CHECK FILE" accepts its output; fails saying WHAT was not seen.
until_shown() {
    prefix=$1 seconds=$2 check=$3 what=$4
    shift 4
    waited=0
    while :; do
        run "$prefix" 10 "$@"
        [ "$(rc_of "$prefix")" = 0 ] && "$check" "$work/$prefix.out" && break
        [ "$waited" -ge $((seconds * 10)) ] && fail "$* never showed $what"
        sleep 0.1
        waited=$((waited + 1))
    done
}

# until_stat PREFIX KIND CHANNEL SECONDS CHECK WHAT
until_stat() { until_shown "$1" "$4" "$5" "$6" stat "$2" "$3"; }
# Producer and both consumers attached, every jpg slot written.
jpg_ring_full() { grep -qx 'attached: *3' "$1" && ! grep -q ' -$' "$1"; }
# Producer and both consumers attached, the writer in GOP 3 or later.
mp4_gops_written() { grep -qx 'attached: *3' "$1" && grep -q '^\* GOP [3-7] ' "$1"; }
nobody_attached() { grep -qx 'attached: *0' "$1"; }
# Producer and its one consumer attached, at least three elements written.
ring_running() { grep -qx 'attached: *2' "$1" && [ "$(grep -c '^[* ] *[0-9]* *[1-9][0-9]* ' "$1")" -ge 3 ]; }
# Every demo consumer holds its connection slat.
six_users() { grep -qx 'users: 6' "$1"; }

# start_demo OUT: a demo of 40 s in the background, once all its consumers have
# taken their slats; $demo is its pid.
start_demo() {
    $EMULATOR "$AVPOOL" demo --seconds 40 --quiet >"$work/$1.out" 2>"$work/$1.err" &
    demo=$!
    background=$demo
    until_shown started 15 six_users "six users" infos
}

# stop_demo OUT: ends the demo with SIGINT; it reports and removes everything.
stop_demo() {
    kill -INT "$demo"
    wait_for "$demo" 15
    rc=$?
    background=""
    [ "$rc" = 130 ] || fail "demo ended by SIGINT exited $rc"
}

# expect_no_area PREFIX ARGS...: avpool ARGS finds no information area.
expect_no_area() {
    prefix=$1
    shift
    run "$prefix" 10 "$@"
    expect_rc "$prefix" 1 "$*"
    expect_error_line "$prefix" "avpool: no information area (key 0x490)"
    [ -s "$work/$prefix.out" ] && fail "avpool $* printed on stdout without an area"
    return 0
}

# stamp_of FILE: "NUMBER LENGTH" of a demo frame, after checking its stamp: the
# magic, its length against the file's, and the FNV-1a sum of its payload.
stamp_of() {
    od -An -v -t u1 "$1" | awk '
        function xor8(a, b,   r, bit) {
            r = 0
            for (bit = 1; bit < 256; bit *= 2)
                if ((a % (2 * bit) >= bit) != (b % (2 * bit) >= bit)) r += bit
            return r
        }
        function word(i) { return byte[i] + byte[i + 1] * 256 + byte[i + 2] * 65536 + byte[i + 3] * 16777216 }
        { for (i = 1; i <= NF; i++) byte[n++] = $i }
        END {
            if (n < 20 || word(0) != 826562113) { print "no stamp"; exit 1 }
            if (word(12) != n) { print "stamp says " word(12) " bytes, file has " n; exit 1 }
            h = 2166136261
            for (i = 20; i < n; i++) {
                low = h % 256
                h = h - low + xor8(low, byte[i])
                h = ((h % 256) * 16777216 + h * 403) % 4294967296
            }
            if (h != word(16)) { print "payload sum " h ", stamp says " word(16); exit 1 }
            print word(4) + word(8) * 4294967296, n
        }'
}

# until_file_has FILE PATTERN SECONDS
until_file_has() {
    waited=0
    until grep -q -- "$2" "$1" 2>/dev/null; do
        [ "$waited" -ge $(($3 * 10)) ] && fail "'$2' did not appear in $(basename "$1") within $3 s"
        sleep 0.1
        waited=$((waited + 1))
    done
}

# expect_no_pool CHANNEL KEY [KIND]
expect_no_pool() {
    kind=${3:-jpg}
    run nopool 10 stat "$kind" "$1"
    expect_rc nopool 1 "stat $kind $1"
    expect_error_line nopool "avpool: no $kind pool on channel $1 (key $2)"
}

# expect_no_fixed_pool KIND KEY: the one pool of a fixed-key kind is gone.
expect_no_fixed_pool() {
    run nopool 10 stat "$1"
    expect_rc nopool 1 "stat $1"
    expect_error_line nopool "avpool: no $1 pool (key $2)"
}

# The pools the demo adds beside the picture pools are gone.
expect_no_ring_pools() {
    expect_no_fixed_pool pcm 0x4a00
    expect_no_pool 0 0x4f00 aac
    expect_no_fixed_pool opus 0x5a00
    expect_no_pool 0 0x5000 amr
    expect_no_pool 0 0x4d00 lum
    expect_no_pool 0 0x4e00 md
}

# One consumer's row of the final table:
# name kind channel pace read skipped overwritten overtaken errors lag pid ended...
consumer_field() {
    awk -v name="$2" -v field="$3" '$1 == name && $2 ~ /^(jpg|mp4|pcm|aac|opus|amr|lum|md)$/ { value = $field }
        END { print value }' "$work/$1.out"
}

# A video consumer's closing line: "NAME: G GOPs read; overtaken: F frames
# overwritten, A GOPs too old, J GOP ID jumps; B jumps back to the working GOP".
# video_field OUT NAME PHRASE: the number in front of PHRASE in NAME's line.
video_field() {
    sed -n "s/^$2: \(.* \)*\([0-9][0-9]*\) $3[;,]* .*/\2/p" "$work/$1.out"
}

check_final_table() {
    out=$1
    for name in live-0 slow-0 live-1 slow-1 live-mp4 slow-mp4 live-pcm live-aac live-opus live-amr live-lum live-md; do
        read=$(consumer_field "$out" "$name" 5)
        errors=$(consumer_field "$out" "$name" 9)
        ended="$(consumer_field "$out" "$name" 12) $(consumer_field "$out" "$name" 13)"
        [ -n "$read" ] || fail "no row for $name in the final table"
        [ "$read" -gt 0 ] || fail "$name read no frame"
        [ "$errors" = 0 ] || fail "$name counted $errors damaged frames"
        [ "$ended" = "exit 0" ] || fail "$name ended with '$ended'"
        pid=$(consumer_field "$out" "$name" 11)
        kill -0 "$pid" 2>/dev/null && fail "consumer $name (pid $pid) outlived the demo"
    done
    return 0
}

# media DIR [audio]: generates the test media (only the audio files with
# "audio"), or skips the case (exit 77) without ffmpeg.
media() {
    sh "$MEDIA_SCRIPT" "$@" >"$work/media.log" 2>&1
    status=$?
    [ "$status" = 77 ] && { echo "SKIP [$case_name]: $(cat "$work/media.log")"; exit 77; }
    [ "$status" = 0 ] || fail "make-media.sh${2:+ $2} failed"
}

# probe FILE FORMAT: "frames,width,height" as ffprobe decodes them.
probe() {
    ffprobe -v error -f "$2" -count_frames -select_streams v:0 \
        -show_entries stream=nb_read_frames,width,height -of csv=p=0 "$1" |
        awk -F, '{ print $3 "," $1 "," $2 }'
}

# until_ls PREFIX SECONDS PATTERN: runs avpool ls until a line matches PATTERN.
ls_matches() { grep -qE -- "$ls_pattern" "$1"; }
until_ls() {
    ls_pattern=$3
    until_shown "$1" "$2" ls_matches "'$3'" ls
}

# roundtrip KIND FILE FORMAT FRAMES: puts FILE into channel 3, reads it back
# from the start and expects the same bytes and what ffprobe decodes.
roundtrip() {
    start_put "^$1 +3 " "$1" 3 "$2" --linger 3000
    run get 30 get "$1" 3 --since 60 --count "$4" -o "$work/out.$3"
    expect_rc get 0 "get $1 3"
    [ -s "$work/get.err" ] && fail "get $1 wrote to stderr"
    cmp "$2" "$work/out.$3" || fail "$1 stream read back differs from the file put"
    [ "$(probe "$work/out.$3" "$3")" = "$4,320,240" ] ||
        fail "ffprobe decodes $(probe "$work/out.$3" "$3") (frames,width,height), expected $4,320,240"
    wait_for "$producer" 20
    [ $? = 0 ] || fail "put $1 did not end with 0"
    run gone 10 stat "$1" 3
    expect_rc gone 1 "stat $1 3 after put ended"
}


# audio_probe FILE: "codec,rate,channels,frames" of the first audio stream as
# ffprobe decodes it.
audio_probe() {
    ffprobe -v error -count_frames -select_streams a:0 \
        -show_entries stream=codec_name,sample_rate,channels,nb_read_frames -of csv=p=0 "$1"
}

# samples_of WAV RAW FORMAT: the bytes of WAV's data chunk as ffmpeg demuxes them.
samples_of() {
    ffmpeg -nostdin -v error -y -i "$1" -map 0:a -c copy -f "$3" "$2" || fail "ffmpeg cannot read $1"
}

# le32 N, le16 N: the little-endian bytes of N as printf escapes.
le32() {
    printf '\\%03o\\%03o\\%03o\\%03o' $(($1 % 256)) $(($1 / 256 % 256)) $(($1 / 65536 % 256)) $(($1 / 16777216 % 256))
}
le16() {
    printf '\\%03o\\%03o' $(($1 % 256)) $(($1 / 256 % 256))
}

# wav_header CHANNELS RATE BITS DATA-SIZE: the 44 bytes get writes; a
# DATA-SIZE of "unknown" gives 0xFFFFFFFF as both sizes.
wav_header() {
    block=$(($1 * $3 / 8))
    if [ "$4" = unknown ]; then riff=4294967295 data=4294967295; else riff=$(($4 + 36)) data=$4; fi
    printf "RIFF$(le32 $riff)WAVEfmt $(le32 16)$(le16 1)$(le16 "$1")$(le32 "$2")$(le32 $(($2 * block)))$(le16 $block)$(le16 "$3")data$(le32 $data)"
}

# start_put PATTERN ARGS...: avpool put ARGS in the background ($producer),
# once avpool ls shows a line matching PATTERN.
start_put() {
    pattern=$1
    shift
    $EMULATOR "$AVPOOL" put "$@" >"$work/put.out" 2>"$work/put.err" &
    producer=$!
    background="$background $producer"
    until_ls ls 10 "$pattern"
}

# expect_ipc_empty: no pool segment or semaphore set is left.
expect_ipc_empty() {
    [ -z "$(ipcs -m | grep '0x0000')$(ipcs -s | grep '0x0000')" ] || fail "IPC objects left: $(ipcs)"
}

case $case_name in
demo)
    run demo 30 demo --seconds 5
    expect_rc demo 0 "demo --seconds 5"
    expect_line demo "result: ok"
    check_final_table demo
    # The slow readers are overtaken within five seconds and say so (the slow
    # video reader only once its GOP is more than 2 s old).
    for name in slow-0 slow-1 slow-mp4; do
        skipped=$(consumer_field demo "$name" 6)
        overtaken=$(consumer_field demo "$name" 8)
        [ "$skipped" -gt 0 ] || fail "$name skipped no frame"
        [ "$overtaken" -gt 0 ] || fail "$name was never overtaken"
    done
    # The live readers keep up: at most a hiccup of a loaded machine.
    for name in live-0 live-1 live-mp4 live-pcm live-aac live-opus live-amr live-lum live-md; do
        skipped=$(consumer_field demo "$name" 6)
        [ $((skipped * 10)) -lt "$(consumer_field demo "$name" 5)" ] || fail "$name skipped $skipped frames"
    done
    # The video readers go GOP by GOP: the live one reads more than three GOPs
    # in five seconds (30 frames each, every fifth cut short) without jumping;
    # the slow one is told its GOP is too old or its frames were overwritten,
    # and jumps back to the GOP being written.
    gops=$(video_field demo live-mp4 "GOPs read")
    [ -n "$gops" ] || fail "no closing line for live-mp4"
    [ "$gops" -gt 3 ] || fail "live-mp4 read $gops GOPs"
    [ "$(consumer_field demo live-mp4 5)" -ge $((gops * 18)) ] || fail "live-mp4 read too few frames for $gops GOPs"
    [ "$(video_field demo live-mp4 "jumps back")" -le 1 ] || fail "live-mp4 jumped back more than once"
    [ "$(video_field demo slow-mp4 "GOPs read")" -gt 0 ] || fail "slow-mp4 read no GOP"
    [ "$(video_field demo slow-mp4 "jumps back")" -gt 0 ] || fail "slow-mp4 never jumped back to the working GOP"
    [ $(($(video_field demo slow-mp4 "frames overwritten") + $(video_field demo slow-mp4 "GOPs too old") + $(video_field demo slow-mp4 "GOP ID jumps"))) \
        -gt 0 ] || fail "slow-mp4 names no way it was overtaken"
    # Not a terminal: one summary line per consumer and second, no escapes.
    [ "$(grep -c '^\[  1 s\] ' "$work/demo.out")" = 12 ] || fail "expected 12 summary lines for second 1"
    grep -q '^\[  1 s\] live-pcm  pcm -: read [0-9]*, skipped ' "$work/demo.out" || fail "no pcm summary line for second 1"
    grep -q '^\[  1 s\] live-opus opus -: read [0-9]*, skipped ' "$work/demo.out" || fail "no opus summary line for second 1"
    grep -q '^\[  1 s\] live-amr  amr 0: read [0-9]*, skipped ' "$work/demo.out" || fail "no amr summary line for second 1"
    grep -q '^\[  1 s\] live-mp4  mp4 0: read [0-9]*, gops [0-9]*, jumps ' "$work/demo.out" ||
        fail "no video summary line for second 1"
    grep -q "$(printf '\033')" "$work/demo.out" && fail "terminal escapes in redirected output"
    grep -q '^jpg 0  0x4c00     12   25   640x480 ' "$work/demo.out" || fail "pool jpg 0 row missing"
    grep -q '^mp4 0  0x4b00   8x30   30  1280x720 .*  I 30720\.\.61440, P 2048\.\.12288$' "$work/demo.out" ||
        fail "pool mp4 0 row missing"
    grep -qE '^pcm -  0x4a00    200    -    8000Hz +[0-9]+  2048\.\.2048, 1024 samples in 128 ms$' "$work/demo.out" ||
        fail "pool pcm row missing"
    grep -qE '^aac 0  0x4f00    200    -    8000Hz +[0-9]+  64\.\.512, 2048 samples in 256 ms, streamParam 0x1588$' \
        "$work/demo.out" || fail "pool aac 0 row missing"
    grep -qE '^opus - 0x5a00    200    -    8000Hz +[0-9]+  20\.\.512, 512 samples in 64 ms$' "$work/demo.out" ||
        fail "pool opus row missing"
    grep -qE '^amr 0  0x5000    200    -    8000Hz +[0-9]+  32\.\.1024, 2048 samples in 256 ms, streamParam 0xff, fragmentParam ID % 8$' \
        "$work/demo.out" || fail "pool amr 0 row missing"
    grep -qE '^lum 0  0x4d00      6   30     80x64 +[0-9]+  5120 samples$' "$work/demo.out" || fail "pool lum 0 row missing"
    grep -qE '^md 0   0x4e00      5   30     64x48 +[0-9]+  2 x 3072 elements, vibration 42$' "$work/demo.out" ||
        fail "pool md 0 row missing"
    # The audio pools put one fragment per fragment time (pcm 128 ms, opus
    # 64 ms, aac and amr 256 ms), the analysis pools 30 records a second: five
    # seconds and at most two of grace while the consumers stop.
    put_of() { awk -v kind="$1" '$1 == kind && $3 ~ /^0x/ { print $7 }' "$work/demo.out"; }
    for entry in pcm:30:56 aac:15:28 opus:60:112 amr:15:28 lum:120:215 md:120:215; do
        kind=${entry%%:*} range=${entry#*:}
        put=$(put_of "$kind")
        [ "$put" -ge "${range%:*}" ] && [ "$put" -le "${range#*:}" ] || fail "$kind pool was given $put elements"
    done
    # Each ring reader read most of what was put.
    for entry in live-pcm:pcm live-aac:aac live-opus:opus live-amr:amr live-lum:lum live-md:md; do
        name=${entry%%:*}
        put=$(put_of "${entry#*:}")
        [ $(($(consumer_field demo "$name" 5) * 10)) -ge $((put * 8)) ] || fail "$name read too few of $put"
    done
    # Each consumer held one unit while it ran and gave it back.
    expect_line demo "connections: peak 6 of 10 units, 0 at the end"
    expect_no_pool 0 0x4c00
    expect_no_pool 1 0x4c01
    expect_no_pool 0 0x4b00 mp4
    expect_no_ring_pools
    expect_no_area area infos
    ;;

stat-missing)
    expect_no_pool 7 0x4c07
    [ -s "$work/nopool.out" ] && fail "stat printed on stdout for a missing pool"
    expect_no_pool 200 0x4cc8
    expect_no_pool 3 0x4b03 mp4
    [ -s "$work/nopool.out" ] && fail "stat mp4 printed on stdout for a missing pool"
    expect_no_pool 255 0x4bff mp4
    expect_no_fixed_pool pcm 0x4a00
    expect_no_fixed_pool opus 0x5a00
    expect_no_pool 0 0x4f00 aac
    expect_no_pool 2 0x5002 amr
    [ -s "$work/nopool.out" ] && fail "stat amr printed on stdout for a missing pool"
    expect_no_pool 5 0x4d05 lum
    expect_no_pool 255 0x4eff md
    run nopool 10 stat opus 0
    expect_error_line nopool "avpool: no opus pool (key 0x5a00)"
    ;;

usage)
    run u 10 stat jpg x
    expect_rc u 2 "stat jpg x"
    expect_error_line u "avpool: stat: channel must be an integer, not 'x'"
    run u 10 stat jpg 3x
    expect_error_line u "avpool: stat: channel must be an integer, not '3x'"
    run u 10 stat jpg 256
    expect_error_line u "avpool: stat: channel must be between 0 and 255, not 256"
    run u 10 stat mov 1
    expect_rc u 2 "stat mov 1"
    expect_error_line u "avpool: stat: unknown pool kind 'mov' (known: jpg, mp4, pcm, aac, amr, opus, lum, md)"
    for kind in jpg aac md; do
        run u 10 stat $kind
        expect_rc u 2 "stat $kind"
        expect_error_line u "avpool: stat: expected a pool kind and a channel; usage: avpool stat KIND [CHANNEL] [--last N]"
    done
    # pcm and opus have one pool each: no channel but 0.
    run u 10 stat pcm 1
    expect_rc u 2 "stat pcm 1"
    expect_error_line u "avpool: stat: pcm has one pool under a fixed key and no channel 1"
    run u 10 stat opus 7
    expect_rc u 2 "stat opus 7"
    expect_error_line u "avpool: stat: opus has one pool under a fixed key and no channel 7"
    run u 10 stat pcm 0 1
    expect_rc u 2 "stat pcm 0 1"
    run u 10 stat aac 0 --last 201
    expect_rc u 2 "stat aac 0 --last 201"
    expect_error_line u "avpool: stat: --last must be between 0 and 200, not 201"
    run u 10 frobnicate
    expect_rc u 2 "frobnicate"
    expect_error_line u "avpool: no verb 'frobnicate'; see 'avpool --help'"
    run u 10
    expect_rc u 2 "(no verb)"
    expect_error_line u "avpool: no verb given; see 'avpool --help'"
    run u 10 demo --seconds 0
    expect_rc u 2 "demo --seconds 0"
    expect_error_line u "avpool: demo: --seconds must be between 1 and 86400, not 0"
    run u 10 demo --seconds
    expect_error_line u "avpool: demo: option --seconds needs a value N"
    run u 10 demo --loud
    expect_error_line u "avpool: demo: unknown option '--loud'; see 'avpool demo --help'"
    run u 10 demo --quiet=yes
    expect_error_line u "avpool: demo: option --quiet takes no value"
    # The fixed opus locks are aac 176's: such a demo would take its own locks away.
    run u 10 demo --channel 176 --seconds 1
    expect_rc u 1 "demo --channel 176"
    expect_error_line u \
        "avpool: demo: on channel 176 the aac and opus pools would keep their locks under one key, 0x5a00; choose other channels with --channel"

    run u 10 infos extra
    expect_rc u 2 "infos extra"
    expect_error_line u "avpool: infos: expected no arguments besides options; usage: avpool infos [--key K]"
    run u 10 infos --key 0
    expect_rc u 2 "infos --key 0"
    expect_error_line u "avpool: infos: --key must be between 1 and 2147483647, not 0"
    run u 10 users
    expect_rc u 2 "users"
    expect_error_line u "avpool: users: expected an action; usage: avpool users add NAME INFO | del SLAT | list"
    run u 10 users kick 3
    expect_rc u 2 "users kick 3"
    expect_error_line u "avpool: users: unknown action 'kick' (known: add, del, list)"
    run u 10 users add alice
    expect_rc u 2 "users add alice"
    expect_error_line u "avpool: users: expected add NAME INFO; usage: avpool users add NAME INFO | del SLAT | list"
    run u 10 users add abcdefghijklmnopqrstuvwxyz123456 x
    expect_rc u 2 "users add with a 32-byte name"
    expect_error_line u "avpool: users add: NAME must be at most 31 bytes, not 32"
    run u 10 users del 10
    expect_rc u 2 "users del 10"
    expect_error_line u "avpool: users del: SLAT must be between 0 and 9, not 10"
    run u 10 users list all
    expect_rc u 2 "users list all"
    run u 10 snapshot 5 "$work/x.jpg"
    expect_rc u 2 "snapshot 5"
    expect_error_line u "avpool: snapshot: profile must be between 0 and 4, not 5"
    run u 10 snapshot 0
    expect_rc u 2 "snapshot 0"
    expect_error_line u "avpool: snapshot: expected a profile and a file; usage: avpool snapshot PROFILE FILE"

    run h 10 --help
    expect_rc h 0 "--help"
    for verb in demo infos snapshot stat users; do
        grep -q "^  $verb " "$work/h.out" || fail "--help does not list $verb"
    done
    for verb in demo infos snapshot stat users; do
        run h 10 "$verb" --help
        expect_rc h 0 "$verb --help"
        grep -q "^usage: avpool $verb" "$work/h.out" || fail "$verb --help has no usage line"
        [ -s "$work/h.err" ] && fail "$verb --help wrote to stderr"
        run h2 10 help "$verb"
        cmp -s "$work/h.out" "$work/h2.out" || fail "'help $verb' differs from '$verb --help'"
    done
    ;;

live-pool)
    $EMULATOR "$AVPOOL" demo --seconds 8 --quiet >"$work/live.out" 2>"$work/live.err" &
    demo=$!
    background=$demo
    # Both consumers of channel 0 attach after the producer: 3 attachments in
    # all. Wait for that and for the ring to have gone round once (no slot
    # left unwritten).
    until_stat s0 jpg 0 4 jpg_ring_full "3 attachments and a full ring"
    expect_line s0 "jpg pool, channel 0"
    expect_line s0 "key:              0x4c00 (19456)"
    expect_line s0 "size:             262940"
    expect_line s0 "creator pid:      $demo"
    expect_line s0 "frameCount:       12"
    expect_line s0 "maxFrameSize:     65536"
    expect_line s0 "realFPS:          25"
    expect_line s0 "workingFPS:       25"
    expect_line s0 "picture:          640 x 480"
    expect_line s0 "framePrefixSize:  8"
    expect_line s0 "safeTimeOffset:   172"
    expect_line s0 "frameInfoOffset:  220"
    expect_line s0 "dataOffset:       796"
    expect_line s0 "RawDataLen:       262144"
    # The ring has wrapped: every slot i holds a frame whose number is i modulo
    # 12, the newest (*) is the header's current slot and has the highest
    # number, lengths lie in the producer's range, locks are 0 or 1. The stat
    # is a snapshot of a pool in motion (the writer may fill a slot between
    # the header and the slots), so a few tries.
    now=$(date +%s)
    tries=0
    until awk -v now="$now" '
        /^current:/ { current = $2 }
        /^[* ] +[0-9]+ +[0-9]+ +[0-9]+\.[0-9]+ / {
            star = substr($0, 1, 1) == "*"
            if (star) { $0 = substr($0, 2) }
            slot = $1; id = $2; split($3, t, "."); length_ = $4; lock = $7
            rows++
            if (id % 12 != slot) { print "slot " slot " holds frame " id; bad = 1 }
            if (length_ < 2048 || length_ > 65536) { print "slot " slot " length " length_; bad = 1 }
            if (lock != 0 && lock != 1) { print "slot " slot " lock " lock; bad = 1 }
            if (t[1] < now - 10 || t[1] > now + 1) { print "slot " slot " captured at " t[1]; bad = 1 }
            if (id > newest) { newest = id; newestSlot = slot }
            if (star) { stars++; starSlot = slot }
        }
        END {
            if (rows != 12) { print rows " slot rows"; bad = 1 }
            if (stars != 1 || starSlot != current || newestSlot != current) {
                print "newest slot " newestSlot ", marked " starSlot ", current " current; bad = 1
            }
            exit bad
        }' "$work/s0.out" >"$work/slots.err"; do
        tries=$((tries + 1))
        [ "$tries" -ge 5 ] && fail "slot table of channel 0: $(cat "$work/slots.err")"
        run s0 10 stat jpg 0
    done

    run s1 10 stat jpg 1
    expect_rc s1 0 "stat jpg 1"
    expect_line s1 "key:              0x4c01 (19457)"
    expect_line s1 "frameCount:       8"
    expect_line s1 "picture:          320 x 240"
    expect_line s1 "frameInfoOffset:  204"
    expect_line s1 "dataOffset:       588"

    # The video pool: producer and both video consumers attached, a few GOPs
    # written, every header value exact.
    until_stat m0 mp4 0 8 mp4_gops_written "3 attachments and three GOPs written"
    expect_line m0 "mp4 pool, channel 0"
    expect_line m0 "key:              0x4b00 (19200)"
    expect_line m0 "size:             667892"
    expect_line m0 "creator pid:      $demo"
    expect_line m0 "gopCount:         8"
    expect_line m0 "framesPerGop:     30"
    expect_line m0 "maxFrameSize:     61440"
    expect_line m0 "realFPS:          30"
    expect_line m0 "workingFPS:       30"
    expect_line m0 "picture:          1280 x 720"
    expect_line m0 "oneSafeTime:      1000"
    expect_line m0 "framePrefixSize:  8"
    expect_line m0 "safeTimeOffset:   52"
    expect_line m0 "frameInfoOffset:  1012"
    expect_line m0 "dataOffset:       12532"
    expect_line m0 "RawDataLen:       655360"
    expect_line m0 "lock group 0:     key 0x4b00 (19200)"
    grep -qx ' *semaphore set [0-9]*, 240 semaphores' "$work/m0.out" || fail "no set of 240 semaphores in stat mp4"
    grep -q '^lock group 1:' "$work/m0.out" && fail "stat mp4 shows a second lock group for 240 slots"
    # Per GOP: one writer's GOP (*), the header's workingGop, with the highest
    # gopID; gopID g sits in GOP g mod 8; safe times count whole GOPs ahead of
    # the writer, 0 for the GOP just finished; in a written GOP, slot k of the
    # GOP's own frames holds frame first + k, an I frame in slot 0 and P frames
    # after it. The stat is a snapshot of a pool in motion, so a few tries.
    now=$(date +%s)
    tries=0
    until awk -v now="$now" '
        /^workingGop:/ { working = $2 }
        /^[* ] GOP / {
            star = substr($0, 1, 1) == "*"; $0 = substr($0, 2)
            gop = $2; id = $4; safe = $6; split($9, t, ".")
            gops++; k = 0
            if (star) { stars++; starGop = gop }
            if (id > newest) { newest = id; newestGop = gop }
            expected = gop == (working + 7) % 8 ? 0 : ((gop - working + 8) % 8) * 1000
            if (safe != expected) { print "GOP " gop " safe " safe ", expected " expected; bad = 1 }
            if (id > 0 && id % 8 != gop) { print "gopID " id " in GOP " gop; bad = 1 }
            if (id > 0 && (t[1] < now - 15 || t[1] > now + 1)) { print "GOP " gop " captured at " t[1]; bad = 1 }
            written = id > 0
            next
        }
        gops > 0 && /^  / {
            for (i = 1; i + 3 <= NF; i += 4) {
                slot = $i; frame = $(i + 1); size = $(i + 2)
                lock = substr($(i + 3), 1, 1); mark = substr($(i + 3), 2, 1)
                if (lock != 0 && lock != 1) { print "GOP " gop " slot " slot " lock " lock; bad = 1 }
                if (!written || mark != "") continue
                if (slot == 0) first = frame
                if (frame != first + slot) { print "GOP " gop " slot " slot " holds frame " frame; bad = 1 }
                if (slot == 0 && (size < 30720 || size > 61440)) { print "GOP " gop " I frame " size; bad = 1 }
                if (slot > 0 && (size < 2048 || size > 12288)) { print "GOP " gop " slot " slot " " size; bad = 1 }
                cells++
            }
        }
        END {
            if (gops != 8) { print gops " GOP lines"; bad = 1 }
            if (stars != 1 || starGop != working || newestGop != working) {
                print "newest GOP " newestGop ", marked " starGop ", working " working; bad = 1
            }
            if (cells < 60) { print "only " cells " frames of written GOPs"; bad = 1 }
            exit bad
        }' "$work/m0.out" >"$work/gops.err"; do
        tries=$((tries + 1))
        [ "$tries" -ge 5 ] && fail "GOP table of mp4 channel 0: $(cat "$work/gops.err")"
        run m0 10 stat mp4 0
    done

    # A second demo on the same channels must not take the pools away.
    run busy 10 demo --seconds 1
    expect_rc busy 1 "demo on busy channels"
    expect_error_line busy \
        "avpool: demo: the jpg pool on channel 0 belongs to running pid $demo; choose other channels with --channel"

    # Next to it on other channels is fine.
    run beside 30 demo --seconds 1 --channel 2 --quiet
    expect_rc beside 0 "demo --channel 2 beside a running demo"
    grep -q '^jpg 3  0x4c03 ' "$work/beside.out" || fail "demo --channel 2 did not use channels 2 and 3"
    # So have the pcm and opus pools: the first demo keeps them and their readers.
    expect_line beside "pcm -  0x4a00   not run: the pool belongs to running pid $demo"
    expect_line beside "opus - 0x5a00   not run: the pool belongs to running pid $demo"
    grep -qE '^(live-pcm|live-opus) ' "$work/beside.out" && fail "demo --channel 2 ran a reader of a pool it left alone"
    grep -qE '^amr 2  0x5002    200 ' "$work/beside.out" || fail "demo --channel 2 did not feed amr 2"
    grep -qE '^live-amr  amr 2 +live +[1-9][0-9]* +[0-9]+ +[0-9]+ +[0-9]+ +0 ' "$work/beside.out" ||
        fail "live-amr of demo --channel 2 read nothing or found errors"
    # The information area has one key for all: the first demo keeps it.
    expect_line beside "connections: not counted, the information area belongs to running pid $demo"
    run area 10 infos
    expect_rc area 0 "infos after a second demo"
    expect_line area "currentTotalConnections: 6"

    wait_for "$demo" 20
    rc=$?
    background=""
    [ "$rc" = 0 ] || fail "the demo under inspection exited $rc"
    cp "$work/live.out" "$work/final.out"
    check_final_table final
    expect_no_pool 0 0x4c00
    ;;

interrupt)
    # SIGINT and SIGTERM end the demo early with a report; pools and consumer
    # processes are gone afterwards.
    for sig in INT TERM; do
        out=int-$sig
        $EMULATOR "$AVPOOL" demo --seconds 60 >"$work/$out.out" 2>"$work/$out.err" &
        demo=$!
        background=$demo
        until_file_has "$work/$out.out" '^\[  1 s\] slow-mp4' 15
        kill -"$sig" "$demo"
        wait_for "$demo" 15
        rc=$?
        background=""
        case $sig in INT) number=2 ;; TERM) number=15 ;; esac
        [ "$rc" = $((128 + number)) ] || fail "demo ended by SIG$sig exited $rc"
        grep -qx "result: interrupted by signal $number" "$work/$out.out" || fail "no interrupted result after SIG$sig"
        check_final_table "$out"
        expect_line "$out" "connections: peak 6 of 10 units, 0 at the end"
        expect_no_pool 0 0x4c00
        expect_no_pool 1 0x4c01
        expect_no_pool 0 0x4b00 mp4
        expect_no_area area infos
    done
    ;;

infos-missing)
    # Without an information area every verb on it says so in one line.
    expect_no_area i infos
    run i 10 infos --key 4242
    expect_rc i 1 "infos --key 4242"
    expect_error_line i "avpool: no information area (key 0x1092)"
    expect_no_area u users list
    expect_no_area u users add alice "front door"
    expect_no_area u users del 0
    expect_no_area s snapshot 0 "$work/none.jpg"
    [ -e "$work/none.jpg" ] && fail "snapshot without an area created its file"
    ;;

infos)
    # A live demo's area: the area's counts, each profile in full, and one
    # user per consumer.
    start_demo live
    run i 10 infos --key 1169
    expect_rc i 1 "infos --key 1169"
    expect_error_line i "avpool: no information area (key 0x491)"
    run i 10 infos
    expect_rc i 0 "infos"
    [ -s "$work/i.err" ] && fail "infos wrote to stderr"
    expect_line i "information area, key 0x490 (1168)"
    expect_line i "sizeofPools:      3"
    expect_line i "maxConn:          10"
    expect_line i "currentTotalConnections: 6"
    expect_line i "budget:           6 of 10 units taken"
    # profile_block N: the lines of profile N up to the next blank line.
    profile_block() { sed -n "/^profile $1\$/,/^\$/p" "$work/i.out" | sed '/^$/d'; }
    profile_block 0 >"$work/p0.txt"
    cat >"$work/p0.expected" <<'END'
profile 0
state:            2
channel:          0
infoParam3:       1
width:            640
height:           480
videoParam3:      25
audioParam1:      0
audioParam2:      0
audioParam3:      0
audioFrameDuration: 0
sharedMemSize:    262940
sslWeight:        3
sdpHeader:        m=video 0 RTP/AVP 26
                  a=rtpmap:26 JPEG/90000
                  a=framerate:25
spsSize:          0
sps:              -
ppsSize:          0
pps:              -
volSize:          0
vol:              -
END
    cmp -s "$work/p0.txt" "$work/p0.expected" || fail "profile 0: $(diff "$work/p0.expected" "$work/p0.txt")"
    profile_block 1 >"$work/p1.txt"
    for line in "channel:          1" "infoParam3:       1" "width:            320" "height:           240" \
        "videoParam3:      10" "sharedMemSize:    98892" "sslWeight:        3" "                  a=framerate:10"; do
        grep -qxF "$line" "$work/p1.txt" || fail "no line '$line' for profile 1"
    done
    # The video profile: its pool's channel, no JPEG mark, a 1280 x 720 client
    # weighs 4; the VOL's bytes are the config of its SDP header.
    profile_block 2 >"$work/p2.txt"
    for line in "state:            2" "channel:          0" "infoParam3:       0" "width:            1280" \
        "height:           720" "videoParam3:      30" "sharedMemSize:    667892" "sslWeight:        4" \
        "audioParam1:      16" "audioParam2:      1" "audioParam3:      8000" "audioFrameDuration: 256" \
        "sdpHeader:        m=video 0 RTP/AVP 96" "                  a=rtpmap:96 MP4V-ES/90000" \
        "spsSize:          0" "ppsSize:          0"; do
        grep -qxF "$line" "$work/p2.txt" || fail "no line '$line' for profile 2"
    done
    config=$(sed -n 's/^ *a=fmtp:96 profile-level-id=3;config=\([0-9A-F]*\)$/\1/p' "$work/p2.txt" | tr A-F a-f)
    vol=$(sed -n 's/^vol: *//p' "$work/p2.txt")
    size=$(sed -n 's/^volSize: *//p' "$work/p2.txt")
    [ -n "$config" ] && [ "$vol" = "$config" ] || fail "vol '$vol' is not the SDP config '$config'"
    [ "${#vol}" = $((size * 2)) ] || fail "vol has ${#vol} hex digits for volSize $size"
    case $vol in 000001b003*) ;; *) fail "vol does not open a simple-profile level 3 sequence: $vol" ;; esac
    grep -q '^profile 3$' "$work/i.out" && fail "infos shows an unpublished profile"
    # Users: one per consumer in slats 0 to 5 (in the order they came), each
    # of type 1 and weight 1, named after itself and its pool, with the pid of
    # a running consumer; listed in slat order.
    expect_line i "users: 6"
    for entry in live-0:jpg:0 slow-0:jpg:0 live-1:jpg:1 slow-1:jpg:1 live-mp4:mp4:0 slow-mp4:mp4:0; do
        name=${entry%%:*} pool=${entry#*:}
        kind=${pool%:*} channel=${pool#*:}
        row=$(grep -E "^ +[0-5] +1 +1  [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}  $name +$kind $channel, pid [0-9]+\$" \
            "$work/i.out") || fail "no user row for $name"
        kill -0 "${row##* }" 2>/dev/null || fail "user $name names pid ${row##* }, which does not run"
    done
    slats=$(sed -n '/^users: /,$p' "$work/i.out" | awk '$1 ~ /^[0-9]+$/ { printf "%s ", $1 }')
    [ "$slats" = "0 1 2 3 4 5 " ] || fail "users listed in slats '$slats'"
    stop_demo live
    expect_line live "connections: peak 6 of 10 units, 0 at the end"
    expect_no_area i infos
    ;;

users)
    # The active-user table against a live area, then a user left behind
    # when the demo ends.
    start_demo live
    export TZ=UTC0
    run l 10 users list
    expect_rc l 0 "users list"
    [ "$(wc -l <"$work/l.out")" = 6 ] || fail "users list shows $(wc -l <"$work/l.out") lines for six consumers"
    grep -qE '^ +[0-5] +1 +1  [0-9-]+ [0-9:]+  slow-mp4 +mp4 0, pid [0-9]+$' "$work/l.out" || fail "no line for slow-mp4"
    before=$(date +%s)
    run a 10 users add alice "front door"
    after=$(date +%s)
    expect_rc a 0 "users add alice"
    [ "$(cat "$work/a.out")" = 6 ] || fail "users add printed '$(cat "$work/a.out")', not slat 6"
    # The name is the slat's userName, the info its userInfo; type 4, weight 1.
    run l 10 users list
    [ "$(wc -l <"$work/l.out")" = 7 ] || fail "users list shows $(wc -l <"$work/l.out") lines after an add"
    row=$(grep -E '^ +6 +4 +1  [0-9-]+ [0-9:]+  alice +front door$' "$work/l.out") || fail "no line for alice"
    login=$(echo "$row" | awk '{ print $4 " " $5 }')
    seconds=$(date -u -d "$login" +%s)
    [ "$seconds" -ge "$before" ] && [ "$seconds" -le "$after" ] || fail "alice logged in at $login, not between $before and $after"
    # Local time: two hours east shows the same login two hours later.
    TZ=XYZ-2
    run l2 10 users list
    TZ=UTC0
    grep -qF "$(date -u -d "@$((seconds + 7200))" '+%Y-%m-%d %H:%M:%S')  alice" "$work/l2.out" ||
        fail "login time not shown in local time"
    run i 10 infos
    expect_line i "currentTotalConnections: 7"
    expect_line i "users: 7"
    # Up to the budget of 10 units, then refused with the library's own line.
    for name in bob carol dave; do
        run a 10 users add "$name" "door $name"
        expect_rc a 0 "users add $name"
    done
    [ "$(cat "$work/a.out")" = 9 ] || fail "the fourth active user got slat $(cat "$work/a.out")"
    run a 10 users add eve "back door"
    expect_rc a 1 "users add beyond the budget"
    expect_error_line a "Add_Active_User failed: no more slat."
    [ -s "$work/a.out" ] && fail "a refused add printed a slat"
    for slat in 7 8 9 6; do
        run d 10 users del "$slat"
        expect_rc d 0 "users del $slat"
        [ -s "$work/d.out" ] || [ -s "$work/d.err" ] && fail "users del $slat printed something"
    done
    run d 10 users del 7
    expect_rc d 1 "users del of a free slat"
    expect_error_line d "avpool: users del: slat 7 is not in use"
    run l 10 users list
    [ "$(wc -l <"$work/l.out")" = 6 ] || fail "users list shows $(wc -l <"$work/l.out") lines after the deletes"
    grep -q alice "$work/l.out" && fail "alice still listed"
    run i 10 infos
    expect_line i "currentTotalConnections: 6"
    # A user still there when the demo ends: its unit is still taken.
    run a 10 users add zed "left over"
    [ "$(cat "$work/a.out")" = 6 ] || fail "slat 6 was not free again"
    stop_demo live
    # The demo samples the units taken as it produces: it saw alice at least.
    grep -qxE "connections: peak (7|8|9|10) of 10 units, 1 at the end" "$work/live.out" ||
        fail "no connections line with a peak of 7 to 10 and 1 unit at the end"
    expect_line live "FAILED: 1 connection unit still taken at the end"
    expect_line live "result: interrupted by signal 2, with failures"
    expect_no_area l users list
    ;;

snapshot)
    # The newest picture of each JPEG profile, byte for byte a frame the
    # producer stamped, and one the pool still holds or just replaced.
    start_demo live
    for entry in 0:0:12:2048:65536 1:1:8:512:16384; do
        profile=${entry%%:*} rest=${entry#*:}
        channel=${rest%%:*} rest=${rest#*:}
        slots=${rest%%:*} rest=${rest#*:}
        min=${rest%%:*} max=${rest#*:}
        file="$work/p$profile.jpg"
        run s 10 snapshot "$profile" "$file"
        expect_rc s 0 "snapshot $profile"
        run st 10 stat jpg "$channel"
        stamp_of "$file" >"$work/stamp.txt" || fail "picture of profile $profile: $(cat "$work/stamp.txt")"
        read -r number length <"$work/stamp.txt"
        expect_line s "$length bytes of profile $profile (jpg pool on channel $channel) written to $file"
        [ "$length" -ge "$min" ] && [ "$length" -le "$max" ] || fail "profile $profile picture of $length bytes"
        # The pool's newest frame at most two seconds on; if the slot still
        # holds the picture, with the same length.
        awk -v number="$number" -v length_="$length" -v slots="$slots" -v rate="$((max == 65536 ? 25 : 10))" '
            /^[* ] +[0-9]+ +[0-9]+ +[0-9]+\.[0-9]+ / {
                if (substr($0, 1, 1) == "*") { $0 = substr($0, 2); newest = $2 }
                if ($2 == number && $4 != length_) { print "slot holds it with " $4 " bytes"; bad = 1 }
            }
            END {
                if (newest < number || newest > number + 2 * rate) { print "newest frame " newest ", picture " number; bad = 1 }
                exit bad
            }' "$work/st.out" >"$work/check.txt" || fail "profile $profile: $(cat "$work/check.txt")"
    done
    run s 10 snapshot 2 "$work/p2.jpg"
    expect_rc s 1 "snapshot of the video profile"
    expect_error_line s "avpool: snapshot: profile 2 is not a streaming JPEG profile (state 2, infoParam3 0)"
    run s 10 snapshot 3 "$work/p3.jpg"
    expect_rc s 1 "snapshot of an unpublished profile"
    expect_error_line s "avpool: snapshot: profile 3 is not published (sizeofPools 3)"
    run s 10 snapshot 0 "$work/no/such/dir.jpg"
    expect_rc s 1 "snapshot into a missing directory"
    expect_error_line s "avpool: snapshot: cannot write $work/no/such/dir.jpg: No such file or directory"
    stop_demo live
    expect_no_area s snapshot 0 "$work/late.jpg"
    ;;

terminal)
    # On a terminal the summary is one table redrawn in place.
    command -v script >/dev/null || { echo "SKIP: no script(1) to give the demo a terminal"; exit 77; }
    timeout -k 2 30 script -qec "$EMULATOR $AVPOOL demo --seconds 3 2>/dev/null" /dev/null >"$work/tty.out" </dev/null
    echo $? >"$work/tty.rc"
    expect_rc tty 0 "demo on a terminal"
    grep -q "$(printf '\033')\[14A" "$work/tty.out" || fail "the table is not redrawn (no cursor-up by its 14 lines)"
    grep -q '^\[  1 s\]' "$work/tty.out" && fail "line-per-second output on a terminal"
    tr -d '\r' <"$work/tty.out" | grep -qx "result: ok" || fail "no final result on the terminal"
    ;;

crash)
    # A demo killed outright leaves its pools behind; its consumers die with
    # it, and the next demo takes the stale pools over.
    $EMULATOR "$AVPOOL" demo --seconds 60 >"$work/crash.out" 2>"$work/crash.err" &
    demo=$!
    background=$demo
    until_file_has "$work/crash.out" '^\[  1 s\] slow-mp4' 15
    kill -KILL "$demo"
    wait_for "$demo" 10
    background=""
    until_stat left jpg 0 5 nobody_attached "its consumers gone 5 s after the producer died"
    expect_line left "creator pid:      $demo"
    until_stat left mp4 0 5 nobody_attached "its consumers gone 5 s after the producer died"
    expect_line left "creator pid:      $demo"
    # Consumers killed with it held their slats with automatic return: the
    # budget takes them back as soon as it is next used. The pictures left in
    # the pool can still be taken.
    run stale 10 infos
    expect_rc stale 0 "infos after a crash"
    expect_line stale "currentTotalConnections: 0"
    expect_line stale "users: 0"
    # The audio and analysis pools stay behind too, their producer gone.
    for pool in "pcm" "aac 0" "opus" "amr 0" "lum 0" "md 0"; do
        run left 10 stat $pool
        expect_rc left 0 "stat $pool after a crash"
        expect_line left "creator pid:      $demo"
    done
    run snap 10 snapshot 0 "$work/stale.jpg"
    expect_rc snap 0 "snapshot 0 of a crashed demo"
    stamp_of "$work/stale.jpg" >"$work/stamp.txt" || fail "picture left by the crash: $(cat "$work/stamp.txt")"
    # The next demo makes the area afresh.
    run again 30 demo --seconds 2
    expect_rc again 0 "demo after a crashed one"
    check_final_table again
    expect_line again "connections: peak 6 of 10 units, 0 at the end"
    expect_no_pool 0 0x4c00
    expect_no_pool 0 0x4b00 mp4
    expect_no_ring_pools
    expect_no_area area infos
    ;;

stat-rings)
    # The audio and analysis pools of a live demo: exact headers, and slots
    # that hold what the producer put.
    start_demo live
    now=$(date +%s)
    # audio_header OUT TITLE KEY SIZE FORMAT MS EXTRAS: the exact header of an
    # audio pool (mono at 8 kHz), one set of 200 locks under its key, safe
    # times of MS a slot from the next to be overwritten round to the newest,
    # and the fragment table's columns, EXTRAS after the lock.
    audio_header() {
        key=$(printf '0x%x (%d)' "$3" "$3")
        for line in "$2" "key:              $key" "size:             $4" "creator pid:      $demo" \
            "workingFormat:    $5" "workingChannels:  1" "workingRate:      8000" "lock group 0:     key $key"; do
            expect_line "$1" "$line"
        done
        grep -qx ' *semaphore set [0-9]*, 200 semaphores' "$work/$1.out" || fail "no set of 200 semaphores in $1"
        current=$(sed -n 's/^current: *//p' "$work/$1.out")
        expect_line "$1" \
            "safeTime ms:      slots $(((current + 1) % 200))-$(((current + 199) % 200)): $6..$(($6 * 199)) (+$6); slot $current: 0"
        grep -qE "^  slot +fragmentID +captured +length +format +channels +rate +samples +safe ms +lock$7\$" \
            "$work/$1.out" || fail "the fragment table of $1 lacks its columns$7"
    }
    # settle OUT CHECK ARGS...: stat sees a pool in motion and can catch the
    # writer between the header and a slot; runs `avpool ARGS` again (at most
    # five times) until CHECK accepts its output, then lets CHECK judge the last.
    settle() {
        settle_out=$1 settle_check=$2
        shift 2
        settle_tries=0
        until ("$settle_check") >/dev/null 2>&1; do
            settle_tries=$((settle_tries + 1))
            [ "$settle_tries" -ge 5 ] && break
            run "$settle_out" 10 "$@"
        done
        "$settle_check"
    }

    until_shown pcm 10 ring_running "the producer, its reader and three fragments" stat pcm
    pcm_header() { audio_header pcm "pcm pool" 18944 420016 16 128 ""; }
    settle pcm pcm_header stat pcm
    # ring_rows FILE SLOTS LENGTH-RANGE EXTRAS: every listed slot holds the
    # fragment its ID puts there, IDs run on by one, the newest (*) is the
    # header's current, capture times are recent and rise.
    ring_rows() {
        awk -v now="$now" -v slots="$2" -v min="${3%-*}" -v max="${3#*-}" -v extras="$4" '
            /^current:/ { current = $2 }
            /^[* ] +[0-9]+ +[1-9][0-9]* +[0-9]+\.[0-9]+ / {
                star = substr($0, 1, 1) == "*"
                if (star) { $0 = substr($0, 2); stars++; starSlot = $1 }
                rows++
                if ($2 % slots != $1) { print "slot " $1 " holds " $2; bad = 1 }
                if (previous != "" && $2 != previous + 1) { print "fragment " $2 " after " previous; bad = 1 }
                if ($3 + 0 < previousTime) { print "fragment " $2 " captured before " previous; bad = 1 }
                split($3, t, "."); if (t[1] < now - 15 || t[1] > now + 15) { print "captured at " $3; bad = 1 }
                if ($4 < min || $4 > max) { print "fragment " $2 " of " $4 " bytes"; bad = 1 }
                rest = ""; for (i = 5; i <= NF; i++) rest = rest " " $i
                if (substr(rest, 1, length(extras)) != extras) { print "fragment " $2 ":" rest; bad = 1 }
                previous = $2; previousTime = $3 + 0
            }
            END {
                if (rows < 3) { print rows " rows"; bad = 1 }
                if (stars != 1 || starSlot != current) { print "newest marked in slot " starSlot ", current " current; bad = 1 }
                exit bad
            }' "$work/$1.out" >"$work/rows.err" || fail "slots of $1: $(cat "$work/rows.err")"
    }
    pcm_rows() {
        ring_rows pcm0 200 2048-2048 " 16 1 8000 1024"
        grep -qx 'written slots: [0-9]* of 200, the newest [0-9]* shown (--last N)' "$work/pcm0.out" ||
            fail "no written-slots line"
    }
    run pcm0 10 stat pcm 0 --last 200
    expect_rc pcm0 0 "stat pcm 0"
    settle pcm0 pcm_rows stat pcm 0 --last 200

    until_stat aac aac 0 10 ring_running "the producer, its reader and three fragments"
    aac_checks() {
        audio_header aac "aac pool, channel 0" 20224 112816 16 256 " +streamParam"
        # The streamParam (0x1588) comes after the safe time and the lock.
        ring_rows aac 200 64-512 " 16 1 8000 2048"
        awk '/^[* ] +[0-9]+ +[1-9]/ && $NF != 5512 { exit 1 }' "$work/aac.out" || fail "a fragment without streamParam 5512"
    }
    settle aac aac_checks stat aac 0
    run last 10 stat aac 0 --last 2
    [ "$(grep -c '^[* ] *[0-9]* *[1-9][0-9]* ' "$work/last.out")" = 2 ] || fail "stat aac --last 2 did not list 2 slots"

    # Opus: 8-bit mono at 8 kHz makes 64 ms and 512 samples a fragment; the
    # length recorded is the one given, 20 to 512.
    until_shown opus 10 ring_running "the producer, its reader and three fragments" stat opus --last 200
    opus_checks() {
        audio_header opus "opus pool" 23040 112816 8 64 ""
        ring_rows opus 200 20-512 " 8 1 8000 512"
    }
    settle opus opus_checks stat opus --last 200

    # AMR: every fragment carries the streamParam of the reset (0xff) and its
    # mode, its ID modulo 8, as fragmentParam.
    until_stat amr amr 0 10 ring_running "the producer, its reader and three fragments"
    amr_checks() {
        audio_header amr "amr pool, channel 0" 20480 216816 16 256 " +streamParam +fragmentParam"
        ring_rows amr 200 32-1024 " 16 1 8000 2048"
        awk '/^[* ] +[0-9]+ +[1-9]/ { sub(/^\*/, " "); if ($(NF - 1) != 255 || $NF != $2 % 8) { print; exit 1 } }' \
            "$work/amr.out" >"$work/params.err" || fail "amr fragment with other parameters: $(cat "$work/params.err")"
    }
    settle amr amr_checks stat amr 0

    until_stat lum lum 0 10 ring_running "the producer, its reader and three records"
    lum_checks() {
        for line in "lum pool, channel 0" "key:              0x4d00 (19712)" "size:             61624" \
            "creator pid:      $demo" "workingFPS:       30" "picture:          80 x 64"; do
            expect_line lum "$line"
        done
        grep -qx 'locks: *semaphore set [0-9]*, 6 semaphores' "$work/lum.out" || fail "no set of 6 semaphores in stat lum"
        grep -qE '^safeTime ms: +slots [0-5]-[0-5]: 33\.\.132 \(\+33\); slots [0-5]-[0-5]: 0$' "$work/lum.out" ||
            fail "lum safe times: $(grep safeTime "$work/lum.out")"
        [ "$(grep -cE '^[* ] +[0-5] +[1-9][0-9]* +[0-9]+\.[0-9]+ +5120 +[0-9]+ +[01]$' "$work/lum.out")" = 6 ] ||
            fail "not six lum slots of 5120 samples"
    }
    settle lum lum_checks stat lum 0

    until_stat md md 0 10 ring_running "the producer, its reader and three records"
    md_checks() {
        for line in "md pool, channel 0" "key:              0x4e00 (19968)" "size:             123040" \
            "creator pid:      $demo" "workingFPS:       30" "picture:          64 x 48" "vibration:        42"; do
            expect_line md "$line"
        done
        grep -qE '^safeTime ms: +slots [0-4]-[0-4]: 33\.\.132 \(\+33\); slot [0-4]: 0$' "$work/md.out" ||
            fail "md safe times: $(grep safeTime "$work/md.out")"
        [ "$(grep -cE '^[* ] +[0-4] +[1-9][0-9]* +[0-9]+\.[0-9]+ +3072 +[0-9]+ +[01]$' "$work/md.out")" = 5 ] ||
            fail "not five md slots of 3072 elements"
    }
    settle md md_checks stat md 0
    stop_demo live
    check_final_table live
    expect_no_ring_pools
    ;;

media-mp4)
    media "$work/m"
    roundtrip mp4 "$work/m/camera.h264" h264 50
    ;;

media-jpg)
    media "$work/m"
    roundtrip jpg "$work/m/camera.mjpeg" mjpeg 25
    ;;

media-stale)
    # A killed producer leaves its pool; ls marks it stale, clean removes
    # segment and semaphores, a live pool stays.
    media "$work/m"
    $EMULATOR "$AVPOOL" put mp4 5 "$work/m/camera.h264" --loop >/dev/null 2>&1 &
    victim=$!
    $EMULATOR "$AVPOOL" put jpg 6 "$work/m/camera.mjpeg" --loop >/dev/null 2>&1 &
    keeper=$!
    background="$victim $keeper"
    until_ls ls 10 "^jpg +6 .* live "
    until_ls ls 10 "^mp4 +5 .* live "
    kill -KILL "$victim"
    wait "$victim" 2>/dev/null
    until_ls ls 10 "^mp4 +5 .* stale "
    grep -qE "^jpg +6 .* live " "$work/ls.out" || fail "the live jpg pool is not listed live"
    run json 10 ls --json
    grep -q '"kind": "mp4", "channel": 5, "key": 19205, .*"stale": true' "$work/json.out" ||
        fail "ls --json does not mark mp4 5 stale"
    run get 10 get mp4 5
    expect_rc get 1 "get on a stale pool"
    grep -q "^avpool: get: the mp4 pool on channel 5 is stale: its creator [0-9]* is gone$" "$work/get.err" ||
        fail "get on a stale pool did not say so"
    run clean 10 clean
    expect_rc clean 0 clean
    grep -qx "removed mp4 5: segment 0x4b05 (creator [0-9]* is gone), semaphore set 0x4b50" "$work/clean.out" ||
        fail "clean did not report the mp4 pool"
    [ "$(wc -l <"$work/clean.out")" = 1 ] || fail "clean removed more than the stale pool"
    ipcs -m | grep -q '0x00004b05' && fail "segment 0x4b05 left after clean"
    ipcs -s | grep -q '0x00004b50' && fail "semaphore set 0x4b50 left after clean"
    ipcs -m | grep -q '0x00004c06' || fail "clean removed the live jpg pool"
    kill -TERM "$keeper"
    wait_for "$keeper" 10
    [ $? = 0 ] || fail "put jpg did not end cleanly on SIGTERM"
    [ -z "$(ipcs -m | grep '0x0000')$(ipcs -s | grep '0x0000')" ] || fail "IPC objects left: $(ipcs)"
    run clean2 10 clean
    expect_line clean2 "nothing to clean"
    ;;

media-errors)
    media "$work/m"
    run e 10 put mp4 0 "$work/m/camera.mjpeg"
    expect_rc e 1 "put mp4 of an MJPEG file"
    expect_error_line e "avpool: put: $work/m/camera.mjpeg: not an H.264 Annex B stream: it does not begin with a start code"
    run e 10 put jpg 0 "$work/m/camera.h264"
    expect_error_line e "avpool: put: $work/m/camera.h264: not an MJPEG stream: it does not begin with a JPEG picture"
    run e 10 put jpg 0 "$work/none.mjpeg"
    expect_error_line e "avpool: put: cannot read $work/none.mjpeg: No such file or directory"
    head -c 5000 "$work/m/camera.mjpeg" >"$work/cut.mjpeg"
    run e 10 put jpg 0 "$work/cut.mjpeg"
    expect_rc e 1 "put of a truncated MJPEG file"
    grep -qx "avpool: put: $work/cut.mjpeg: JPEG picture at byte 0 is truncated at byte [0-9]*" "$work/e.err" ||
        fail "truncated MJPEG not reported: $(cat "$work/e.err")"
    run e 10 get mp4 4
    expect_error_line e "avpool: get: no mp4 pool on channel 4 (key 0x4b04)"
    run e 10 get mov 4
    expect_rc e 2 "get mov 4"
    expect_error_line e "avpool: get: unknown pool kind 'mov' (known: jpg, mp4, pcm, aac)"
    for verb in ls watch clean put get; do
        run h 10 "$verb" --help
        expect_rc h 0 "$verb --help"
        grep -q "^usage: avpool $verb" "$work/h.out" || fail "$verb --help has no usage line"
    done
    run w 10 watch --count 2 --interval 1
    expect_rc w 0 "watch --count 2"
    [ "$(grep -c '^avpool watch ' "$work/w.out")" = 2 ] || fail "watch --count 2 did not print two blocks"
    grep -q "$(printf '\033')" "$work/w.out" && fail "watch wrote terminal escapes into a file"
    [ -z "$(ipcs -m | grep '0x0000')$(ipcs -s | grep '0x0000')" ] || fail "IPC objects left: $(ipcs)"
    ;;

media-pcm)
    # A WAV file of whole fragments comes back with the same samples; ls shows
    # the producer's pool with its format and newest fragment.
    media "$work/m" audio
    start_put "^pcm +- +0x4a00 " pcm 0 "$work/m/tone.wav" --linger 4000
    run get 30 get pcm 0 --since 60 --count 16 -o "$work/out.wav"
    expect_rc get 0 "get pcm 0 --count 16"
    [ -s "$work/get.err" ] && fail "get pcm wrote to stderr"
    until_ls ls 10 "^pcm +- +0x4a00 +420016 +[0-9]+ +[0-9]+ +live +16 +[0-9.]+ s +format 16, 1 ch, 8000 Hz$"
    wav_header 1 8000 16 32768 >"$work/expected.head"
    head -c 44 "$work/out.wav" >"$work/got.head"
    cmp "$work/expected.head" "$work/got.head" || fail "WAV header of get pcm: $(od -An -tx1 "$work/got.head")"
    [ "$(wc -c <"$work/out.wav")" = $((44 + 32768)) ] || fail "out.wav is $(wc -c <"$work/out.wav") bytes"
    samples_of "$work/m/tone.wav" "$work/in.raw" s16le
    tail -c +45 "$work/out.wav" >"$work/out.raw"
    cmp "$work/in.raw" "$work/out.raw" || fail "samples read back differ from the WAV put"
    [ "$(audio_probe "$work/out.wav")" = "$(audio_probe "$work/m/tone.wav")" ] ||
        fail "ffprobe: $(audio_probe "$work/out.wav") read back, $(audio_probe "$work/m/tone.wav") put"
    wait_for "$producer" 20
    [ $? = 0 ] || fail "put pcm did not end with 0"
    run gone 10 get pcm 0
    expect_rc gone 1 "get pcm 0 after put ended"
    expect_error_line gone "avpool: get: no pcm pool on channel 0 (key 0x4a00)"

    # 8-bit stereo that ends inside a fragment, read into a pipe: the sizes stay
    # unknown and the last fragment is completed with unsigned silence (0x80).
    start_put "^pcm +- +0x4a00 " pcm 0 "$work/m/stereo8.wav" --linger 4000
    timeout -k 2 30 $EMULATOR "$AVPOOL" get pcm 0 --since 60 --count 11 2>"$work/pipe.err" | cat >"$work/pipe.wav"
    [ -s "$work/pipe.err" ] && fail "get pcm into a pipe wrote to stderr"
    wav_header 2 11025 8 unknown >"$work/expected.head"
    head -c 44 "$work/pipe.wav" >"$work/got.head"
    cmp "$work/expected.head" "$work/got.head" || fail "WAV header on a pipe: $(od -An -tx1 "$work/got.head")"
    [ "$(wc -c <"$work/pipe.wav")" = $((44 + 11 * 2048)) ] || fail "pipe.wav is $(wc -c <"$work/pipe.wav") bytes"
    samples_of "$work/m/stereo8.wav" "$work/in8.raw" u8
    tail -c +45 "$work/pipe.wav" | head -c 22050 >"$work/out8.raw"
    cmp "$work/in8.raw" "$work/out8.raw" || fail "8-bit samples read back differ"
    [ "$(tail -c 478 "$work/pipe.wav" | od -An -v -tx1 | tr -s ' \n' '\n\n' | sort -u | tr -d '\n')" = 80 ] ||
        fail "the last fragment is not completed with 0x80"
    [ "$(audio_probe "$work/pipe.wav" | cut -d, -f1-3)" = "pcm_u8,11025,2" ] ||
        fail "ffprobe reads the piped WAV as $(audio_probe "$work/pipe.wav")"
    wait_for "$producer" 20
    [ $? = 0 ] || fail "put pcm of 8-bit stereo did not end with 0"

    # SIGINT ends a live get cleanly; the file's sizes are set at the end.
    start_put "^pcm +- +0x4a00 " pcm 0 "$work/m/tone.wav" --loop
    $EMULATOR "$AVPOOL" get pcm 0 -o "$work/live.wav" 2>"$work/live.err" &
    consumer=$!
    background="$background $consumer"
    waited=0
    until [ "$(wc -c <"$work/live.wav" 2>/dev/null || echo 0)" -gt $((44 + 2 * 2048)) ]; do
        [ "$waited" -ge 100 ] && fail "live get pcm wrote nothing within 10 s"
        sleep 0.1
        waited=$((waited + 1))
    done
    kill -INT "$consumer"
    wait_for "$consumer" 10
    [ $? = 0 ] || fail "get pcm ended by SIGINT did not exit 0"
    [ -s "$work/live.err" ] && fail "get pcm ended by SIGINT wrote to stderr: $(cat "$work/live.err")"
    size=$(($(wc -c <"$work/live.wav") - 44))
    [ $((size % 2048)) = 0 ] || fail "live.wav holds $size bytes of samples, not whole fragments"
    wav_header 1 8000 16 "$size" >"$work/expected.head"
    head -c 44 "$work/live.wav" >"$work/got.head"
    cmp "$work/expected.head" "$work/got.head" || fail "sizes not set after SIGINT: $(od -An -tx1 "$work/got.head")"
    kill -INT "$producer"
    wait_for "$producer" 10
    [ $? = 0 ] || fail "put pcm --loop did not end cleanly on SIGINT"
    background=""
    expect_ipc_empty
    ;;

media-aac)
    # An ADTS stream comes back frame for frame; ffprobe decodes the same.
    media "$work/m" audio
    start_put "^aac +3 +0x4f03 +112816 .* live +[0-9]+ +[0-9.]+ s +format 16, 2 ch, 44100 Hz$" \
        aac 3 "$work/m/tone.aac" --linger 3000
    run five 30 get aac 3 --since 60 --count 5 -o "$work/five.aac"
    expect_rc five 0 "get aac 3 --count 5"
    run get 30 get aac 3 --since 60 -o "$work/out.aac"
    expect_rc get 0 "get aac 3 until the pool is removed"
    [ -s "$work/five.err" ] || [ -s "$work/get.err" ] && fail "get aac wrote to stderr"
    cmp "$work/m/tone.aac" "$work/out.aac" || fail "AAC stream read back differs from the file put"
    expected=$(audio_probe "$work/m/tone.aac")
    [ "${expected%,*}" = "aac,44100,2" ] || fail "ffprobe reads the test stream as $expected"
    [ "$(audio_probe "$work/out.aac")" = "$expected" ] ||
        fail "ffprobe: $(audio_probe "$work/out.aac") read back, $expected put"
    [ "$(audio_probe "$work/five.aac")" = "aac,44100,2,5" ] ||
        fail "five fragments decode as $(audio_probe "$work/five.aac")"
    cmp -n "$(wc -c <"$work/five.aac")" "$work/five.aac" "$work/m/tone.aac" ||
        fail "the first five fragments are not the stream's first five frames"
    wait_for "$producer" 20
    [ $? = 0 ] || fail "put aac did not end with 0"
    expect_ipc_empty
    ;;

media-audio-errors)
    media "$work/m" audio
    run e 10 put aac 0 "$work/m/tone.wav"
    expect_rc e 1 "put aac of a WAV file"
    expect_error_line e "avpool: put: $work/m/tone.wav: not an ADTS stream: it does not begin with a sync word"
    echo "not audio at all" >"$work/notes.txt"
    run e 10 put pcm 0 "$work/notes.txt"
    expect_rc e 1 "put pcm of a text file"
    expect_error_line e "avpool: put: $work/notes.txt: not a WAV file: it does not begin with a RIFF/WAVE header"
    run e 10 put pcm 0 "$work/m/deep.wav"
    expect_rc e 1 "put pcm of a 24-bit WAV"
    expect_error_line e "avpool: put: $work/m/deep.wav: 24-bit samples are not supported, only 8 or 16 bits"
    run e 10 put aac 0 "$work/m/loud.aac"
    expect_rc e 1 "put aac of frames over 512 bytes"
    grep -qx "avpool: put: $work/m/loud.aac: ADTS frame at byte [0-9]* has [0-9]* bytes, more than an aac fragment holds (512)" \
        "$work/e.err" || fail "a long ADTS frame not reported: $(cat "$work/e.err")"
    head -c 3000 "$work/m/tone.aac" >"$work/cut.aac"
    run e 10 put aac 0 "$work/cut.aac"
    expect_rc e 1 "put aac of a truncated stream"
    grep -qx "avpool: put: $work/cut.aac: ADTS frame at byte [0-9]* is truncated at byte 3000" "$work/e.err" ||
        fail "truncated ADTS not reported: $(cat "$work/e.err")"
    run e 10 put pcm 2 "$work/m/tone.wav"
    expect_rc e 2 "put pcm 2"
    expect_error_line e "avpool: put: there is one pcm pool per machine: CHANNEL must be 0, not 2"
    run e 10 get pcm 1
    expect_rc e 2 "get pcm 1"
    expect_error_line e "avpool: get: there is one pcm pool per machine: CHANNEL must be 0, not 1"
    run e 10 get aac 7
    expect_rc e 1 "get aac 7 without a pool"
    expect_error_line e "avpool: get: no aac pool on channel 7 (key 0x4f07)"
    expect_ipc_empty
    ;;

*)
    fail "unknown case"
    ;;
esac
exit 0
