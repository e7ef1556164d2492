#!/usr/bin/env bash
# run-bytes-bench.sh - the data reference on a 1 GiB file: 10,000 random
# edits, a search for an absent pattern against grep -c -F (and -i), and the
# write-out of a 1-byte insertion in the middle against cp. The file is
# written beside the build and deleted afterwards.
#
# Environment: QX_BENCH_MIB (1024), QX_BENCH_EDITS (10000), QX_BENCH_RUNS (3),
# QX_BENCH_JOBS (2), QX_BENCH_BUILD (build-bench).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx_bytes_bench > /dev/null
scratch=$(mktemp -d "$build/bytes-bench-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
"$build/bench/qx_bytes_bench" "${QX_BENCH_MIB:-1024}" "${QX_BENCH_EDITS:-10000}" "${QX_BENCH_RUNS:-3}" "$scratch"
