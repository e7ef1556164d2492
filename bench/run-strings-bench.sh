#!/usr/bin/env bash
# run-strings-bench.sh - qx hexdump against od on one file, then the in-process
# string and formatter benchmarks.
#
# Both tools print offset, hexadecimal bytes and a text column for every byte
# of a random file of QX_BENCH_MIB MiB (default 64); wall time with hyperfine,
# and the ratio qx/od. Environment: QX_BENCH_BUILD (build-bench), QX_BENCH_OUT (bench/out).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out}
mib=${QX_BENCH_MIB:-64}
mkdir -p "$out"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j2 qx qx_strings_bench > /dev/null
input=$out/hexdump-input.bin
head -c $((mib * 1024 * 1024)) /dev/urandom > "$input"
hyperfine --warmup 1 --runs 5 --export-json "$out/hexdump.json" \
  -n qx "$build/tools/qx/qx hexdump $input > /dev/null" \
  -n od "od -A x -t x1z -v $input > /dev/null"
python3 - "$out/hexdump.json" "$mib" <<'PY'
import json, sys
r = {x["command"]: x["mean"] for x in json.load(open(sys.argv[1]))["results"]}
mib = float(sys.argv[2])
for k, v in r.items(): print(f"{k}: {mib / v:.1f} MiB/s")
print(f"qx/od time ratio: {r['qx'] / r['od']:.2f}")
PY
"$build/bench/qx_strings_bench"
