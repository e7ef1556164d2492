#!/usr/bin/env bash
# run-plist-bench.sh - binary property lists: qx against plistutil and plistlib.
#
# One run: builds a Release tree with the benchmarks, generates a large binary
# property list, checks that every contender's output holds the same value,
# then measures a read plus a binary write of that file:
#   qx               qx plist convert --format binary big.plist -o out.plist
#   plistutil -f bin plistutil -i big.plist -o out.plist -f bin
#                    (plistutil 2.2 copies a binary input verbatim here: no
#                    decoding happens, so this row is a file copy)
#   plistutil xml    plistutil -i big.plist -o out.xml: decodes the binary
#                    file, writes XML
#   libplist bin     qx_libplist_convert: plistutil's own library decoding and
#                    encoding binary, the like-for-like peer
#   plistlib         python3: plistlib.load + plistlib.dump(fmt=FMT_BINARY)
# Wall time with hyperfine (or /usr/bin/time when hyperfine is missing), peak
# resident memory with /usr/bin/time; prints throughput, peak memory and the
# ratios of qx to each peer. The in-process Google Benchmark cases follow
# (binary and XML read and write), with the binary read's objects per second
# (by wall and by processor time) and heap bytes per object, then
# run-xml-plist-bench.sh on the same build: binary to XML and XML to binary
# against plistutil and plistlib, with the peak memory of each
# (QX_BENCH_XML=0 leaves that part out).
#
# Environment: QX_BENCH_OBJECTS (default 1000000), QX_BENCH_SEED (1),
# QX_BENCH_RUNS (at most this many timed runs per tool, at least 3; 10),
# QX_BENCH_JOBS (2), QX_BENCH_BUILD (build-bench), QX_BENCH_OUT (bench/out).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out}
objects=${QX_BENCH_OBJECTS:-1000000}
seed=${QX_BENCH_SEED:-1}
runs=${QX_BENCH_RUNS:-10}
jobs=${QX_BENCH_JOBS:-2}

for tool in cmake ninja python3 plistutil /usr/bin/time; do
    command -v "$tool" >/dev/null 2>&1 || { echo "run-plist-bench: $tool is required" >&2; exit 1; }
done

echo "== build (Release) in $build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" -j"$jobs" qx qx_generate_plist qx_plist_bench qx_libplist_convert

qx=$build/tools/qx/qx
mkdir -p "$out"
big=$out/big.plist

echo "== generate: seed $seed, at least $objects objects"
"$build/bench/qx_generate_plist" --seed "$seed" --objects "$objects" -o "$big" >"$out/generate.txt"
file_objects=$(awk '$1 == "objects" { print $2 }' "$out/generate.txt")
file_bytes=$(awk '$1 == "bytes" { print $2 }' "$out/generate.txt")
echo "$big: $file_objects objects, $file_bytes bytes"

cat >"$out/plistlib_convert.py" <<'PYTHON'
import plistlib, sys
with open(sys.argv[1], "rb") as f:
    value = plistlib.load(f)
with open(sys.argv[2], "wb") as f:
    plistlib.dump(value, f, fmt=plistlib.FMT_BINARY, sort_keys=False)
PYTHON

names=(qx "plistutil -f bin" "plistutil xml" "libplist bin" plistlib)
files=(qx.plist plistutil.plist plistutil.xml libplist.plist plistlib.plist)
commands=(
    "$qx plist convert --format binary $big -o $out/qx.plist"
    "plistutil -i $big -o $out/plistutil.plist -f bin"
    "plistutil -i $big -o $out/plistutil.xml"
    "$build/bench/qx_libplist_convert $big $out/libplist.plist"
    "python3 $out/plistlib_convert.py $big $out/plistlib.plist"
)

echo "== check: every output reads back (plistlib) equal to the input"
for i in "${!names[@]}"; do
    ${commands[$i]}
done
python3 - "$big" "$out" "${files[@]}" <<'PYTHON'
import datetime, os, plistlib, sys

def same(a, b, slack):
    """Equal values; dates within `slack` (XML keeps whole seconds only)."""
    if isinstance(a, datetime.datetime) and isinstance(b, datetime.datetime):
        return abs(a - b) <= slack
    if isinstance(a, dict):
        return isinstance(b, dict) and a.keys() == b.keys() and all(same(a[k], b[k], slack) for k in a)
    if isinstance(a, list):
        return isinstance(b, list) and len(a) == len(b) and all(same(x, y, slack) for x, y in zip(a, b))
    return type(a) is type(b) and a == b

with open(sys.argv[1], "rb") as f:
    reference = plistlib.load(f)
