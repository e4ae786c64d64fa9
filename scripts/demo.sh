#!/usr/bin/env bash
# Builds what the demo needs (the library, the emulator and the examples; no
# tests, so no test framework) and runs the example programs against the
# bundled Gateway emulator, started on a free loopback port and stopped at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/ensure-packages.sh
cmake --preset demo >/dev/null
cmake --build --preset demo -j "$(nproc)"

bin=build/demo/bin
workdir=$(mktemp -d)
emulator_pid=
cleanup() {
  [[ -n "$emulator_pid" ]] && kill "$emulator_pid" 2>/dev/null && wait "$emulator_pid" 2>/dev/null
  rm -rf "$workdir"
}
trap cleanup EXIT

"$bin/kvl-gateway-emulator" --address 127.0.0.1 --port 0 --config examples/demo-gateway.conf \
  --port-file "$workdir/port" --verbose 1 >"$workdir/emulator.log" 2>&1 &
emulator_pid=$!
for _ in $(seq 1 100); do
  [[ -s "$workdir/port" ]] && break
  sleep 0.1
done
[[ -s "$workdir/port" ]] || { echo "the emulator did not start"; cat "$workdir/emulator.log"; exit 1; }
port=$(cat "$workdir/port")
echo "=== Gateway emulator listening on 127.0.0.1:$port"

echo; echo "=== library versions and return-code names"
"$bin/kvl_versions_example"

echo; echo "=== a connection: open, applid, state dump, close"
"$bin/kvl_connection_example" 127.0.0.1 "$port" 2>&1

for extra in eci channel; do
  if [[ -x "$bin/kvl_${extra}_example" ]]; then
    echo; echo "=== ${extra} program calls"
    "$bin/kvl_${extra}_example" 127.0.0.1 "$port" 2>&1
  fi
done

echo; echo "=== password verification and the list of servers"
"$bin/kvl_security_example" 127.0.0.1 "$port" DEMOUSER SECRET1 2>&1

echo; echo "=== the kvl command: a call, the servers, a ping"
"$bin/kvl" --host 127.0.0.1 --port "$port" call ECHO "hello from kvl"
"$bin/kvl" --host 127.0.0.1 --port "$port" systems
"$bin/kvl" --host 127.0.0.1 --port "$port" ping

if [[ -x "$bin/kvl_ext_poll_example" ]]; then
  echo; echo "=== extensions: a deadline and replies collected from a poll() loop"
  "$bin/kvl_ext_poll_example" 127.0.0.1 "$port" 2>&1
fi

echo; echo "=== what the emulator saw"
cat "$workdir/emulator.log"
