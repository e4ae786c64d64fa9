#!/usr/bin/env bash
# KVLCLIENT's Schannel TLS under Wine against the Linux emulator over TLS:
# a call with the CA file, then an unknown CA and a wrong name (both -923), an
# address checked against the certificate's addresses, cipher lists;
# with tls_relay next to the emulator, also that the DLL's close sends a
# close_notify. Usage: wine_tls.sh EMULATOR TLS_PROBE_EXE. Exit 0 when every case holds.
set -u
emulator=$(realpath "$1") probe=$(realpath "$2")
dir=$(mktemp -d)
emu_pid= plain_pid=
cleanup() {
  [[ -n "$emu_pid" ]] && kill "$emu_pid" 2>/dev/null
  [[ -n "$plain_pid" ]] && kill "$plain_pid" 2>/dev/null
  wait 2>/dev/null; rm -rf "$dir"
}
trap cleanup EXIT
cd "$dir" || exit 1
ca() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" -out "$1.pem" -days 2 \
  -subj "/CN=$1" -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign" 2>/dev/null; }
ca ca && ca rogue || exit 1
openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout server.key -out server.csr -subj /CN=localhost 2>/dev/null
printf "subjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth\n" >ext.cnf
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem -days 2 -extfile ext.cnf 2>/dev/null || exit 1
"$emulator" --tls-cert server.pem --tls-key server.key --port-file port.txt -v 0 >emu.log 2>&1 &
emu_pid=$!
for _ in $(seq 300); do [[ -s port.txt ]] && break; sleep 0.1; done
port=$(cat port.txt 2>/dev/null) || { echo "emulator did not start:"; cat emu.log; exit 1; }
await_port() { for _ in $(seq 300); do [[ -s $1 ]] && break; sleep 0.1; done; cat "$1" 2>/dev/null; }
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
# An address is checked against the certificate's subjectAltName addresses.
check "call rc=0 echo matches" 127.0.0.1 "$port" "$(winpath "$dir/ca.pem")"
check "open rc=-923 .*name mismatch (127.0.0.2 is not" 127.0.0.1 "$port" "$(winpath "$dir/ca.pem")" 127.0.0.2
# Cipher lists in the Windows form.
check "call rc=0 echo matches" localhost "$port" "$(winpath "$dir/ca.pem")" - "AES256:AES128"
check "call rc=0 echo matches" localhost "$port" "$(winpath "$dir/ca.pem")" - "TLS_AES_256_GCM_SHA384"
check "open rc=-921 .*cipher \"ECDHE-RSA-RC4\" is not one" localhost "$port" "$(winpath "$dir/ca.pem")" - "AES128:ECDHE-RSA-RC4"
relay=$(dirname "$emulator")/tls_relay
if [[ -x "$relay" ]]; then
  # The probe's close, seen by OpenSSL in front of a plain emulator.
  "$emulator" --port-file plain-port.txt -v 0 >plain.log 2>&1 &
  plain_pid=$!
  plain_port=$(await_port plain-port.txt) || { echo "plain emulator did not start"; exit 1; }
  timeout 90 "$relay" server.pem server.key "$plain_port" relay-port.txt >relay.log 2>&1 &
  relay_pid=$!
  relay_port=$(await_port relay-port.txt) || { echo "relay did not start"; exit 1; }
  check "call rc=0 echo matches" localhost "$relay_port" "$(winpath "$dir/ca.pem")"
  wait "$relay_pid"
  if grep -q "client ended: close_notify" relay.log; then echo "ok: close_notify at close"
  else echo "FAILED: wanted a close_notify at close, got: $(cat relay.log)"; status=1; fi
fi
exit $status
