#!/usr/bin/env bash
# run-http-bench.sh - loopback HTTP ranged-read throughput: qx::HTTPClient
# against curl -r of the same range to /dev/null, from one in-process server,
# in one run. Prints MB/s of both and their ratio.
#
# Environment: QX_BENCH_MIB (256), QX_BENCH_RUNS (5), QX_BENCH_JOBS (2),
# QX_BENCH_BUILD (build-bench).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx_http_bench > /dev/null
"$build/bench/qx_http_bench" "${QX_BENCH_MIB:-256}" "${QX_BENCH_RUNS:-5}"
