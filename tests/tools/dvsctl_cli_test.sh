#!/usr/bin/env bash
# End-to-end checks of the dvsctl program.  Usage: dvsctl_cli_test.sh CASE DVSCTL
set -euo pipefail

case_name=$1
dvsctl=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
# Runs dvsctl expecting exit status 1, no output and a message matching $1.
refused() {
  local pattern=$1 rc=0
  shift
  "$dvsctl" "$@" >"$work/out" 2>"$work/err" || rc=$?
  [ "$rc" -eq 1 ] && [ ! -s "$work/out" ] && grep -Eq "^dvsctl: $pattern$" "$work/err" ||
    fail "$*: status $rc, $(cat "$work/out" "$work/err")"
}

"$dvsctl" blob make-sample "$work/sample.blob"

case $case_name in
damaged)
  # A damaged blob is refused with status 1, nothing on stdout and the
  # reader's own reason before the status: a flipped byte fails the
  # checksum, a file cut short the length in its header, a scrap the
  # minimum header size.  Every command reading blobs says the same.
  cp "$work/sample.blob" "$work/flipped.blob"
  printf '\377' | dd of="$work/flipped.blob" bs=1 seek=300 conv=notrunc 2>/dev/null
  head -c 100 "$work/sample.blob" >"$work/short.blob"
  head -c 15 "$work/sample.blob" >"$work/scrap.blob"
  hex='0x[0-9a-f]+'
  size=$(stat -c %s "$work/sample.blob")
  refused "$work/flipped.blob: cannot decode blob: bad chksum: expected $hex, actual $hex \(Bad checksum, $hex\)" \
    blob show "$work/flipped.blob"
  refused "$work/short.blob: cannot decode blob: bad data: buffer size 100 smaller than size $size in header \(Bad parameter, $hex\)" \
    blob show "$work/short.blob"
  scrap="cannot decode blob: bad data: buffer size 15 smaller than minimum header size \(Bad parameter, $hex\)"
  refused "$work/scrap.blob: $scrap" blob show "$work/scrap.blob"
  "$dvsctl" state make-sample "$work/host.blob"
  refused "<stdin>: $scrap" state show - <"$work/scrap.blob"
  refused "$work/scrap.blob: $scrap" state diff "$work/host.blob" "$work/scrap.blob"
  # A state file holding a damaged blob.
  cp "$work/host.blob" "$work/dvsdata.db"
  printf '\377' | dd of="$work/dvsdata.db" bs=1 seek=100 conv=notrunc 2>/dev/null
  truncate -s 64K "$work/dvsdata.db"
  refused "$work/dvsdata.db: cannot decode blob: bad chksum: expected $hex, actual $hex \(Bad checksum, $hex\)" \
    file show "$work/dvsdata.db"
  refused "$work/none.blob: cannot open: No such file or directory" blob show "$work/none.blob"
  ;;
roundtrip)
  "$dvsctl" blob show "$work/sample.blob" >"$work/text"
  grep -q '^  globalPropList .* blob, 2 records' "$work/text" || fail "text: $(cat "$work/text")"
  grep -q '^    com\.ostrel\.common\.alias .* "dvs-demo"$' "$work/text" ||
    fail "text: $(cat "$work/text")"
  "$dvsctl" blob show --json - <"$work/sample.blob" >"$work/json"
  grep -q '"name": "globalPropList"' "$work/json" || fail "json: $(cat "$work/json")"
  grep -q '"text": "dvs-demo"' "$work/json" || fail "json: $(cat "$work/json")"
  ;;
state)
  # A registry built by the library, shown switch by switch; a plain switch
  # blob is refused.
  "$dvsctl" state make-sample "$work/host.blob"
  "$dvsctl" state show "$work/host.blob" >"$work/text"
  grep -q '^switch .*  class etherswitch  version 6  maxPorts [0-9]*  alias dvs-prod$' "$work/text" ||
    fail "text: $(cat "$work/text")"
  grep -q '^switch lab-0  class labswitch  version 100  maxPorts 16  alias dvs-lab$' "$work/text" ||
    fail "text: $(cat "$work/text")"
  grep -q '^    10  shadow  *alias web-01 ' "$work/text" || fail "text: $(cat "$work/text")"
  "$dvsctl" state show --json - <"$work/host.blob" | grep -q '"type": "local-cache"' ||
    fail "json: no local-cache port"
  rc=0
  "$dvsctl" state show "$work/sample.blob" >/dev/null 2>"$work/err" || rc=$?
  [ "$rc" -eq 1 ] && grep -q 'not a host configuration blob' "$work/err" ||
    fail "switch blob: status $rc, $(cat "$work/err")"
  ;;
*)
  fail "unknown case $case_name"
  ;;
esac
echo "ok: $case_name"
