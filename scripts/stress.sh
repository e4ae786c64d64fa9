#!/usr/bin/env bash
# Runs the stress test (tests/reliability) for SECONDS (default 600) under
# AddressSanitizer and UndefinedBehaviorSanitizer; prints its figures.
# Usage: scripts/stress.sh [SECONDS] [PRESET]   (PRESET linux-asan or linux-tsan)
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
preset=${2:-linux-asan}

log=$(mktemp)
if ! cmake --preset "$preset" >"$log" 2>&1 ||
   ! cmake --build "build/$preset" -j "$(nproc)" --target reliability_stress_tests >>"$log" 2>&1; then
  tail -n 40 "$log"
  echo "stress: build failed"
  exit 1
fi
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
KVL_STRESS_SECONDS=$seconds "build/$preset/bin/reliability_stress_tests" 2>&1 | grep -av '^Channel\|^---\|^Total\|^Gateway\|^kvlclient\|^   Container\|^The '
exit "${PIPESTATUS[0]}"
