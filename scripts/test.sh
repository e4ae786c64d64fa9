#!/usr/bin/env bash
# Builds and runs every test: the Linux library under AddressSanitizer and
# UndefinedBehaviorSanitizer, ThreadSanitizer over the concurrency and stress
# tests, a one-minute run of the wire fuzzer, the Python package's tests against
# a plain build of the library, then KVLCLIENT.dll cross-built with MinGW-w64 and
# the same tests under Wine. Ends with one line: "total: N passed, M failed".
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

# run_python: the Python package's pytest suite. Python cannot load a sanitised
# library without preloading the sanitiser runtime, so it gets a plain build of
# the library and the emulator of its own (build/python, no test programs).
run_python() {
  local log dir=build/python
  log=$(mktemp)
  echo "=== Python package: build the plain library and the emulator ==="
  if ! cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVL_BUILD_TESTS=OFF >"$log" 2>&1 ||
     ! cmake --build "$dir" --target kvlclient kvl-gateway-emulator -j "$jobs" >>"$log" 2>&1; then
    tail -n 60 "$log"
    echo "Python package: build failed"
    failed=$((failed + 1))
    status=1
    return
  fi
  echo "=== Python package: pytest ==="
  # The TLS tests take their certificates from the Linux test build's kvl_test_certs (skipped without it).
  KVLCLIENT_LIBRARY=$PWD/$dir/lib/libkvlclient.so KVLCLIENT_EMULATOR=$PWD/$dir/bin/kvl-gateway-emulator \
    KVLCLIENT_TLS_CERT_TOOL=$PWD/build/linux-asan/bin/kvl_test_certs PYTHONDONTWRITEBYTECODE=1 \
    timeout 900 /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests 2>&1 |
    tee "$log"
  local rc=${PIPESTATUS[0]} summary npass nfail
  summary=$(grep -E '^(=+ )?[0-9]+ (passed|failed|errors?)' "$log" | tail -n 1)
  npass=$(grep -oE '[0-9]+ passed' <<<"$summary" | grep -oE '[0-9]+' || true)
  npass=${npass:-0}
  nfail=0
  for n in $(grep -oE '[0-9]+ (failed|errors?)' <<<"$summary" | grep -oE '[0-9]+'); do nfail=$((nfail + n)); done
  # Exit code 5 is "no tests collected"; any other failure without a count is one failure.
  if ((rc != 0 && nfail == 0)); then
    echo "Python package: pytest exited with $rc"
    nfail=1
  fi
  passed=$((passed + npass))
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
if [[ -z "${KVL_SKIP_PYTHON:-}" ]]; then run_python; fi
if [[ -z "${KVL_SKIP_WINDOWS:-}" ]]; then
  wineboot -i >/dev/null 2>&1 || true
  run_suite "Windows (MinGW-w64 under Wine)" windows
fi

# The Windows DLL's TLS under Wine against the Linux emulator (both builds needed).
emu_bin=build/linux-asan/bin/kvl-gateway-emulator
probe_exe=build/windows/bin/tls_probe.exe
if [[ -z "${KVL_SKIP_LINUX:-}${KVL_SKIP_WINDOWS:-}" && -x "$emu_bin" && -f "$probe_exe" ]]; then
  echo "=== Windows TLS under Wine against the Linux emulator ==="
  if tests/tls/wine_tls.sh "$emu_bin" "$probe_exe"; then passed=$((passed + 1)); else failed=$((failed + 1)); status=1; fi
fi
# kvl.exe over TLS under Wine, with the TLS tests' certificates from the Linux build.
certs_bin=build/linux-asan/bin/kvl_test_certs
kvl_exe=build/windows/bin/kvl.exe
if [[ -z "${KVL_SKIP_LINUX:-}${KVL_SKIP_WINDOWS:-}" && -x "$emu_bin" && -x "$certs_bin" && -f "$kvl_exe" ]]; then
  echo "=== kvl.exe over TLS under Wine against the Linux emulator ==="
  if tests/cli/wine_tls_call.sh "$emu_bin" "$certs_bin" "$kvl_exe"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    status=1
  fi
fi

echo "total: $passed passed, $failed failed"
exit $status
