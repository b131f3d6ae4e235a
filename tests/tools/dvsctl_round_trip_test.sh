#!/usr/bin/env bash
# The sample host's trip through the configuration store from the command
# line: "kernel load-sample", persist, "store save", a restart, "store
# restore", then "state diff" of the state file and the kernel.  A value the
# store keeps, changed afterwards, is an unexpected difference (status 1).
# Usage: dvsctl_round_trip_test.sh DVSCTL SIM
set -euo pipefail

dvsctl=$1
sim=$2
# shellcheck source-path=SCRIPTDIR source=sim_test_lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/sim_test_lib.sh"
export CONFIGSTORE_PATH=$work/store.db

refused '--switches 0: between 1 and 32 switches' kernel load-sample --switches 0
start_sim
"$dvsctl" kernel load-sample --switches 4 --ports 40 --seed 3 >"$work/out"
grep -qx 'kernel state replaced: 4 switches, 40 ports (host blob of [0-9]* bytes)' "$work/out" ||
  fail "load-sample: $(cat "$work/out")"
"$dvsctl" kernel persist "$work/state.db" >/dev/null
"$dvsctl" store save >/dev/null
stop_sim
start_sim
"$dvsctl" store restore >/dev/null

"$dvsctl" state diff --summary "$work/state.db" kernel >"$work/diff" ||
  fail "state diff: $(cat "$work/diff")"
grep -q '^compared 4 switches, 40 ports, [0-9]* properties: .* 0 changed unexpectedly$' "$work/diff" &&
  grep -Eq '^ +[0-9]+  teaming-policy-4-5: ' "$work/diff" &&
  grep -qx 'unexpected differences: 0' "$work/diff" || fail "summary: $(cat "$work/diff")"

# The resource threshold, 75 on every sample switch, set to 80 on one.
sw=$("$dvsctl" kernel exec summary | sed -n '2s/ class=.*//p')
"$dvsctl" kernel prop-set "$sw" com.ostrel.common.resv.threshold 80 --u32 --flag 16
rc=0
"$dvsctl" state diff --json "$work/state.db" kernel >"$work/json" 2>"$work/err" || rc=$?
[ "$rc" -eq 1 ] && grep -q '"unexpectedDifferences": 1' "$work/json" &&
  grep -qx "dvsctl: 1 unexpected difference between $work/state.db and kernel" "$work/err" ||
  fail "changed threshold: status $rc, $(cat "$work/err")"
grep -q '"property": "com.ostrel.common.resv.threshold"' "$work/json" &&
  grep -q '"classification": "unexpected"' "$work/json" || fail "json: $(cat "$work/json")"
refused "$work/none: .*" state diff "$work/none" kernel
echo "ok: round trip"
