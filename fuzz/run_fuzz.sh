#!/usr/bin/env bash
# Runs every libFuzzer harness of a fuzz build for a given time, one after
# the other, and prints one table: harness, executions, seconds, coverage
# (cov/ft of libFuzzer's last status line) and findings (crash, leak,
# timeout and out-of-memory files).  Exits non-zero on any finding.
#
#   fuzz/run_fuzz.sh BUILD_DIR SECONDS [HARNESS...]
#
# RUNS=N also stops each harness after N executions.  The seed corpora are
# written afresh by BUILD_DIR/fuzz/fuzz_corpus; what a run adds is kept in
# BUILD_DIR/fuzz-corpus/<harness>, findings land in BUILD_DIR/fuzz-findings
# and the logs in BUILD_DIR/fuzz-logs.  Scratch files go to a private
# directory on /dev/shm (else /tmp), removed at the end.
set -euo pipefail

if [ $# -lt 2 ]; then
  echo "usage: $0 BUILD_DIR SECONDS [HARNESS...]" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
duration=$2
shift 2
harnesses=("$@")
if [ ${#harnesses[@]} -eq 0 ]; then
  harnesses=(blob_reader_fuzz config_blob_fuzz state_file_fuzz store_object_fuzz
             store_file_fuzz store_load_fuzz sim_request_fuzz persistent_state_fuzz)
fi
runs=${RUNS:--1}

scratch_base=/dev/shm
[ -d "$scratch_base" ] && [ -w "$scratch_base" ] || scratch_base=/tmp
scratch=$(mktemp -d "$scratch_base/dvs-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

seeds="$scratch/seeds"
"$build/fuzz/fuzz_corpus" "$seeds" >/dev/null
mkdir -p "$build/fuzz-corpus" "$build/fuzz-findings" "$build/fuzz-logs"

rows=()
total_findings=0
for h in "${harnesses[@]}"; do
  corpus="$build/fuzz-corpus/$h"
  log="$build/fuzz-logs/$h.log"
  mkdir -p "$corpus" "$scratch/tmp-$h"
  rm -f "$build/fuzz-findings/$h"-*
  start=$(date +%s)
  set +e
  # The outer timeout only guards against a harness that stops answering.
  TMPDIR="$scratch/tmp-$h" ASAN_OPTIONS=detect_leaks=1 \
    timeout --kill-after=10 $((duration + 120)) "$build/fuzz/$h" "$corpus" "$seeds/$h" \
      -max_total_time="$duration" -runs="$runs" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$build/fuzz-findings/$h-" >"$log" 2>&1
  rc=$?
  set -e
  elapsed=$(( $(date +%s) - start ))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  status=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$status")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$status")
  found=$(find "$build/fuzz-findings" -maxdepth 1 -name "$h-*" | wc -l)
  if [ "$rc" -ne 0 ] && [ "$found" -eq 0 ]; then
    found=1  # a failure that left no input behind (see the log)
  fi
  total_findings=$((total_findings + found))
  rows+=("$(printf '%-22s %12s %8s %8s %8s %9s' "$h" "${execs:-?}" "$elapsed" \
    "${cov:-?}" "${ft:-?}" "$found")")
done

printf '%-22s %12s %8s %8s %8s %9s\n' harness executions seconds cov ft findings
printf '%s\n' "${rows[@]}"
if [ "$total_findings" -ne 0 ]; then
  echo "fuzz: $total_findings finding(s); inputs in $build/fuzz-findings, logs in $build/fuzz-logs" >&2
  exit 1
fi
