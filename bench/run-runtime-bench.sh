#!/usr/bin/env bash
# run-runtime-bench.sh - the run-loop source round trip against a semaphore
# ping-pong measured in the same run (ratio printed), and small-block
# throughput of operation and serial queues.
# Environment: QX_BENCH_BUILD (build-bench), QX_BENCH_OUT (bench/out).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out}
mkdir -p "$out"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j2 qx_runtime_bench > /dev/null
"$build/bench/qx_runtime_bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  --benchmark_out="$out/runtime.json" --benchmark_out_format=json
python3 - "$out/runtime.json" <<'PY'
import json, sys
rates = {b["run_name"]: b["items_per_second"] for b in json.load(open(sys.argv[1]))["benchmarks"]
         if b.get("aggregate_name") == "median"}
for name, rate in rates.items(): print(f"{name}: {rate:,.0f} per second")
source = next(v for k, v in rates.items() if k.startswith("RunLoopSourceRoundTrip"))
ping = next(v for k, v in rates.items() if k.startswith("SemaphorePingPong"))
print(f"run-loop source round trip / semaphore ping-pong rate: {source / ping:.2f}")
PY
