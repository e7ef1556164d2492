#!/usr/bin/env bash
# run-fsevents-bench.sh - history queries, watch start and event delivery over
# 100,000 files in 10,000 folders against find and inotifywait (ratios printed).
# Environment: QX_BENCH_BUILD (build-bench), QX_BENCH_TREE (a folder on the
# file system to measure; default under /var/tmp, kept between runs).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
tree=${QX_BENCH_TREE:-/var/tmp/qx-fsevents-bench}
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j2 qx_fsevents_bench > /dev/null
"$build/bench/qx_fsevents_bench" --tree "$tree" "$@"
