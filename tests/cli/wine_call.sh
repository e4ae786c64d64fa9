#!/usr/bin/env bash
# kvl.exe under Wine: one call, its JSON reply and its exit code, against the
# emulator (also under Wine). Usage: wine_call.sh WINE EMULATOR.exe KVL.exe
set -uo pipefail
wine=$1 emulator=$2 kvl=$3
tmp=$(mktemp -d)
"$wine" "$emulator" -p 0 --port-file "$tmp/port" >/dev/null 2>&1 &
emu=$!
trap 'kill "$emu" 2>/dev/null; wait "$emu" 2>/dev/null; rm -rf "$tmp"' EXIT
for _ in $(seq 1 200); do [[ -s "$tmp/port" ]] && break; sleep 0.1; done
port=$(tr -d '\r\n' <"$tmp/port" 2>/dev/null)
[[ -n "$port" ]] || { echo "emulator did not start"; exit 1; }

out=$(timeout 120 "$wine" "$kvl" --port "$port" --json call ECHO "hello from wine" | tr -d '\r')
rc=$?
echo "$out"
[[ $rc -eq 0 ]] || { echo "call failed: $rc"; exit 1; }
[[ "$out" == *'"hex":"68656c6c6f2066726f6d2077696e65"'* ]] || { echo "unexpected reply"; exit 1; }

timeout 120 "$wine" "$kvl" --port "$port" call ABEND AB12 >/dev/null 2>&1
rc=$?
[[ $rc -eq 1 ]] || { echo "abend gave exit $rc, expected 1"; exit 1; }
echo "kvl.exe under Wine: call and exit codes as expected"
