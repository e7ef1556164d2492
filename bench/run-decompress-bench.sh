#!/usr/bin/env bash
# run-decompress-bench.sh - decompression throughput against the usual tools.
#
# A deterministic mixed payload of QX_BENCH_MIB MiB (default 256; text-like
# and binary halves) is compressed once with gzip -6, bzip2, xz -6, xz -6 in
# 16 MiB blocks (what xz -T0 and pixz decode in parallel) and as PBZX with
# the same 16 MiB xz blocks; the inputs are kept in QX_BENCH_OUT and reused. Each
# format is then decoded, from the page cache to the null device, by qx and
# its peers in one hyperfine run:
#   gzip   qx           gzip -dc, pigz -dc
#   bzip2  qx           bzip2 -dc
#   xz     qx           xz -dc
#   xz/mt  qx           xz -T0 -dc, pixz -d
#   pbzx   qx           qx_pbzx_bench, qx_pbzx_bench --sequential, xz -T0, pixz
# "qx" is `qx decompress` when the tool has that command, else the library's
# file driver through qx_decompress_bench. Every decoder's output is checked
# against the payload before it is timed; a missing tool's row is skipped
# with a note. Prints MB/s of output (10^6 bytes), the ratios the targets
# name and the PBZX decode's peak resident memory.
#
# Processor time (user + system) is printed beside each row: on a busy
# machine it is the steadier figure for the single-threaded decoders, whose
# wall time then mostly measures waiting for a processor.
#
# Environment: QX_BENCH_MIB (256), QX_BENCH_RUNS (5), QX_BENCH_WARMUP (1),
# QX_BENCH_BUILD (build-bench), QX_BENCH_OUT (bench/out/decompress),
# QX_BENCH_JOBS (2).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out/decompress}
mib=${QX_BENCH_MIB:-256}
runs=${QX_BENCH_RUNS:-5}
warmup=${QX_BENCH_WARMUP:-1}
mkdir -p "$out"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
targets=(qx qx_decompress_bench)
ninja -C "$build" -t targets all 2>/dev/null | grep -q '^qx_pbzx_bench:' && targets+=(qx_pbzx_bench)
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" "${targets[@]}" > /dev/null
tool=$build/bench/qx_decompress_bench
pbzxbench=$build/bench/qx_pbzx_bench
qx=$build/tools/qx/qx

. "$root/bench/payload.sh"

# ----- Inputs (made once; a changed size remakes them all) -----
make_payload "$tool"
make_input "$out/payload.gz" gzip -6 -c
make_input "$out/payload.bz2" bzip2 -9 -c
make_input "$out/payload.xz" xz -6 -T0 -c  # one stream; its blocks are only there to compress faster
# The 16 MiB blocks are compressed once and make both the PBZX container and
# the block-split xz file (what `xz -6 --block-size=16MiB` writes).
if [ ! -s "$out/payload.pbzx" ] || [ ! -s "$out/payload-blocks.xz" ] || [ "$out/payload.pbzx" -ot "$payload" ]; then
  echo "making payload.pbzx and payload-blocks.xz" >&2
  "$tool" pbzx "$payload" "$out/payload.pbzx.tmp" 16 "$out/payload-blocks.xz.tmp"
  mv "$out/payload-blocks.xz.tmp" "$out/payload-blocks.xz"
  mv "$out/payload.pbzx.tmp" "$out/payload.pbzx"
fi
cat "$out"/payload* > /dev/null  # into the page cache

# ----- The qx row -----
if [ -x "$qx" ] && "$qx" decompress --help > /dev/null 2>&1; then
  qxcmd() { echo "$qx decompress -o /dev/null $1"; }
  qxcheck() { "$qx" decompress -o - "$1"; }
  qxname="qx decompress"
else
  qxcmd() { echo "$tool decode $1"; }
  qxcheck() { "$tool" decode "$1" -; }
  qxname="library file driver (qx_decompress_bench decode)"
fi
echo "qx row: $qxname"

sum=$(md5sum < "$payload")
same() {  # name, command printing the decoded payload
  local name=$1; shift
  if [ "$("$@" | md5sum)" != "$sum" ]; then
    echo "$name: output differs from the payload" >&2
    exit 1
  fi
}

