#!/usr/bin/env bash
# dvsctl store save / save-blob / load / restore / upgrade against the
# kernel switch simulator and fresh store databases: a host saved to the
# store, restored from it alone into a restarted kernel, the blob carried
# into another store, the state file carried over, and the failures'
# messages.  Usage: dvsctl_store_state_test.sh DVSCTL DVS_KERNEL_SIM
set -euo pipefail

dvsctl=$1
sim=$2
# shellcheck source-path=SCRIPTDIR source=sim_test_lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/sim_test_lib.sh"
export CONFIGSTORE_PATH=$work/store.db

start_sim
"$dvsctl" kernel switch-add sw-a vswitch 64 7
"$dvsctl" kernel prop-set sw-a com.ostrel.common.version 7 --u32
"$dvsctl" kernel prop-set sw-a com.ostrel.common.alias alpha
"$dvsctl" kernel prop-set sw-a com.ostrel.common.host.portset ps-a --host
"$dvsctl" kernel port-add sw-a p1 --alias vm-1
refused '--u32 value "7x" is not an unsigned 32-bit number' \
  kernel prop-set sw-a com.ostrel.common.version 7x --u32
"$dvsctl" kernel show --json | grep -q '"hex": "07000000"' || fail "--u32 did not store 4 bytes"

[ "$("$dvsctl" store save)" = "$CONFIGSTORE_PATH: 1 switch stored: sw-a" ] || fail "save summary"
[ "$("$dvsctl" store save --switch nope)" = \
  "$CONFIGSTORE_PATH: switch nope is not in the kernel: the store holds no object for it" ] ||
  fail "save --switch of a switch the kernel lacks"
"$dvsctl" store load --json >"$work/load.json"
grep -q '"id": "sw-a"' "$work/load.json" && grep -q '"alias": "vm-1"' "$work/load.json" ||
  fail "load: $(cat "$work/load.json")"
"$dvsctl" store load -o "$work/host.blob" | grep -q "^$work/host.blob: [0-9]* bytes written (host blob of 1 switch)$" ||
  fail "load -o summary"

# Restored into a restarted kernel from the store alone.
stop_sim
start_sim
[ "$("$dvsctl" store restore)" = "kernel state replaced: 1 switch from the configuration store" ] ||
  fail "restore summary"
"$dvsctl" kernel show --json >"$work/kernel.json"
grep -q '"id": "sw-a"' "$work/kernel.json" && grep -q '"text": "alpha"' "$work/kernel.json" &&
  grep -q '"alias": "vm-1"' "$work/kernel.json" || fail "restored: $(cat "$work/kernel.json")"

# The loaded blob saved into another store builds the same blob again.
CONFIGSTORE_PATH=$work/other.db "$dvsctl" store save-blob "$work/host.blob" >/dev/null
CONFIGSTORE_PATH=$work/other.db "$dvsctl" store load --json | diff -u "$work/load.json" - >&2 ||
  fail "save-blob of a loaded blob"

# The state file carried over: identity and port-set name only.
"$dvsctl" kernel persist "$work/dvsdata.db" >/dev/null
export CONFIGSTORE_PATH=$work/upgrade.db
[ "$("$dvsctl" store upgrade --state-file "$work/dvsdata.db")" = \
  "$work/dvsdata.db: 1 switch, 1 with a port-set name written to the configuration store: sw-a" ] ||
  fail "upgrade summary"
"$dvsctl" store show sw-a | grep -q '"portset_name": "ps-a"' || fail "upgrade: no port-set name"
"$dvsctl" store upgrade --state-file "$work/none.db" | grep -q ': nothing to carry over$' ||
  fail "upgrade without a state file"

# Failures: a missing or malformed blob, a switch without version in the
# store, a database that is not a store.
refused "$work/none.blob: cannot open: .*" store save-blob "$work/none.blob"
echo garbage >"$work/garbage"
refused "$work/garbage: cannot decode blob: bad data: buffer size 8 smaller than minimum header size \(Bad parameter, 0x[0-9a-f]+\)" \
  store save-blob "$work/garbage"
refused "cannot read state file $work/garbage: .*" store upgrade --state-file "$work/garbage"
"$dvsctl" state make-sample "$work/sample.blob"
export CONFIGSTORE_PATH=$work/sample.db
"$dvsctl" store save-blob "$work/sample.blob" >/dev/null
refused 'cannot build the host blob from the configuration store: no such object, sub-object or value \(kNotFound, configstore code 6\)' \
  store load
export CONFIGSTORE_PATH=$work/garbage
corrupt="$work/garbage: the database file is damaged or not a store \(kCorrupt, configstore code 10\)"
refused "cannot build the host blob from the configuration store: $corrupt" store restore
refused "$work/sample.blob: cannot save to the configuration store: the store mapping failed \(code -1\): cannot open the configuration store: $corrupt" \
  store save-blob "$work/sample.blob"
"$dvsctl" kernel show --json | grep -q '"id": "sw-a"' || fail "a failed restore changed the kernel"
echo "ok: store state"
