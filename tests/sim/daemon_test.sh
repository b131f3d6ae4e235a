#!/usr/bin/env bash
# dvs-kernel-sim end to end: the ready line, a live socket refused, a clean
# stop on SIGTERM, a bad DVS_SIM_FAULTS refused, and detaching.
# Usage: daemon_test.sh DVS_KERNEL_SIM
set -euo pipefail

sim=$1
work=$(mktemp -d)
sock=$work/sim.sock
pid=
trap '[ -z "$pid" ] || kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
wait_for() { for _ in $(seq 100); do eval "$1" && return 0; sleep 0.1; done; return 1; }

"$sim" --socket "$sock" --foreground -v >"$work/out" 2>"$work/err" &
pid=$!
wait_for '[ -s "$work/out" ]' || fail "no ready line"
[ "$(cat "$work/out")" = "dvs-kernel-sim: listening on $sock" ] || fail "ready: $(cat "$work/out")"
[ -S "$sock" ] || fail "no socket at $sock"

rc=0
"$sim" --socket "$sock" --foreground 2>"$work/err2" || rc=$?
[ "$rc" -eq 1 ] && grep -q 'in use' "$work/err2" || fail "second simulator: $rc $(cat "$work/err2")"

kill -TERM "$pid"
rc=0
wait "$pid" || rc=$?
pid=
[ "$rc" -eq 0 ] || fail "exit status $rc after SIGTERM"
[ ! -e "$sock" ] || fail "socket left behind"
grep -q 'stopping on SIGTERM' "$work/err" || fail "log: $(cat "$work/err")"

rc=0
DVS_SIM_FAULTS=4:1 "$sim" --socket "$sock" --foreground 2>"$work/err3" || rc=$?
[ "$rc" -eq 2 ] && grep -q 'DVS_SIM_FAULTS' "$work/err3" || fail "bad faults: $rc"

# Detached, the command returns once the simulator listens.
[ "$("$sim" --socket "$sock")" = "dvs-kernel-sim: listening on $sock" ] || fail "detached"
[ -S "$sock" ] || fail "detached simulator does not listen"
pid=$(pgrep -f -- "--socket $sock\$") || fail "detached simulator not found"
kill -TERM "$pid"
pid=
wait_for '[ ! -e "$sock" ]' || fail "detached simulator left its socket"
