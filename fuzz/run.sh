#!/usr/bin/env bash
# Runs the differential fuzzer for a while and prints its figures in one line:
#   fuzz/run.sh FUZZER SECONDS SEED_CORPUS WORK_DIR
# New inputs go to WORK_DIR/corpus (the committed seed corpus is only read). A mismatch with the
# model or a sanitizer report ends the run with a crash file in WORK_DIR and a non-zero exit.
set -uo pipefail
fuzzer=$1 seconds=$2 seeds=$3 work=$4
mkdir -p "$work/corpus"
log="$work/fuzz.log"
# Two inputs at once would double the memory of the big appends for no gain on two cores.
"$fuzzer" -max_total_time="$seconds" -print_final_stats=1 -rss_limit_mb=4096 -timeout=60 \
  -artifact_prefix="$work/" "$work/corpus" "$seeds" >"$log" 2>&1
rc=$?
runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
last=$(grep -E '^#[0-9]+' "$log" | tail -1)
cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
corpus=$(sed -n 's/.* corp: \([0-9]*\).*/\1/p' <<<"$last")
crashes=$(ls "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-* 2>/dev/null | wc -l)
mismatches=$(grep -c '^check failed:' "$log")
echo "fuzz: ${seconds} s, executions=${runs:-0} coverage=${cov:-0} features=${ft:-0}" \
  "corpus=${corpus:-0} crashes=$crashes mismatches=$mismatches (exit $rc)"
if [ "$rc" -ne 0 ]; then
  tail -40 "$log"
  exit 1
fi