for name in sys.argv[3:]:
    with open(os.path.join(sys.argv[2], name), "rb") as f:
        value = plistlib.load(f)
    xml = name.endswith(".xml")
    ok = same(reference, value, datetime.timedelta(seconds=1 if xml else 0))
    print(f"{name}: {'same value' if ok else 'DIFFERENT VALUE'}{' (dates to the second)' if xml else ''}")
    if not ok:
        sys.exit(1)
PYTHON

echo "== measure (3 to $runs runs each, within about 3 s per tool)"
for i in "${!names[@]}"; do
    tag=$i
    rm -f "$out/time-$tag.json" "$out/time-$tag.txt" "$out/rss-$tag.txt"
    if command -v hyperfine >/dev/null 2>&1; then
        hyperfine -N --warmup 1 --min-runs 3 --max-runs "$runs" --export-json "$out/time-$tag.json" \
            --command-name "${names[$i]}" "${commands[$i]}" >/dev/null
    else
        for ((r = 0; r < 3; r++)); do
            /usr/bin/time -f "%e" -a -o "$out/time-$tag.txt" ${commands[$i]}
        done
    fi
    for ((r = 0; r < 2; r++)); do
        /usr/bin/time -f "%M" -a -o "$out/rss-$tag.txt" ${commands[$i]}
    done
done

python3 - "$out" "$file_bytes" "$file_objects" "${names[@]}" <<'PYTHON'
import json, os, statistics, sys

out, size, objects = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
names = sys.argv[4:]
rows = []
for tag, name in enumerate(names):
    hf = os.path.join(out, f"time-{tag}.json")
    if os.path.exists(hf):
        times = json.load(open(hf))["results"][0]["times"]
    else:
        times = [float(line) for line in open(os.path.join(out, f"time-{tag}.txt")) if line.strip()]
    rss = [int(line) for line in open(os.path.join(out, f"rss-{tag}.txt")) if line.strip()]
    mean = statistics.mean(times)
    rows.append(dict(name=name, mean=mean, sd=statistics.stdev(times) if len(times) > 1 else 0.0,
                     runs=len(times), rss=max(rss) / 1024.0))

print()
print(f"input: {size / 1e6:.1f} MB, {objects:,} objects; read + write, mean of the runs")
print(f"{'tool':<17}{'time (s)':>16}{'runs':>5}{'MB/s':>8}{'Mobj/s':>8}{'peak RSS MiB':>13}"
      f"{'qx speed-up':>12}{'qx/peer RSS':>12}")
qx = rows[0]
for r in rows:
    speed = r["mean"] / qx["mean"]
    memory = qx["rss"] / r["rss"]
    print(f"{r['name']:<17}{r['mean']:>9.3f} ±{r['sd']:.3f}{r['runs']:>5}{size / r['mean'] / 1e6:>8.1f}"
          f"{objects / r['mean'] / 1e6:>8.2f}{r['rss']:>13.1f}{speed:>11.2f}x{memory:>12.2f}")

def verdict(ok):
    return "met" if ok else "MISSED"
print()
by = {r["name"]: r for r in rows}
for peer, speed_target in (("plistutil -f bin", 2), ("plistutil xml", 2), ("libplist bin", 2), ("plistlib", 5)):
    if peer not in by:
        continue
    r = by[peer]
    speed = r["mean"] / qx["mean"]
    line = f"qx vs {peer:<17} {speed:6.2f}x as fast (target >= {speed_target}x: {verdict(speed >= speed_target)})"
    if peer != "plistlib":
        memory = qx["rss"] / r["rss"]
        line += f"; peak memory {memory:.2f}x (target <= 1x: {verdict(memory <= 1)})"
    print(line)
print("(plistutil -f bin copies a binary input without decoding it; libplist bin is the like-for-like peer)")
PYTHON

echo
echo "== in-process read and write (Google Benchmark)"
"$build/bench/qx_plist_bench" --plist="$big" --benchmark_min_time=1 \
    --benchmark_out="$out/inprocess.json" --benchmark_out_format=json
python3 - "$out/inprocess.json" <<'PYTHON'
import json, sys
for b in json.load(open(sys.argv[1]))["benchmarks"]:
    if b["name"].startswith("BM_BinaryRead"):
        print(f"binary read: {b['objects/s'] / 1e6:.2f} M objects/s by wall time, "
              f"{b['objects/cpu-s'] / 1e6:.2f} M objects/s by processor time, "
              f"{b['heap bytes/object']:.1f} heap bytes per object")
PYTHON

if [ "${QX_BENCH_XML:-1}" != 0 ]; then
    echo
    echo "== XML: binary to XML and XML to binary"
    QX_BENCH_BUILD=$build QX_BENCH_OUT=$out "$root/bench/run-xml-plist-bench.sh"
fi
