#!/usr/bin/env bash
# run-inflate-bench.sh - `qx decompress` of gzip and of multi-block xz
# against the fastest single-stream tools.
#
# A deterministic mixed payload of QX_BENCH_MIB MiB (default 192; text-like
# and binary halves, made by qx_decompress_bench) is compressed once with
# gzip -6 and with xz -2 -T2 (which writes independent blocks); the inputs
# are kept in QX_BENCH_OUT and reused. Each is then decoded, from the page
# cache to the null device, in one hyperfine run:
#   gzip   qx decompress    igzip -dc, pigz -dc, gzip -dc
#   xz     qx decompress    xz -T0 -dc
# Every decoder's output is checked against the payload before it is timed;
# a missing tool's row is skipped with a note. Prints MB/s of output and the
# ratios peer time / qx time with the targets.
#
# Environment: QX_BENCH_MIB (192), QX_BENCH_RUNS (5), QX_BENCH_WARMUP (1),
# QX_BENCH_BUILD (build-bench), QX_BENCH_OUT (bench/out/inflate), QX_BENCH_JOBS (2).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out/inflate}
mib=${QX_BENCH_MIB:-192}
runs=${QX_BENCH_RUNS:-5}
warmup=${QX_BENCH_WARMUP:-1}
mkdir -p "$out"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx qx_decompress_bench > /dev/null
qx=$build/tools/qx/qx

. "$root/bench/payload.sh"

make_payload "$build/bench/qx_decompress_bench"
make_input "$out/payload.gz" gzip -6 -c
make_input "$out/payload.xz" xz -2 -T2 -c  # blocks of 6 MiB: 32 of them
cat "$out"/payload* > /dev/null  # into the page cache

sum=$(md5sum < "$payload")
results=()
rows=()
row() {  # name, command: checked, then kept for the next measure
  local name=$1 command=$2
  if ! have "${command%% *}"; then
    echo "skipped: $name (${command%% *} not installed)" >&2
    return
  fi
  if [ "$(bash -c "$command" | md5sum)" != "$sum" ]; then
    echo "$name: output differs from the payload" >&2
    exit 1
  fi
  rows+=(-n "$name" "$command > /dev/null")
}
measure() {
  hyperfine --warmup "$warmup" --runs "$runs" --export-json "$out/$1.json" "${rows[@]}" > /dev/null
  results+=("$out/$1.json")
  rows=()
}

row qx "$qx decompress $out/payload.gz"
row "igzip -dc" "igzip -dc $out/payload.gz"
row "pigz -dc" "pigz -dc $out/payload.gz"
row "gzip -dc" "gzip -dc $out/payload.gz"
measure gzip

row qx "$qx decompress $out/payload.xz"
row "xz -T0 -dc" "xz -T0 -dc $out/payload.xz"
measure xz

echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
python3 - "$((mib * 1024 * 1024))" "${results[@]}" <<'PY'
import json, sys
size = int(sys.argv[1])
t = {}
for path in sys.argv[2:]:
    label = path.rsplit("/", 1)[1][:-5]
    print(f"== {label}")
    for r in json.load(open(path))["results"]:
        t[(label, r["command"])] = r["mean"]
        print(f"  {r['command']:12s} {size / r['mean'] / 1e6:8.1f} MB/s  ({r['mean']:.3f} s ± {r['stddev'] or 0:.3f};"
              f" processor {r['user'] + r['system']:.3f} s)")

print("== ratios (peer time / qx time)")
for label, peer, target in (("gzip", "igzip -dc", 0.9), ("gzip", "pigz -dc", 1.5), ("gzip", "gzip -dc", None),
                            ("xz", "xz -T0 -dc", 0.95)):
    a, b = t.get((label, "qx")), t.get((label, peer))
    if a is None or b is None:
        print(f"  {label}: qx vs {peer}: not measured")
        continue
    r = b / a
    goal = f"   (target >= {target}: {'met' if r >= target else 'MISSED'})" if target else ""
    print(f"  {label:5s} qx / {peer:11s} {r:5.2f}x{goal}")
PY
