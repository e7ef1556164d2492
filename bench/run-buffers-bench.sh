#!/usr/bin/env bash
# run-buffers-bench.sh - ring-buffer throughput between two threads (64 KiB
# and 1 MiB transfers) against memcpy bandwidth, then QXInputStream reading a
# 1 GiB file through a file-handle stream against `cat file > /dev/null`,
# each measured in one run. The file lives under /tmp and is deleted after.
#
# Environment: QX_BENCH_RING_GIB (4), QX_BENCH_FILE_MIB (1024),
# QX_BENCH_RUNS (3), QX_BENCH_READ_KIB (1024), QX_BENCH_JOBS (2),
# QX_BENCH_BUILD (build-bench).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx_buffers_bench > /dev/null
bench="$build/bench/qx_buffers_bench"
runs=${QX_BENCH_RUNS:-3}

echo "== Ring buffer between two threads =="
"$bench" ring "${QX_BENCH_RING_GIB:-4}" "$runs"

echo "== QXInputStream over a file handle =="
file=$(mktemp /tmp/qx-buffers-bench-XXXXXX)
trap 'rm -f "$file"' EXIT
head -c "$(( ${QX_BENCH_FILE_MIB:-1024} * 1024 * 1024 ))" /dev/urandom > "$file"
"$bench" stream "$file" "$runs" "${QX_BENCH_READ_KIB:-1024}"
