#!/usr/bin/env bash
# End-to-end checks of the dvsctl program.  Usage: dvsctl_cli_test.sh CASE DVSCTL
set -euo pipefail

case_name=$1
dvsctl=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

"$dvsctl" blob make-sample "$work/sample.blob"

case $case_name in
damaged)
  # Flip one byte inside a record, then cut the file short: both must be
  # refused with status 1, a message on stderr and nothing on stdout.
  cp "$work/sample.blob" "$work/flipped.blob"
  printf '\377' | dd of="$work/flipped.blob" bs=1 seek=300 conv=notrunc 2>/dev/null
  head -c 100 "$work/sample.blob" >"$work/short.blob"
  for f in flipped short; do
    rc=0
    "$dvsctl" blob show "$work/$f.blob" >"$work/out" 2>"$work/err" || rc=$?
    [ "$rc" -eq 1 ] || fail "$f: exit status $rc, expected 1"
    [ ! -s "$work/out" ] || fail "$f: printed to stdout: $(cat "$work/out")"
    grep -q "^dvsctl: $work/$f.blob: cannot decode blob: .* (0xbad00[0-9a-f]*)$" "$work/err" ||
      fail "$f: unexpected message: $(cat "$work/err")"
  done
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
