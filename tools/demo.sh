#!/usr/bin/env bash
# Demo run behind "make demo": builds a sample property blob with dvsctl and
# shows it as text and as JSON; then builds a small switch registry with the
# library, writes its host configuration blob and shows it switch by switch
# and raw.  Usage: tools/demo.sh BUILD_DIR
set -euo pipefail

build_dir=${1:?usage: $0 BUILD_DIR}
dvsctl="$build_dir/tools/dvsctl"
if [ ! -x "$dvsctl" ]; then
  echo "demo: $dvsctl not found; build first (make build)" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

step() { printf '\n== %s\n' "$*"; }

step "Writing a sample switch property blob (two nested lists, one empty)"
"$dvsctl" blob make-sample "$work/switch.blob"
echo "$work/switch.blob: $(wc -c <"$work/switch.blob") bytes"

step "Decoding it: one line per property, nested blobs indented"
"$dvsctl" blob show "$work/switch.blob"

step "The same blob as JSON"
"$dvsctl" blob show --json "$work/switch.blob"

step "Building a small switch registry and writing its host configuration blob"
"$dvsctl" state make-sample "$work/host.blob"
echo "$work/host.blob: $(wc -c <"$work/host.blob") bytes (2 switches, ports of all four types)"

step "The host blob, switch by switch"
"$dvsctl" state show "$work/host.blob"

step "The same blob, raw: switch blobs nested in the host blob, port data nested in them"
"$dvsctl" blob show "$work/host.blob"
