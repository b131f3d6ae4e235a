#!/usr/bin/env bash
# Demo run behind "make demo-fleet": many hosts keeping their configuration
# stores in one replicated etcd cluster.
#
# A three-member cluster on loopback (scripts/etcd_cluster.sh) and eight
# simulated hosts, each a kernel switch simulator holding a realistic
# sample host of its own seed.  Every host is saved to the cluster under
# its own name (CONFIGSTORE_HOST).  Then one etcd member is killed, and two
# hosts are restored from the cluster alone into fresh simulators and
# compared field by field with the state they had: every difference must
# be one of the store's documented conversions.  Last the fleet view and
# the per-host diffs.  Everything started here is stopped by pid on exit.
# Usage: tools/demo_fleet.sh BUILD_DIR
set -euo pipefail

build_dir=${1:?usage: $0 BUILD_DIR}
dvsctl="$build_dir/tools/dvsctl"
root=$(cd "$(dirname "$0")/.." && pwd)
cluster="$root/scripts/etcd_cluster.sh"
[ -x "$dvsctl" ] || { echo "demo-fleet: $dvsctl not found; build first" >&2; exit 1; }
sim=$(find "$build_dir" -name dvs-kernel-sim -type f -perm -u+x | head -n 1)
[ -n "$sim" ] || { echo "demo-fleet: dvs-kernel-sim not found under $build_dir" >&2; exit 1; }
command -v etcd >/dev/null || { echo "demo-fleet: etcd not found (make setup)" >&2; exit 1; }

hosts=8
work=$(mktemp -d)
declare -A sim_pid=()

step() { printf '\n== %s\n' "$*"; }
fail() { echo "demo-fleet: FAILED: $*" >&2; exit 1; }

# Starts simulator $1 on its own socket; waits (at most 5 s) for it.
start_sim() {
  local name=$1
  "$sim" --socket "$work/$name.sock" --foreground >"$work/$name.out" 2>"$work/$name.err" &
  sim_pid[$name]=$!
  for _ in $(seq 50); do
    grep -qx "dvs-kernel-sim: listening on $work/$name.sock" "$work/$name.out" && return 0
    kill -0 "${sim_pid[$name]}" 2>/dev/null || break
    sleep 0.1
  done
  fail "simulator $name did not come up: $(cat "$work/$name.err")"
}

# Stops simulator $1 by pid: SIGTERM, SIGKILL after 5 s.
stop_sim() {
  local name=$1 pid=${sim_pid[$1]:-}
  [ -n "$pid" ] || return 0
  kill -TERM "$pid" 2>/dev/null || true
  for _ in $(seq 50); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  unset "sim_pid[$name]"
}

cleanup() {
  for name in "${!sim_pid[@]}"; do stop_sim "$name"; done
  "$cluster" stop "$work/etcd" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

# dvsctl as host $1 (its simulator and its namespace in the cluster).
as_host() {
  local name=$1
  shift
  DVS_DEVICE_PATH="$work/$name.sock" CONFIGSTORE_HOST=$name "$dvsctl" "$@"
}

step "A three-member etcd cluster on loopback"
endpoints=$("$cluster" start "$work/etcd" 3)
echo "endpoints: $endpoints"
export CONFIGSTORE_URL="etcd://$endpoints/dvs-demo"
echo "CONFIGSTORE_URL=$CONFIGSTORE_URL"

step "Eight hosts, each a simulator with a sample host of its own seed, saved to the cluster"
for i in $(seq 1 $hosts); do
  name=host-$i
  start_sim "$name"
  as_host "$name" kernel load-sample --seed "$i" >/dev/null
  as_host "$name" kernel persist "$work/$name-state.db" >/dev/null
  as_host "$name" store save >/dev/null
  echo "$name saved"
done

step "Killing etcd member 0"
"$cluster" kill "$work/etcd" 0
echo "member 0 killed; two members keep the quorum"

restored=(host-3 host-6)
for name in "${restored[@]}"; do
  step "$name restarts with an empty kernel and is restored from the cluster alone"
  stop_sim "$name"
  start_sim "$name"
  as_host "$name" store restore
  echo "\$ dvsctl state diff --summary $name-state.db kernel"
  as_host "$name" state diff --summary "$work/$name-state.db" kernel ||
    fail "$name came back from the cluster with unexpected differences"
done

step "The fleet as the cluster sees it"
"$dvsctl" fleet hosts | grep -v '^  '
echo "(switch lines left out; dvsctl fleet hosts prints them, --json for machines)"

step "Two hosts' live states compared through the cluster (different seeds: they differ)"
echo "\$ dvsctl fleet diff --summary host-1 host-2 | tail -n 4"
"$dvsctl" fleet diff --summary host-1 host-2 2>&1 | tail -n 4 || true

step "Result"
for name in "${restored[@]}"; do
  unexpected=$(as_host "$name" state diff --json --summary "$work/$name-state.db" kernel |
    grep -o '"unexpected": [0-9]*' | head -n 1 | grep -o '[0-9]*$')
  [ "$unexpected" = 0 ] || fail "$name: $unexpected unexpected differences"
  echo "$name restored from the cluster: 0 unexpected differences"
done
echo "all $hosts hosts saved; ${#restored[@]} restored with one etcd member down"