# One hyperfine run per format; arguments are name/command pairs.
results=()
measure() {
  local label=$1; shift
  local args=()
  while [ $# -gt 0 ]; do args+=(-n "$1" "$2"); shift 2; done
  hyperfine --warmup "$warmup" --runs "$runs" --export-json "$out/$label.json" "${args[@]}" > /dev/null
  results+=("$out/$label.json")
}

pair() {  # accumulates name/command pairs for measure, skipping missing tools
  local name=$1 command=$2 program=${2%% *}
  if have "$program" || [ -x "$program" ]; then
    rows+=("$name" "$command")
  else
    echo "skipped: $name ($program not installed)" >&2
  fi
}

rows=()
same qx qxcheck "$out/payload.gz"
pair qx "$(qxcmd "$out/payload.gz")"
pair "gzip -dc" "gzip -dc $out/payload.gz"
pair "pigz -dc" "pigz -dc $out/payload.gz"
measure gzip "${rows[@]}"

rows=()
same qx qxcheck "$out/payload.bz2"
pair qx "$(qxcmd "$out/payload.bz2")"
pair "bzip2 -dc" "bzip2 -dc $out/payload.bz2"
measure bzip2 "${rows[@]}"

rows=()
same qx qxcheck "$out/payload.xz"
pair qx "$(qxcmd "$out/payload.xz")"
pair "xz -dc" "xz -dc $out/payload.xz"
measure xz "${rows[@]}"

rows=()
same qx qxcheck "$out/payload-blocks.xz"
pair qx "$(qxcmd "$out/payload-blocks.xz")"
pair "xz -T0 -dc" "xz -T0 -dc $out/payload-blocks.xz"
pair "pixz -d" "pixz -d -i $out/payload-blocks.xz -o /dev/null"
measure xz-blocks "${rows[@]}"

rows=()
same qx qxcheck "$out/payload.pbzx"
pair qx "$(qxcmd "$out/payload.pbzx")"
if [ -x "$pbzxbench" ]; then
  pair "qx_pbzx_bench" "$pbzxbench $out/payload.pbzx"
  pair "qx_pbzx_bench --sequential" "$pbzxbench --sequential $out/payload.pbzx"
else
  echo "skipped: qx_pbzx_bench rows (not built)" >&2
fi
pair "xz -T0 -dc (blocks)" "xz -T0 -dc $out/payload-blocks.xz"
pair "pixz -d (blocks)" "pixz -d -i $out/payload-blocks.xz -o /dev/null"
measure pbzx "${rows[@]}"

peak() {  # peak resident set size, in MiB, of a command
  /usr/bin/time -f %M "$@" 2>&1 > /dev/null | tail -1 | awk '{ printf "%.0f", $1 / 1024 }'
}
if [ -x /usr/bin/time ]; then
  peaks="qx=$(peak $(qxcmd "$out/payload.pbzx"))"
  [ -x "$pbzxbench" ] && peaks="$peaks qx_pbzx_bench=$(peak "$pbzxbench" "$out/payload.pbzx")"
else
  peaks=""
  echo "skipped: peak memory (/usr/bin/time not installed)" >&2
fi

echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
python3 - "$((mib * 1024 * 1024))" "$peaks" "${results[@]}" <<'PY'
import json, sys
size = int(sys.argv[1])
peaks = dict(p.split("=") for p in sys.argv[2].split())
t = {}
for path in sys.argv[3:]:
    label = path.rsplit("/", 1)[1][:-5]
    print(f"== {label}")
    for r in json.load(open(path))["results"]:
        cpu = r["user"] + r["system"]
        t[(label, r["command"])] = (r["mean"], cpu)
        print(f"  {r['command']:30s} {size / r['mean'] / 1e6:8.1f} MB/s  ({r['mean']:.3f} s ± {r['stddev'] or 0:.3f};"
              f" processor {cpu:.3f} s)")

def ratio(label, peer, target, qx="qx"):
    a, b = t.get((label, qx)), t.get((label, peer))
    if a is None or b is None:
        print(f"  {label}: {qx} vs {peer}: not measured")
        return
    r = b[0] / a[0]  # above 1: qx is faster
    ok = r >= target
    print(f"  {label:10s} {qx} / {peer}: {r:5.2f}x wall, {b[1] / a[1]:5.2f}x processor"
          f"   (target >= {target} wall: {'met' if ok else 'MISSED'})")

print("== ratios (peer time / qx time)")
ratio("gzip", "gzip -dc", 1.25)
ratio("gzip", "pigz -dc", 0.95)
ratio("bzip2", "bzip2 -dc", 0.95)
ratio("xz", "xz -dc", 0.95)
for q in ("qx", "qx_pbzx_bench"):
    ratio("pbzx", "xz -T0 -dc (blocks)", 1.0, q)
    ratio("pbzx", "pixz -d (blocks)", 1.0, q)
    ratio("pbzx", "qx_pbzx_bench --sequential", 1.8, q)
for name, value in peaks.items():
    v = int(value)
    print(f"  pbzx peak RSS {name}: {v} MiB   (target <= 600: {'met' if v <= 600 else 'MISSED'})")
PY
