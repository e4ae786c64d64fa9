#!/usr/bin/env bash
# KVLCLIENT's Schannel TLS under Wine against the Linux emulator over TLS:
# a call with the CA file, then an unknown CA and a wrong name (both -923).
# Usage: wine_tls.sh EMULATOR TLS_PROBE_EXE. Exit 0 when every case holds.
set -u
emulator=$(realpath "$1") probe=$(realpath "$2")
dir=$(mktemp -d)
emu_pid=
cleanup() { [[ -n "$emu_pid" ]] && kill "$emu_pid" 2>/dev/null; wait 2>/dev/null; rm -rf "$dir"; }
trap cleanup EXIT
cd "$dir" || exit 1
ca() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" -out "$1.pem" -days 2 \
  -subj "/CN=$1" -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign" 2>/dev/null; }
ca ca && ca rogue || exit 1
openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout server.key -out server.csr -subj /CN=localhost 2>/dev/null
printf "subjectAltName=DNS:localhost\nextendedKeyUsage=serverAuth\n" >ext.cnf
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem -days 2 -extfile ext.cnf 2>/dev/null || exit 1
"$emulator" --tls-cert server.pem --tls-key server.key --port-file port.txt -v 0 >emu.log 2>&1 &
emu_pid=$!
for _ in $(seq 300); do [[ -s port.txt ]] && break; sleep 0.1; done
port=$(cat port.txt 2>/dev/null) || { echo "emulator did not start:"; cat emu.log; exit 1; }
winpath() { echo "Z:${1//\//\\}"; }
status=0
check() {  # expected-fragment args...
  local want=$1 out; shift
  out=$(timeout 60 wine "$probe" "$@" 2>&1 | tr -d '\r')
  if grep -q -- "$want" <<<"$out"; then echo "ok: $want"; else echo "FAILED: wanted '$want', got: $out"; status=1; fi
}
check "call rc=0 echo matches" localhost "$port" "$(winpath "$dir/ca.pem")"
check "open rc=-923 .*unknown CA" localhost "$port" "$(winpath "$dir/rogue.pem")"
check "open rc=-923 .*name mismatch" localhost "$port" "$(winpath "$dir/ca.pem")" other.example
exit $status
