#!/usr/bin/env bash
# KVLCLIENT's Schannel TLS under Wine against the Linux emulator over TLS:
# a call with the CA file, then an unknown CA and a wrong name (both -923), an
# address checked against the certificate's addresses, cipher lists, mutual TLS
# against an emulator that requires a client certificate;
# with tls_relay next to the emulator, also that the DLL's close sends a
# close_notify. Usage: wine_tls.sh EMULATOR TLS_PROBE_EXE. Exit 0 when every case holds.
set -u
emulator=$(realpath "$1") probe=$(realpath "$2")
dir=$(mktemp -d)
emu_pid= plain_pid= mtls_pid=
cleanup() {
  [[ -n "$emu_pid" ]] && kill "$emu_pid" 2>/dev/null
  [[ -n "$mtls_pid" ]] && kill "$mtls_pid" 2>/dev/null
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
# Mutual TLS. Wine's TLS signs only with RSA keys, which it reads from the
# legacy provider's key containers: RSA client keys work there, EC ones are
# refused at the import (its key storage provider takes no private key).
printf "extendedKeyUsage=clientAuth\n" >client.cnf
client_cert() {  # name, then the -newkey arguments
  local name=$1; shift
  openssl req -newkey "$@" -nodes -keyout "$name.key" -out "$name.csr" -subj "/CN=$name" 2>/dev/null &&
    openssl x509 -req -in "$name.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -out "$name.pem" -days 2 \
      -extfile client.cnf 2>/dev/null
}
client_cert rsa-client rsa:2048 && client_cert other-client rsa:2048 &&
  client_cert ec-client ec -pkeyopt ec_paramgen_curve:P-256 || exit 1
openssl pkey -in rsa-client.key -traditional -out rsa-client-pkcs1.key 2>/dev/null || exit 1
"$emulator" --tls-cert server.pem --tls-key server.key --tls-client-ca ca.pem --tls-require-client-cert \
  --port-file mtls-port.txt -v 0 >mtls.log 2>&1 &
mtls_pid=$!
mtls_port=$(await_port mtls-port.txt) || { echo "mutual TLS emulator did not start:"; cat mtls.log; exit 1; }
mtls() {  # expected-fragment cert key
  check "$1" localhost "$mtls_port" "$(winpath "$dir/ca.pem")" - - "$(winpath "$dir/$2")" "$(winpath "$dir/$3")"
}
mtls "call rc=0 echo matches" rsa-client.pem rsa-client.key          # PKCS#8
mtls "call rc=0 echo matches" rsa-client.pem rsa-client-pkcs1.key    # PKCS#1
check "open rc=-922 .*requires a client certificate" localhost "$mtls_port" "$(winpath "$dir/ca.pem")"
mtls "open rc=-921 .*client key in .*other-client.key does not match the certificate in .*rsa-client.pem" \
  rsa-client.pem other-client.key
mtls "open rc=-921 .*ec-client.key does not match the certificate in .*rsa-client.pem (the key is EC" \
  rsa-client.pem ec-client.key
mtls "open rc=-921 .*rsa-client.pem holds no PEM private key" rsa-client.pem rsa-client.pem
mtls "open rc=-921 .*cannot read the client key file .*missing.key" rsa-client.pem missing.key
mtls "open rc=-921 .*the EC key in .*ec-client.key (P-256) cannot be imported (0x80090027)" ec-client.pem ec-client.key
# Each RSA key lived in a key container of its own, deleted with the credentials.
left=$(timeout 60 wine reg query 'HKCU\Software\Wine\Crypto\RSA' 2>/dev/null | tr -d '\r' | grep -c 'kvlclient-')
if [[ "$left" == 0 ]]; then echo "ok: no key container left"
else echo "FAILED: $left key containers left in the Wine registry"; status=1; fi
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
