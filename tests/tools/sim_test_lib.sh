# shellcheck shell=bash disable=SC2154
# Sourced by the dvsctl scripts that run against the kernel switch
# simulator.  Expects $dvsctl (the dvsctl program) and $sim (the simulator
# daemon) to be set; gives a scratch folder $work (removed on exit) with the
# simulator's socket $sock exported as DVS_DEVICE_PATH, fail, start_sim and
# stop_sim (the simulator in the background, stopped on exit too), and
# refused.
work=$(mktemp -d)
sock=$work/dvsdev.sock
pid=
# Stops the simulator: TERM, then KILL if it has not gone within 5 s.
stop_sim() {
  [ -n "$pid" ] || return 0
  kill -TERM "$pid" 2>/dev/null || true
  local n=0
  while kill -0 "$pid" 2>/dev/null && [ $n -lt 50 ]; do
    sleep 0.1
    n=$((n + 1))
  done
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" || true
  pid=
}
trap 'stop_sim; rm -rf "$work"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
start_sim() {
  "$sim" --socket "$sock" --foreground >"$work/sim.out" 2>&1 &
  pid=$!
  for _ in $(seq 50); do
    grep -qx "dvs-kernel-sim: listening on $sock" "$work/sim.out" && return 0
    sleep 0.1
  done
  fail "simulator not ready: $(cat "$work/sim.out")"
}
# Runs dvsctl expecting exit status 1, no output and a message matching $1.
refused() {
  local pattern=$1 rc=0
  shift
  "$dvsctl" "$@" >"$work/out" 2>"$work/err" || rc=$?
  [ "$rc" -eq 1 ] && [ ! -s "$work/out" ] && grep -Eq "^dvsctl: $pattern$" "$work/err" ||
    fail "$*: status $rc, $(cat "$work/out" "$work/err")"
}
export DVS_DEVICE_PATH=$sock
