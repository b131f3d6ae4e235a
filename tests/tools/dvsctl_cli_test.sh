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
*)
  fail "unknown case $case_name"
  ;;
esac
echo "ok: $case_name"
