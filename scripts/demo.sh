#!/usr/bin/env bash
# Builds the library and runs the demo: the example programs against the bundled
# Gateway emulator on loopback.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/ensure-packages.sh
cmake --preset linux >/dev/null
cmake --build --preset linux -j "$(nproc)"

bin=build/linux/bin
echo "--- library versions and return-code names"
"$bin/kvl_versions_example"
