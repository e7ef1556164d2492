#!/usr/bin/env bash
# run-compress-bench.sh - `qx compress` against the usual compressors.
#
# The deterministic mixed payload of the decompression benchmark (QX_BENCH_MIB
# MiB, default 256; text-like and binary halves) is compressed from the page
# cache to the null device, each group in one hyperfine run:
#   single  qx -T 1 -l 6       gzip -6
#           qx -T 1 -a bzip2   bzip2 -9
#           qx -T 1 -a xz -l 6 xz -6
#   threads qx -T 0 -l 6       pigz -6
#           qx -T 0 -a bzip2   pbzip2 -9, lbzip2 -9
#           qx -T 0 -a xz -l 6 xz -T0 -6
# Every command's output is decoded by the standard tool and checked against
# the payload first; that pass also gives the compressed size and, through
# /usr/bin/time, the peak resident memory. One more group decodes pbzip2's
# output: `qx decompress` against bzip2 -dc. A missing tool's row is skipped
# with a note. Prints MB/s of input (10^6 bytes), processor time, sizes, peak
# memory and the ratios the targets name.
#
# Environment: QX_BENCH_MIB (256), QX_BENCH_RUNS (3), QX_BENCH_WARMUP (0),
# QX_BENCH_BUILD (build-bench), QX_BENCH_OUT (bench/out/compress),
# QX_BENCH_JOBS (2), QX_BENCH_GROUPS (all of: single threads decode).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out/compress}
mib=${QX_BENCH_MIB:-256}
runs=${QX_BENCH_RUNS:-3}
warmup=${QX_BENCH_WARMUP:-0}
groups=${QX_BENCH_GROUPS:-single threads decode}
mkdir -p "$out"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx qx_decompress_bench > /dev/null
qx=$build/tools/qx/qx

. "$root/bench/payload.sh"
wants() { [[ " $groups " == *" $1 "* ]]; }

make_payload "$build/bench/qx_decompress_bench"
cat "$payload" > /dev/null  # into the page cache
sum=$(md5sum < "$payload")

# name|command (reads $payload, writes the compressed bytes to stdout)|decoder
rows=()
row() {
  local program=${2%% *}
  if [ "$program" = qx ] || have "$program"; then
    rows+=("$1|$2|$3")
  else
    echo "skipped: $1 ($program not installed)" >&2
  fi
}

