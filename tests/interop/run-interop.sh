#!/bin/sh
# Runs the interop peers of two builds against each other, e.g. one for the
# build machine and one for the armhf device:
#
#   tests/interop/run-interop.sh NATIVE_BUILD_DIR ARMHF_BUILD_DIR
#
# 1. the layout fingerprints of both builds must be identical;
# 2. in one private IPC namespace, the first build's producer serves the second
#    build's consumer, then the other way round (once only when both directories
#    are the same build).
# ARM programs run through qemu-arm (AVPOOL_QEMU_ARM, else qemu-arm or
# qemu-arm-static on PATH, with the target libraries of AVPOOL_ARMHF_ROOT,
# default /usr/arm-linux-gnueabihf) unless this machine is ARM itself. Every
# process runs under `timeout 60`. Exits non-zero on any failure.
set -u

here=$(cd "$(dirname "$0")" && pwd)
limit=60

usage() {
    echo "usage: $0 FIRST_BUILD_DIR SECOND_BUILD_DIR" >&2
    exit 2
}

# ELF machine field (bytes 18-19, little-endian) as a name.
arch_of() {
    case "$(od -An -tx1 -j18 -N2 "$1" | tr -d ' \n')" in
        2800) echo armhf ;;
        3e00) echo x86_64 ;;
        b700) echo aarch64 ;;
        0300) echo i386 ;;
        *) echo unknown ;;
    esac
}

# The command prefix that runs a program of the given build.
launcher_for() {
    if [ "$(arch_of "$1")" = armhf ]; then
        case "$(uname -m)" in
            arm*) return 0 ;;
        esac
        qemu=${AVPOOL_QEMU_ARM:-$(command -v qemu-arm || command -v qemu-arm-static || true)}
        if [ -z "$qemu" ]; then
            echo "run-interop: no qemu-arm to run $1 (Debian package qemu-user)" >&2
            exit 1
        fi
        echo "$qemu -L ${AVPOOL_ARMHF_ROOT:-/usr/arm-linux-gnueabihf}"
    fi
}

# One producer/consumer pair, inside the namespace. Prints PASS or FAIL and the
# output of both sides when something failed.
run_pair() {
    producer=$1
    consumer=$2
    title="$(arch_of "$producer") producer -> $(arch_of "$consumer") consumer"
    dir=$work/$3
    mkdir "$dir"
    producer_launch=$(launcher_for "$producer") || return 1
    consumer_launch=$(launcher_for "$consumer") || return 1
    # The launchers are commands with arguments: unquoted on purpose.
    (
        timeout -k 5 $limit $producer_launch "$producer" produce "$dir" >"$dir/producer.out" 2>&1
        echo $? >"$dir/producer.exited"
    ) &
    producer_pid=$!
    timeout -k 5 $limit $consumer_launch "$consumer" consume "$dir" >"$dir/consumer.out" 2>&1
    consumer_status=$?
    echo $consumer_status >"$dir/consumer.exited"
    wait "$producer_pid"
    producer_status=$(cat "$dir/producer.exited" 2>/dev/null || echo "none")
    if [ "$producer_status" = 0 ] && [ $consumer_status -eq 0 ]; then
        echo "PASS $title"
        sed 's/^/    /' "$dir/consumer.out" | grep ' checks, '
        status=0
    else
        echo "FAIL $title (producer exit $producer_status, consumer exit $consumer_status)"
        echo "  --- producer output"
        sed 's/^/    /' "$dir/producer.out"
        echo "  --- consumer output"
        sed 's/^/    /' "$dir/consumer.out"
        status=1
    fi
    return $status
}

# A scratch directory for this process, removed however it ends.
work=$(mktemp -d "${TMPDIR:-/tmp}/avpool-interop.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' HUP INT PIPE TERM

if [ "${1:-}" = "--inside" ]; then
    shift
    failed=0
    run_pair "$1" "$2" forward || failed=$((failed + 1))
    if [ "$1" != "$2" ]; then
        run_pair "$2" "$1" reverse || failed=$((failed + 1))
    fi
    exit $failed
fi

[ $# -eq 2 ] || usage
first=$1/tests/interop/avpool_interop_peer
second=$2/tests/interop/avpool_interop_peer
for peer in "$first" "$second"; do
    if [ ! -x "$peer" ]; then
        echo "run-interop: $peer not built" >&2
        exit 1
    fi
done
first=$(cd "$(dirname "$first")" && pwd)/avpool_interop_peer
second=$(cd "$(dirname "$second")" && pwd)/avpool_interop_peer

first_launch=$(launcher_for "$first") || exit 1
second_launch=$(launcher_for "$second") || exit 1

passed=0
failed=0
timeout -k 5 $limit $first_launch "$first" layout >"$work/first" &&
    timeout -k 5 $limit $second_launch "$second" layout >"$work/second"
layout_status=$?
if [ $layout_status -eq 0 ] && [ -s "$work/first" ] && diff -u "$work/first" "$work/second" >"$work/diff"; then
    echo "PASS layout of $(arch_of "$first") and $(arch_of "$second"): $(wc -l <"$work/first") lines identical"
    passed=$((passed + 1))
else
    echo "FAIL layout of $(arch_of "$first") and $(arch_of "$second") (exit $layout_status)"
    sed 's/^/    /' "$work/diff" 2>/dev/null
    failed=$((failed + 1))
fi

pairs=2
[ "$first" = "$second" ] && pairs=1
"$here/../run-isolated.sh" sh "$here/run-interop.sh" --inside "$first" "$second"
pairs_failed=$?
[ $pairs_failed -gt $pairs ] && pairs_failed=$pairs
passed=$((passed + pairs - pairs_failed))
failed=$((failed + pairs_failed))

echo "interop: $passed passed, $failed failed"
[ $failed -eq 0 ]
