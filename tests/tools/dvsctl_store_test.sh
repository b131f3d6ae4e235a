#!/usr/bin/env bash
# dvsctl store against a fresh database: put, list, show (plain and
# stored shapes, live and desired), delete, and the failures' messages.
# Usage: dvsctl_store_test.sh DVSCTL
set -euo pipefail

dvsctl=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export CONFIGSTORE_PATH=$work/store.db
fail() { echo "FAIL: $*" >&2; exit 1; }

cat >"$work/sw.json" <<'JSON'
{"name": "sw-a", "mtu": 9000, "uplinks": ["nic0", "nic1"], "policy": {"mode": "trunk"},
 "ports": [{"key": "7", "name": "web"}, {"key": "3", "name": "db", "enabled": false}]}
JSON
"$dvsctl" store put a "$work/sw.json"
echo '{"name": "sw-b"}' | "$dvsctl" store put b -
echo '{"name": "wanted"}' | "$dvsctl" store put a - --desired
[ "$("$dvsctl" store list | tr '\n' ' ')" = "a b " ] || fail "list: $("$dvsctl" store list)"
[ -z "$("$dvsctl" store list other network_tds node)" ] || fail "list of another group"

# show prints what put took, members and instances in their order.
want='{"name":"sw-a","mtu":9000,"uplinks":["nic0","nic1"],"policy":{"mode":"trunk"},'
want+='"ports":[{"key":"7","name":"web"},{"key":"3","name":"db","enabled":false}]}'
[ "$("$dvsctl" store show a | tr -d ' \n')" = "$want" ] || fail "show: $("$dvsctl" store show a)"
"$dvsctl" store show a --stored | grep -q '"subobjects"' || fail "stored shape"
"$dvsctl" store show a --desired | grep -q '"name": "wanted"' || fail "desired"

expect_error() {  # PATTERN COMMAND...: status 1, nothing on stdout, the message
  local pattern=$1 rc=0; shift
  "$dvsctl" "$@" >"$work/out" 2>"$work/err" || rc=$?
  [ "$rc" -eq 1 ] && [ ! -s "$work/out" ] && grep -q "^dvsctl: $pattern$" "$work/err" ||
    fail "$*: status $rc, $(cat "$work/err")"
}
"$dvsctl" store delete a
gone='no such object, sub-object or value (kNotFound, configstore code 6)'
expect_error "cannot get switches/network_tds/node/a: $gone" store show a
expect_error "cannot get desired switches/network_tds/node/a: $gone" store show a --desired
expect_error "cannot delete switches/network_tds/node/a: $gone" store delete a
echo '{"x": [1, "y"]}' >"$work/bad.json"
expect_error "$work/bad.json: cannot make switches/network_tds/node/c: .* (k[A-Za-z]*, configstore code [0-9]*)" \
  store put c "$work/bad.json"
# A store file that cannot be opened is named, with the reason (also when
# this script runs over a cluster).
echo 'not a database' >"$work/text.db"
CONFIGSTORE_URL='' CONFIGSTORE_PATH=$work/text.db expect_error \
  "cannot open the configuration store: $work/text.db: the database file is damaged or not a store (kCorrupt, configstore code 10)" \
  store list
mkdir "$work/dir.db"
CONFIGSTORE_URL='' CONFIGSTORE_PATH=$work/dir.db expect_error \
  "cannot open the configuration store: $work/dir.db: the database could not be opened, read or written (kDatabaseError, configstore code 5)" \
  store show b
[ "$("$dvsctl" store list)" = b ] || fail "list after delete: $("$dvsctl" store list)"
echo "ok: store"