sizes=$out/sizes.txt
: > "$sizes"
results=()
# Checks each row's output, notes its size and peak memory, then times the group.
measure() {
  local label=$1 args=() entry name command decoder
  for entry in "${rows[@]}"; do
    IFS='|' read -r name command decoder <<< "$entry"
    command=${command//qx /$qx }
    command=${command//PAYLOAD/$payload}
    /usr/bin/time -f %M -o "$out/peak.txt" bash -c "$command" > "$out/check.out"
    if [ "$($decoder < "$out/check.out" | md5sum)" != "$sum" ]; then
      echo "$name: output does not decode to the payload" >&2
      exit 1
    fi
    echo "$label|$name|$(stat -c %s "$out/check.out")|$(cat "$out/peak.txt")" >> "$sizes"
    args+=(-n "$name" "$command > /dev/null")
  done
  rm -f "$out/check.out"
  hyperfine --warmup "$warmup" --runs "$runs" --export-json "$out/$label.json" "${args[@]}" > /dev/null
  results+=("$out/$label.json")
}

if wants single; then
  rows=()
  row "qx gzip -T 1" "qx compress -T 1 -l 6 PAYLOAD" "gzip -dc"
  row "gzip -6" "gzip -6 -c PAYLOAD" "gzip -dc"
  measure single-gzip
  rows=()
  row "qx bzip2 -T 1" "qx compress -T 1 -a bzip2 -l 9 PAYLOAD" "bzip2 -dc"
  row "bzip2 -9" "bzip2 -9 -c PAYLOAD" "bzip2 -dc"
  measure single-bzip2
  rows=()
  row "qx xz -T 1" "qx compress -T 1 -a xz -l 6 PAYLOAD" "xz -dc"
  row "xz -6" "xz -6 -T1 -c PAYLOAD" "xz -dc"
  measure single-xz
fi

if wants threads; then
  rows=()
  row "qx gzip -T 0" "qx compress -T 0 -l 6 PAYLOAD" "gzip -dc"
  row "pigz -6" "pigz -6 -c PAYLOAD" "gzip -dc"
  measure threads-gzip
  rows=()
  row "qx bzip2 -T 0" "qx compress -T 0 -a bzip2 -l 9 PAYLOAD" "bzip2 -dc"
  row "pbzip2 -9" "pbzip2 -9 -c PAYLOAD" "bzip2 -dc"
  row "lbzip2 -9" "lbzip2 -9 -c PAYLOAD" "bzip2 -dc"
  measure threads-bzip2
  rows=()
  row "qx xz -T 0" "qx compress -T 0 -a xz -l 6 PAYLOAD" "xz -dc"
  row "xz -T0 -6" "xz -T0 -6 -c PAYLOAD" "xz -dc"
  measure threads-xz
fi

if wants decode && have pbzip2; then
  [ -s "$out/payload.pbz2" ] && [ "$out/payload.pbz2" -nt "$payload" ] || pbzip2 -9 -c "$payload" > "$out/payload.pbz2"
  rows=()
  row "qx decompress" "qx decompress -o - $out/payload.pbz2" "cat"
  row "bzip2 -dc" "bzip2 -dc $out/payload.pbz2" "cat"
  measure decode-pbzip2
fi

echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
python3 - "$((mib * 1024 * 1024))" "$sizes" "${results[@]}" <<'PY'
import json, sys
size = int(sys.argv[1])
extra = {}
for line in open(sys.argv[2]):
    label, name, length, peak = line.strip().split("|")
    extra[(label, name)] = (int(length), int(peak) / 1024)
t = {}
for path in sys.argv[3:]:
    label = path.rsplit("/", 1)[1][:-5]
    print(f"== {label}")
    for r in json.load(open(path))["results"]:
        name = r["command"]
        cpu = r["user"] + r["system"]
        length, peak = extra[(label, name)]
        t[(label, name)] = (r["median"], cpu, length, peak)
        print(f"  {name:16s} {size / r['median'] / 1e6:7.1f} MB/s  (median {r['median']:.2f} s of {len(r['times'])};"
              f" processor {cpu:.2f} s)  {length:>11,d} bytes ({length / size:.4f})  peak {peak:6.0f} MiB")

def ratio(label, peer, speed, sizeLimit=None, memory=False):
    qx = next((n for (l, n) in t if l == label and n.startswith("qx")), None)
    a, b = t.get((label, qx)), t.get((label, peer))
    if a is None or b is None:
        print(f"  {label}: qx vs {peer}: not measured")
        return
    r = b[0] / a[0]  # above 1: qx is faster
    checks = [f"speed {r:4.2f}x (>= {speed}: {'met' if r >= speed else 'MISSED'})"]
    if sizeLimit:
        s = a[2] / b[2]
        checks.append(f"size {s:6.4f}x (<= {sizeLimit}: {'met' if s <= sizeLimit else 'MISSED'})")
    if memory:
        checks.append(f"memory {a[3]:.0f} vs {b[3]:.0f} MiB ({'met' if a[3] <= b[3] else 'MISSED'})")
    print(f"  {label:14s} vs {peer:10s} " + ", ".join(checks) + f"; processor {b[1] / a[1]:4.2f}x")

print("== ratios (peer time / qx time)")
ratio("single-gzip", "gzip -6", 0.97)
ratio("single-bzip2", "bzip2 -9", 0.97)
ratio("single-xz", "xz -6", 0.97)
ratio("threads-gzip", "pigz -6", 1.0, 1.01)
ratio("threads-bzip2", "pbzip2 -9", 0.95)
ratio("threads-bzip2", "lbzip2 -9", 0.95)
ratio("threads-xz", "xz -T0 -6", 0.95, 1.01, memory=True)
ratio("decode-pbzip2", "bzip2 -dc", 0.95)
PY
