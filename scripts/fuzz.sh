#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (build/fuzz: AddressSanitizer,
# UndefinedBehaviorSanitizer) and runs each for a bounded time: 15 seconds by
# default, or as many seconds as the first argument says. Each target starts
# from its seeds in tests/fuzz/corpus/<target> plus what earlier runs found
# (build/fuzz/corpus/<target>); a failing input lands in
# build/fuzz/artifacts/<target>/ and makes the script fail.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-15}
targets=(qmail_line conf message_id control_lines lmtp_reply)

CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DFERNDROP_FUZZ=ON -DFERNDROP_TESTS=OFF -DFERNDROP_STATIC=OFF >/dev/null
cmake --build build/fuzz --target fuzz_targets -j"$(nproc)"

failed=0
total=0
for t in "${targets[@]}"; do
  work=build/fuzz/corpus/$t
  artifacts=build/fuzz/artifacts/$t/
  log=build/fuzz/$t.log
  mkdir -p "$work" "$artifacts"
  dict=()
  [ -f "tests/fuzz/$t.dict" ] && dict=(-dict="tests/fuzz/$t.dict")
  # New inputs go to the first directory only, so the seeds stay as committed.
  if build/fuzz/tests/fuzz/fuzz_"$t" "${dict[@]}" -max_total_time="$seconds" -timeout=10 \
       -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$artifacts" \
       "$work" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    total=$((total + ${runs:-0}))
    printf 'fuzz %-14s %12s executions in %ss, no defect\n' "$t" "${runs:-?}" "$seconds"
  else
    failed=1
    echo "fuzz $t FAILED (log: $log, inputs: $artifacts)"
    tail -n 40 "$log"
  fi
done
printf 'fuzz total          %12s executions\n' "$total"
exit "$failed"
