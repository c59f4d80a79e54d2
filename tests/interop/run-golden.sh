#!/bin/sh
# Holds two builds of avpool_golden against each other (e.g. x86_64 and armhf) in one
# private IPC namespace:   tests/interop/run-golden.sh FIRST_BUILD_DIR SECOND_BUILD_DIR
# Both dump the scenario (identical dumps, kind by kind); then each reads the other's
# pools, ending blocked in waitReady until the writer puts a frame. ARM programs run
# through qemu-arm (AVPOOL_QEMU_ARM, AVPOOL_ARMHF_ROOT) elsewhere, all under `timeout 60`.
set -u

here=$(cd "$(dirname "$0")" && pwd)
if [ "${1:-}" != --inside ]; then
    [ $# -eq 2 ] || { echo "usage: $0 FIRST_BUILD_DIR SECOND_BUILD_DIR" >&2; exit 2; }
    exec "$here/../run-isolated.sh" sh "$here/run-golden.sh" --inside "$@"
fi
first=$(cd "$2" && pwd)/tests/interop/avpool_golden
second=$(cd "$3" && pwd)/tests/interop/avpool_golden
work=$(mktemp -d "${TMPDIR:-/tmp}/avpool-golden.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' HUP INT PIPE TERM
passed=0 failed=0

arch_of() {  # the ELF machine field, bytes 18-19
    case "$(od -An -tx1 -j18 -N2 "$1" 2>/dev/null | tr -d ' \n')" in
        2800) echo armhf ;; 3e00) echo x86_64 ;; *) echo other ;;
    esac
}

run() {  # program, arguments...: under timeout, an ARM one through qemu-arm
    if [ "$(arch_of "$1")" = armhf ] && ! uname -m | grep -q '^arm'; then
        set -- "${AVPOOL_QEMU_ARM:-qemu-arm}" -L "${AVPOOL_ARMHF_ROOT:-/usr/arm-linux-gnueabihf}" "$@"
    fi
    timeout -k 5 60 "$@"
}

report() {  # status, title, files to show on failure...
    if [ "$1" -eq 0 ]; then
        echo "PASS $2" && passed=$((passed + 1))
    else
        echo "FAIL $2" && failed=$((failed + 1))
        shift 2 && sed 's/^/    /' "$@"
    fi
}

mkdir "$work/1" "$work/2"
run "$first" dump "$work/1" >"$work/dump.out" 2>&1 && run "$second" dump "$work/2" >>"$work/dump.out" 2>&1
report $? "dumps by $(arch_of "$first") and by $(arch_of "$second")" "$work/dump.out"
for dump in "$work"/1/*.dump; do
    [ -e "$dump" ] || continue
    cmp "$dump" "$work/2/${dump##*/}" >"$work/cmp.out" 2>&1
    report $? "${dump##*/}: the same bytes and lock values" "$work/cmp.out"
done

pair() {  # writer, reader
    dir=$work/$(arch_of "$1")-to-$(arch_of "$2")
    mkdir "$dir"
    echo "the writer never got ready" >"$dir/reader.out"
    run "$1" serve "$dir" >"$dir/writer.out" 2>&1 &
    tenths=0
    while [ ! -e "$dir/ready" ] && [ $((tenths += 1)) -le 600 ] && kill -0 $! 2>/dev/null; do sleep 0.1; done
    [ -e "$dir/ready" ] && run "$2" read >"$dir/reader.out" 2>&1
    status=$?
    touch "$dir/done"
    wait $! || status=1
    report $status "$(arch_of "$1") writer, $(arch_of "$2") reader: $(tail -n 1 "$dir/reader.out")" \
        "$dir/writer.out" "$dir/reader.out"
}
pair "$first" "$second"
[ "$first" = "$second" ] || pair "$second" "$first"

echo "interop: $passed passed, $failed failed"
[ $failed -eq 0 ]
