#!/usr/bin/env bash
# Builds the performance suite (Release, build/bench) and runs it. It prints every
# figure of the library next to its raw floor measured in the same run, with ratios
# and targets. Arguments go to the suite: --quick for a short run, --only CASE,... for
# some cases. On a virtual machine, run it pinned to one CPU (README). Not part of CI.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/bench
if [[ ! -f $build/CMakeCache.txt ]]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKVL_BUILD_BENCHMARKS=ON -DKVL_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$build" --target kvl_perf -j2 >/dev/null
exec "$build/bin/kvl_perf" "$@"
