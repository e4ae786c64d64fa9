#!/usr/bin/env bash
# kvl.exe over TLS (Schannel) under Wine against the Linux emulator serving TLS
# with the TLS tests' certificates: a call trusting the CA, and a refusal of an
# untrusted CA with exit 3 and the library's reason.
# Usage: wine_tls_call.sh EMULATOR KVL_TEST_CERTS KVL.EXE. Exit 0 when both hold.
set -uo pipefail
emulator=$(realpath "$1") certtool=$(realpath "$2") kvl=$(realpath "$3")
dir=$(mktemp -d)
emu_pid=
cleanup() { [[ -n "$emu_pid" ]] && kill "$emu_pid" 2>/dev/null; wait 2>/dev/null; rm -rf "$dir"; }
trap cleanup EXIT
ASAN_OPTIONS=detect_leaks=0 "$certtool" "$dir" || { echo "no certificates"; exit 1; }
ASAN_OPTIONS=detect_leaks=0 "$emulator" --tls-cert "$dir/server.pem" --tls-key "$dir/server.key" \
  --port-file "$dir/port" -v 0 >"$dir/emu.log" 2>&1 &
emu_pid=$!
for _ in $(seq 300); do [[ -s "$dir/port" ]] && break; sleep 0.1; done
port=$(cat "$dir/port" 2>/dev/null) || { echo "emulator did not start:"; cat "$dir/emu.log"; exit 1; }
winpath() { echo "Z:${1//\//\\}"; }

out=$(timeout 120 wine "$kvl" --host localhost --port "$port" --connect-timeout 20 --tls \
  --ca "$(winpath "$dir/ca.pem")" --json call ECHO "over TLS" 2>&1 | tr -d '\r')
[[ "$out" == *'"text":"over TLS"'* ]] || { echo "FAILED: call over TLS: $out"; exit 1; }
out=$(timeout 120 wine "$kvl" --host localhost --port "$port" --connect-timeout 20 --tls \
  --ca "$(winpath "$dir/rogue-ca.pem")" ping 2>&1 | tr -d '\r')
rc=$?
[[ $rc -eq 3 && "$out" == *"KVL_EXT_ERR_TLS_VERIFY (-923)"* ]] || { echo "FAILED: untrusted CA gave $rc: $out"; exit 1; }
echo "kvl.exe over TLS under Wine: call and refusal as expected"
