#!/usr/bin/env bash
# The fuzz campaign: every target in turn, on one core, from its committed
# seeds, until it has run FUZZ_RUNS inputs (10 million) or FUZZ_SECONDS
# (one hour), whichever comes first. Builds the targets with the clang preset
# first. Prints one line per target (executions, executions a second, result)
# and exits non-zero when any target found a fault.
#
#   fuzz/campaign.sh                  every target, full length
#   FUZZ_SECONDS=120 fuzz/campaign.sh utf8_to_utf16 base64_decode
#
# Each target's log, grown corpus and crash inputs stay in build/fuzz-campaign/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
FUZZ_RUNS=${FUZZ_RUNS:-10000000}
FUZZ_SECONDS=${FUZZ_SECONDS:-3600}

cmake --preset clang >/dev/null
targets=("$@")
if ((${#targets[@]} == 0)); then
  for f in fuzz/*.cpp; do targets+=("$(basename "$f" .cpp)"); done
fi
cmake --build --preset clang --target "${targets[@]}"

out=build/fuzz-campaign
failed=0
printf '%-26s %12s %8s  %s\n' target executions exec/s result
for name in "${targets[@]}"; do
  dir="$out/$name"
  rm -rf "$dir"
  mkdir -p "$dir/corpus" "$dir/crashes"
  cp -r "fuzz/corpus/$name/." "$dir/corpus/"
  start=$(date +%s)
  status=0
  "build/clang/fuzz/$name" -runs="$FUZZ_RUNS" -max_total_time="$FUZZ_SECONDS" -max_len=4096 \
    -print_final_stats=1 -artifact_prefix="$dir/crashes/" "$dir/corpus" >"$dir/log" 2>&1 || status=$?
  seconds=$(( $(date +%s) - start ))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n 1)
  runs=${runs:-?}
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$dir/log" | tail -n 1)
  rate=${rate:-?}
  if ((status == 0)); then
    result="ok (${seconds}s)"
  else
    result="FAULT (exit $status): $(ls "$dir/crashes" | head -n 1), see $dir/log"
    failed=1
  fi
  printf '%-26s %12s %8s  %s\n' "$name" "$runs" "$rate" "$result"
done
exit "$failed"
