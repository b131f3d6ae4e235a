#!/usr/bin/env bash
# Demo run behind "make demo".  First the data formats: a sample property
# blob as text and JSON, and a small switch registry's host configuration
# blob switch by switch.  Then a host's life through the kernel switch
# simulator: switches and ports created in the kernel, the persistent part
# written to the state file, a restart that loses the kernel state, and the
# state loaded back from the file and checked against it.
# Usage: tools/demo.sh BUILD_DIR
set -euo pipefail

build_dir=${1:?usage: $0 BUILD_DIR}
dvsctl="$build_dir/tools/dvsctl"
if [ ! -x "$dvsctl" ]; then
  echo "demo: $dvsctl not found; build first (make build)" >&2
  exit 1
fi
sim=$(find "$build_dir" -name dvs-kernel-sim -type f -perm -u+x | head -n 1)
if [ -z "$sim" ]; then
  echo "demo: dvs-kernel-sim not found under $build_dir; build first (make build)" >&2
  exit 1
fi

work=$(mktemp -d)
sock=$work/dvsdev.sock
sim_pid=

# Starts the simulator and waits (at most 5 s) for its ready line.
start_sim() {
  "$sim" --socket "$sock" --foreground >"$work/sim.out" 2>"$work/sim.err" &
  sim_pid=$!
  for _ in $(seq 50); do
    if grep -qx "dvs-kernel-sim: listening on $sock" "$work/sim.out"; then
      cat "$work/sim.out"
      return 0
    fi
    kill -0 "$sim_pid" 2>/dev/null || break
    sleep 0.1
  done
  echo "demo: the simulator did not come up: $(cat "$work/sim.err")" >&2
  exit 1
}

# Stops it with SIGTERM; one that has not gone after 5 s is killed.
stop_sim() {
  [ -n "$sim_pid" ] || return 0
  kill -TERM "$sim_pid" 2>/dev/null || true
  for _ in $(seq 50); do
    kill -0 "$sim_pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$sim_pid" 2>/dev/null || true
  wait "$sim_pid" 2>/dev/null || true
  sim_pid=
}

trap 'stop_sim; rm -rf "$work"' EXIT

step() { printf '\n== %s\n' "$*"; }
fail() { echo "demo: FAILED: $*" >&2; exit 1; }
# Shows the first lines of a command's output (the whole output is checked
# by the command's own exit status, not cut short by a closed pipe).
head_of() {
  local lines=$1
  shift
  "$@" >"$work/head"
  head -n "$lines" "$work/head"
  [ "$(wc -l <"$work/head")" -le "$lines" ] || echo "  ... ($(wc -l <"$work/head") lines)"
}

step "Writing a sample switch property blob (two nested lists, one empty)"
"$dvsctl" blob make-sample "$work/switch.blob"
echo "$work/switch.blob: $(wc -c <"$work/switch.blob") bytes"

step "Decoding it: one line per property, nested blobs indented"
"$dvsctl" blob show "$work/switch.blob"

step "The same blob as JSON"
head_of 12 "$dvsctl" blob show --json "$work/switch.blob"

step "Building a small switch registry and writing its host configuration blob"
"$dvsctl" state make-sample "$work/host.blob"
echo "$work/host.blob: $(wc -c <"$work/host.blob") bytes (2 switches, ports of all four types)"

step "The host blob, switch by switch"
head_of 16 "$dvsctl" state show "$work/host.blob"

step "The same blob, raw: switch blobs nested in the host blob, port data nested in them"
head_of 10 "$dvsctl" blob show "$work/host.blob"

step "Starting the kernel switch simulator"
start_sim
export DVS_DEVICE_PATH=$sock

step "Creating two switches and their ports in the kernel"
k() { echo "\$ dvsctl kernel $*"; "$dvsctl" kernel "$@"; }
k switch-add dvs-prod etherswitch 128 6
k prop-set dvs-prod com.ostrel.common.alias dvs-prod
k prop-set dvs-prod com.ostrel.etherswitch.uplinks eth0,eth1 --host
k prop-set dvs-prod com.ostrel.etherswitch.volatile.stats rx=1024,tx=2048
k port-add dvs-prod 10 --alias web-01
k port-add dvs-prod 10 --alias web-01 --type shadow
k port-add dvs-prod 11 --alias db-01
k port-add dvs-prod 12 --alias old-vm --type zombie
k switch-add lab-0 labswitch 16 100
k prop-set lab-0 com.ostrel.common.alias dvs-lab
k prop-set lab-0 com.ostrel.labswitch.vlan-range 100-199 --host
k port-add lab-0 1 --alias probe-a
k port-add lab-0 2 --alias probe-b --type local-cache

step "The kernel state"
"$dvsctl" kernel show
"$dvsctl" kernel show --json >"$work/before.json"
grep -q '"com.ostrel.etherswitch.volatile.stats"' "$work/before.json" ||
  fail "the volatile property is not in the kernel"

step "Persisting it: volatile properties and all but active ports stay behind"
"$dvsctl" kernel persist "$work/dvsdata.db"

step "The state file"
"$dvsctl" file show "$work/dvsdata.db"
"$dvsctl" file show --json "$work/dvsdata.db" >"$work/file.json"

step "Simulated host restart: kernel state lost"
stop_sim
start_sim
"$dvsctl" kernel show | tee "$work/empty.txt"
grep -q ', 0 switches$' "$work/empty.txt" || fail "the kernel state survived the restart"

step "Restoring the kernel state from the state file"
k restore "$work/dvsdata.db"
"$dvsctl" kernel show
k exec summary

step "Checking the restored kernel state against the state file"
"$dvsctl" kernel show --json >"$work/after.json"
if ! diff -u "$work/file.json" "$work/after.json" >"$work/diff"; then
  cat "$work/diff" >&2
  fail "the restored kernel state differs from the state file"
fi
for sw in dvs-prod lab-0; do
  grep -q "\"id\": \"$sw\"" "$work/after.json" || fail "switch $sw was not restored"
done
! grep -q 'volatile.stats' "$work/after.json" || fail "a volatile property survived persistence"
! grep -q '"type": "\(shadow\|zombie\|local-cache\)"' "$work/after.json" ||
  fail "a port that is not active survived persistence"
echo "host restart survived: kernel state matches the state file"
