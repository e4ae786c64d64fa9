#!/usr/bin/env bash
# Runs the wire fuzzer (libFuzzer playing a hostile Gateway against every call
# kind, with ASan, UBSan and leak checks) for SECONDS (default 60).
# Usage: scripts/fuzz.sh [SECONDS]
# The corpus grows in build/linux-fuzz/corpus (seeded with valid replies);
# anything found lands in build/linux-fuzz/findings. Exit status 1 on a finding.
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

scripts/ensure-packages.sh --tests >/dev/null || exit 1
log=$(mktemp)
if ! cmake --preset linux-fuzz >"$log" 2>&1 ||
   ! cmake --build build/linux-fuzz -j "$(nproc)" --target wire_fuzzer wire_fuzz_seeds >>"$log" 2>&1; then
  tail -n 40 "$log"
  echo "fuzz: build failed"
  exit 1
fi

dir=build/linux-fuzz
mkdir -p "$dir/corpus" "$dir/seeds" "$dir/findings"
"$dir/bin/wire_fuzz_seeds" "$dir/seeds" >/dev/null || exit 1
before=$(ls "$dir/findings" | wc -l)

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
# The library's dumps go to standard output; only libFuzzer's report is kept.
"$dir/bin/wire_fuzzer" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -max_len=8192 \
  -print_final_stats=1 -artifact_prefix="$dir/findings/" "$dir/corpus" "$dir/seeds" >/dev/null 2>"$log"
status=$?

runs=$(grep -Eo 'stat::number_of_executed_units: *[0-9]+' "$log" | grep -Eo '[0-9]+$' || echo 0)
cov=$(grep -Eo 'cov: [0-9]+' "$log" | tail -n 1)
after=$(ls "$dir/findings" | wc -l)
echo "fuzz: ${seconds} s, ${runs} executions, ${cov:-cov: ?}, corpus $(ls "$dir/corpus" | wc -l) inputs, $((after - before)) findings"
if ((status != 0 || after > before)); then
  grep -E 'ERROR|SUMMARY|abort|did not return' "$log" | head -n 20
  exit 1
fi
exit 0
