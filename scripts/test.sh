#!/usr/bin/env bash
# Builds and runs every test: the Linux library under AddressSanitizer and
# UndefinedBehaviorSanitizer, then KVLCLIENT.dll cross-built with MinGW-w64 and
# the same tests under Wine, ThreadSanitizer over the concurrency and stress
# tests, and a one-minute run of the wire fuzzer. Ends with one line: "total: N passed, M failed".
set -uo pipefail
cd "$(dirname "$0")/.."

scripts/ensure-packages.sh --windows --tests || exit 1

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export WINEDEBUG=${WINEDEBUG:--all}
export WINEPREFIX=${WINEPREFIX:-$PWD/build/wineprefix}
jobs=$(nproc)

passed=0
failed=0
status=0

# run_suite NAME PRESET: configure, build and test one preset; add its counts.
run_suite() {
  local name=$1 preset=$2 log
  log=$(mktemp)
  echo "=== $name: configure and build ==="
  if ! cmake --preset "$preset" >"$log" 2>&1 || ! cmake --build --preset "$preset" -j "$jobs" >>"$log" 2>&1; then
    tail -n 60 "$log"
    echo "$name: build failed"
    failed=$((failed + 1))
    status=1
    return
  fi
  echo "=== $name: tests ==="
  ctest --preset "$preset" -j "$jobs" 2>&1 | tee "$log"
  local summary
  summary=$(grep -E '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
  if [[ -z "$summary" ]]; then
    echo "$name: no test summary"
    failed=$((failed + 1))
    status=1
    return
  fi
  local nfail total
  nfail=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$summary")
  total=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/' <<<"$summary")
  passed=$((passed + total - nfail))
  failed=$((failed + nfail))
  ((nfail == 0)) || status=1
}

if [[ -z "${KVL_SKIP_LINUX:-}" ]]; then run_suite "Linux (ASan+UBSan)" linux-asan; fi
# ThreadSanitizer over the concurrency tests and the stress test.
if [[ -z "${KVL_SKIP_TSAN:-}" ]]; then
  TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1} run_suite "Linux (TSan)" linux-tsan
fi
# A bounded run of the wire fuzzer; counts as one test.
if [[ -z "${KVL_SKIP_FUZZ:-}" ]]; then
  echo "=== wire fuzzer: ${KVL_FUZZ_SECONDS:-60} s ==="
  if scripts/fuzz.sh "${KVL_FUZZ_SECONDS:-60}"; then passed=$((passed + 1)); else failed=$((failed + 1)); status=1; fi
fi
if [[ -z "${KVL_SKIP_WINDOWS:-}" ]]; then
  wineboot -i >/dev/null 2>&1 || true
  run_suite "Windows (MinGW-w64 under Wine)" windows
fi

echo "total: $passed passed, $failed failed"
exit $status
