#!/usr/bin/env bash
# dvsctl against a one-member etcd cluster: the store commands' own test
# run over the cluster, then three hosts saved side by side (two of them
# the same sample host) and "fleet hosts" / "fleet diff" over them, and an
# unreachable cluster's code.
# Usage: dvsctl_fleet_test.sh DVSCTL SIM ETCD_CLUSTER_SH
set -euo pipefail

dvsctl=$1
sim=$2
cluster=$3
# shellcheck source-path=SCRIPTDIR source=sim_test_lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/sim_test_lib.sh"
trap 'stop_sim; "$cluster" stop "$work/etcd" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
# Each step is named with the seconds since the start, so a run cut short
# by the test's time limit shows where it stood.
step() { echo "[${SECONDS}s] $*"; }

step "start a one-member etcd cluster"

endpoints=$("$cluster" start "$work/etcd" 1)
step "the store commands over etcd://$endpoints"
CONFIGSTORE_URL="etcd://$endpoints/store-test" CONFIGSTORE_HOST=t \
  bash "$(dirname "${BASH_SOURCE[0]}")/dvsctl_store_test.sh" "$dvsctl" >/dev/null ||
  fail "the store commands over etcd"

export CONFIGSTORE_URL="etcd://$endpoints/fleet"
step "start the simulator"
start_sim
for h in h1:1 h2:2 h3:1; do
  "$dvsctl" kernel load-sample --switches 2 --ports 10 --seed "${h#*:}" >/dev/null
  step "save host ${h%:*}"
  CONFIGSTORE_HOST=${h%:*} "$dvsctl" store save >/dev/null
done

step "fleet hosts"

"$dvsctl" fleet hosts >"$work/hosts"
[ "$(grep -c '^h[123] ' "$work/hosts")" = 3 ] &&
  grep -Eq '^h2 +[0-9T:-]+Z +2 +10$' "$work/hosts" || fail "fleet hosts: $(cat "$work/hosts")"
"$dvsctl" fleet hosts --json >"$work/hosts.json"
python3 - "$work/hosts.json" <<'PY' || fail "fleet hosts --json: $(cat "$work/hosts.json")"
import json, sys, time
hosts = json.load(open(sys.argv[1]))
assert [h["host"] for h in hosts] == ["h1", "h2", "h3"]
for h in hosts:
    assert len(h["switches"]) == 2 and h["ports"] == 10, h
    assert sum(s["ports"] for s in h["switches"]) == 10, h
    assert abs(h["savedAt"] - time.time()) < 300, h
PY

step "fleet diff"
# h1 and h3 hold the same host; h2 another one.
"$dvsctl" fleet diff --summary h1 h3 >"$work/same" || fail "fleet diff h1 h3: $(cat "$work/same")"
grep -qx 'unexpected differences: 0' "$work/same" || fail "same hosts: $(cat "$work/same")"
rc=0
"$dvsctl" fleet diff --json h1 h2 >"$work/other.json" 2>"$work/err" || rc=$?
[ "$rc" -eq 1 ] && grep -q '"unexpectedDifferences": [1-9]' "$work/other.json" &&
  grep -q '^dvsctl: [0-9]* unexpected differences between h1 and h2$' "$work/err" ||
  fail "fleet diff h1 h2: status $rc, $(cat "$work/err")"

step "unreachable and unusable store locations"
CONFIGSTORE_URL=etcd://127.0.0.1:1/x refused 'cannot open the configuration store: etcd://127.0.0.1:1/x: no server of the cluster answered in time \(kUnreachable, configstore code 11\)' \
  store list
CONFIGSTORE_URL=http://127.0.0.1:1/x refused 'cannot open the configuration store: http://127.0.0.1:1/x: CONFIGSTORE_URL is not a location the store can use \(kBadUrl, configstore code 13\)' \
  fleet hosts
echo "ok: fleet"
