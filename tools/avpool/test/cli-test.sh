#!/bin/sh
# Checks of the avpool tool as a user runs it: cli-test.sh CASE PATH-TO-AVPOOL.
# Meant to run in a private IPC namespace (the demo creates pools under the
# fixed keys of channels 0 and 1). Every wait has a deadline.

case_name=$1
AVPOOL=$2
# A cross-built tool runs through the emulator named here (words split).
EMULATOR=${AVPOOL_EMULATOR:-}
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

# One consumer's row of the final table:
# name jpg channel pace read skipped overwritten overtaken errors lag pid ended...
consumer_field() {
    awk -v name="$2" -v field="$3" '$1 == name && $2 == "jpg" { value = $field } END { print value }' "$work/$1.out"
}

check_final_table() {
    out=$1
    for name in live-0 slow-0 live-1 slow-1; do
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

case $case_name in
demo)
    run demo 30 demo --seconds 3
    expect_rc demo 0 "demo --seconds 3"
    expect_line demo "result: ok"
    check_final_table demo
    # The slow readers are overtaken within three seconds and say so.
    for name in slow-0 slow-1; do
        skipped=$(consumer_field demo "$name" 6)
        overtaken=$(consumer_field demo "$name" 8)
        [ "$skipped" -gt 0 ] || fail "$name skipped no frame"
        [ "$overtaken" -gt 0 ] || fail "$name was never overtaken"
    done
    # The live readers keep up: at most a hiccup of a loaded machine.
    for name in live-0 live-1; do
        skipped=$(consumer_field demo "$name" 6)
        [ $((skipped * 10)) -lt "$(consumer_field demo "$name" 5)" ] || fail "$name skipped $skipped frames"
    done
    # Not a terminal: one summary line per consumer and second, no escapes.
    [ "$(grep -c '^\[  1 s\] ' "$work/demo.out")" = 4 ] || fail "expected 4 summary lines for second 1"
    grep -q "$(printf '\033')" "$work/demo.out" && fail "terminal escapes in redirected output"
    grep -q '^jpg 0  0x4c00     12   25   640x480 ' "$work/demo.out" || fail "pool jpg 0 row missing"
    expect_no_pool 0 0x4c00
    expect_no_pool 1 0x4c01
    ;;

stat-missing)
    expect_no_pool 7 0x4c07
    [ -s "$work/nopool.out" ] && fail "stat printed on stdout for a missing pool"
    expect_no_pool 200 0x4cc8
    expect_no_pool 3 0x4b03 mp4
    [ -s "$work/nopool.out" ] && fail "stat mp4 printed on stdout for a missing pool"
    expect_no_pool 255 0x4bff mp4
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
    expect_error_line u "avpool: stat: unknown pool kind 'mov' (known: jpg, mp4)"
    run u 10 stat jpg
    expect_rc u 2 "stat jpg"
    expect_error_line u "avpool: stat: expected a pool kind and a channel; usage: avpool stat KIND CHANNEL"
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

    run h 10 --help
    expect_rc h 0 "--help"
    grep -q '^  demo ' "$work/h.out" && grep -q '^  stat ' "$work/h.out" || fail "--help does not list the verbs"
    for verb in demo stat; do
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
    waited=0
    while :; do
        run s0 10 stat jpg 0
        [ "$(rc_of s0)" = 0 ] && grep -qx 'attached: *3' "$work/s0.out" && ! grep -q ' -$' "$work/s0.out" && break
        [ "$waited" -ge 40 ] && fail "stat jpg 0 never showed 3 attachments and a full ring"
        sleep 0.1
        waited=$((waited + 1))
    done
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
    # number, lengths lie in the producer's range, locks are 0 or 1.
    now=$(date +%s)
    awk -v now="$now" '
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
        }' "$work/s0.out" >"$work/slots.err" || fail "slot table of channel 0: $(cat "$work/slots.err")"

    run s1 10 stat jpg 1
    expect_rc s1 0 "stat jpg 1"
    expect_line s1 "key:              0x4c01 (19457)"
    expect_line s1 "frameCount:       8"
    expect_line s1 "picture:          320 x 240"
    expect_line s1 "frameInfoOffset:  204"
    expect_line s1 "dataOffset:       588"

    # A second demo on the same channels must not take the pools away.
    run busy 10 demo --seconds 1
    expect_rc busy 1 "demo on busy channels"
    expect_error_line busy \
        "avpool: demo: the jpg pool on channel 0 belongs to running pid $demo; choose other channels with --channel"

    # Next to it on other channels is fine.
    run beside 30 demo --seconds 1 --channel 2 --quiet
    expect_rc beside 0 "demo --channel 2 beside a running demo"
    grep -q '^jpg 3  0x4c03 ' "$work/beside.out" || fail "demo --channel 2 did not use channels 2 and 3"

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
        until_file_has "$work/$out.out" '^\[  1 s\] slow-1' 15
        kill -"$sig" "$demo"
        wait_for "$demo" 15
        rc=$?
        background=""
        case $sig in INT) number=2 ;; TERM) number=15 ;; esac
        [ "$rc" = $((128 + number)) ] || fail "demo ended by SIG$sig exited $rc"
        grep -qx "result: interrupted by signal $number" "$work/$out.out" || fail "no interrupted result after SIG$sig"
        check_final_table "$out"
        expect_no_pool 0 0x4c00
        expect_no_pool 1 0x4c01
    done
    ;;

terminal)
    # On a terminal the summary is one table redrawn in place.
    command -v script >/dev/null || { echo "SKIP: no script(1) to give the demo a terminal"; exit 77; }
    timeout -k 2 30 script -qec "$EMULATOR $AVPOOL demo --seconds 3 2>/dev/null" /dev/null >"$work/tty.out" </dev/null
    echo $? >"$work/tty.rc"
    expect_rc tty 0 "demo on a terminal"
    grep -q "$(printf '\033')\[6A" "$work/tty.out" || fail "the table is not redrawn (no cursor-up by its 6 lines)"
    grep -q '^\[  1 s\]' "$work/tty.out" && fail "line-per-second output on a terminal"
    tr -d '\r' <"$work/tty.out" | grep -qx "result: ok" || fail "no final result on the terminal"
    ;;

crash)
    # A demo killed outright leaves its pools behind; its consumers die with
    # it, and the next demo takes the stale pools over.
    $EMULATOR "$AVPOOL" demo --seconds 60 >"$work/crash.out" 2>"$work/crash.err" &
    demo=$!
    background=$demo
    until_file_has "$work/crash.out" '^\[  1 s\] slow-1' 15
    kill -KILL "$demo"
    wait_for "$demo" 10
    background=""
    waited=0
    while :; do
        run left 10 stat jpg 0
        expect_rc left 0 "stat jpg 0 after a crash"
        grep -qx 'attached: *0' "$work/left.out" && break
        [ "$waited" -ge 50 ] && fail "consumers still attached 5 s after the producer died"
        sleep 0.1
        waited=$((waited + 1))
    done
    expect_line left "creator pid:      $demo"
    run again 30 demo --seconds 2
    expect_rc again 0 "demo after a crashed one"
    check_final_table again
    expect_no_pool 0 0x4c00
    ;;

*)
    fail "unknown case"
    ;;
esac
exit 0
