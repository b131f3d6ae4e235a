#!/usr/bin/env bash
# dvsctl against the kernel switch simulator: a host's state built through
# "kernel" commands, persisted, lost in a simulator restart and restored
# from the state file.  Usage: dvsctl_kernel_test.sh DVSCTL DVS_KERNEL_SIM
set -euo pipefail

dvsctl=$1
sim=$2
# shellcheck source-path=SCRIPTDIR source=sim_test_lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/sim_test_lib.sh"

# Nothing listens yet: library failures carry the status text and code.
refused 'cannot get the kernel state: .* \(0x[0-9a-f]+\)' kernel show
refused "cannot read state file $work/none.db: No such file or directory \(Not found, 0xbad0003\)" \
  file show "$work/none.db"

start_sim
"$dvsctl" kernel switch-add sw-a etherswitch 64 6
"$dvsctl" kernel prop-set sw-a com.ostrel.common.alias alpha
"$dvsctl" kernel prop-set sw-a com.ostrel.test.volatile.counter 7 --host
"$dvsctl" kernel port-add sw-a p1 --alias vm-1
"$dvsctl" kernel port-add sw-a p1 --alias vm-1 --type shadow
"$dvsctl" kernel port-add sw-a p2 --type zombie
refused 'cannot add port p1 of switch sw-a: .* \(0xbad0005\)' kernel port-add sw-a p1
[ "$("$dvsctl" kernel exec sw-a ports | cut -d' ' -f1-2 | tr '\n' ' ')" = "p1 active p1 shadow p2 zombie " ] ||
  fail "ports: $("$dvsctl" kernel exec sw-a ports)"
"$dvsctl" kernel show --json | grep -q '"name": "com.ostrel.test.volatile.counter"' ||
  fail "volatile property not set"

# Persisted: the blob is padded to whole sectors; volatile properties and
# ports that are not active stay behind.
"$dvsctl" kernel persist "$work/dvsdata.db" | grep -q "^$work/dvsdata.db: [0-9]* bytes written" ||
  fail "persist output"
[ $(($(wc -c <"$work/dvsdata.db") % 512)) -eq 0 ] || fail "state file not sector-padded"
"$dvsctl" file show --json "$work/dvsdata.db" >"$work/file.json"
grep -q '"alias": "alpha"' "$work/file.json" || fail "file: $(cat "$work/file.json")"
! grep -Eq 'volatile.counter|"type": "(shadow|zombie)"' "$work/file.json" ||
  fail "file holds volatile state: $(cat "$work/file.json")"

stop_sim
start_sim
"$dvsctl" kernel show | grep -q ', 0 switches$' || fail "state survived the restart"
"$dvsctl" kernel restore "$work/dvsdata.db"
"$dvsctl" kernel show --json >"$work/kernel.json"
diff -u "$work/file.json" "$work/kernel.json" >&2 || fail "restored state differs from the file"
echo "ok: kernel"
