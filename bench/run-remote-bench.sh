#!/usr/bin/env bash
# run-remote-bench.sh - chunked reads of the remote file handle: a 1 GiB local
# file with buffer limits of 2, 8 and 32 MiB against `cat file > /dev/null`,
# and a 256 MiB loopback HTTP resource against `curl -r` of the same range.
# The big file is written beside the build and deleted afterwards.
#
# Environment: QX_BENCH_LOCAL_MIB (1024), QX_BENCH_HTTP_MIB (256),
# QX_BENCH_RUNS (5), QX_BENCH_JOBS (2), QX_BENCH_BUILD (build-bench).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx_remote_bench > /dev/null
scratch=$(mktemp -d "$build/remote-bench-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
"$build/bench/qx_remote_bench" "${QX_BENCH_LOCAL_MIB:-1024}" "${QX_BENCH_HTTP_MIB:-256}" "${QX_BENCH_RUNS:-5}" "$scratch"
