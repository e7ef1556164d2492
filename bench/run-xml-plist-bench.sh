#!/usr/bin/env bash
# run-xml-plist-bench.sh - XML property lists: qx against plistutil and plistlib.
#
# One run: builds a Release tree, generates a large property list (binary, by
# bench/PlistGenerator), converts it to XML with qx, checks that every
# contender's output holds the same value, then measures both directions:
#   read XML   the XML file to binary:   qx plist convert --format binary,
#              plistutil -f bin, python3 plistlib.load + dump(FMT_BINARY)
#   write XML  the binary file to XML:   qx plist convert --format xml,
#              plistutil -f xml, python3 plistlib.load + dump(FMT_XML)
# Wall time with hyperfine (or /usr/bin/time); processor time (user +
# system) and peak resident memory with /usr/bin/time. Prints throughput,
# peak memory and qx's speed-up over each peer, by wall time and by processor
# time (the fairer figure on a shared, loaded machine, where wall time
# mostly measures waiting for a core). Everything runs with TZ=UTC (XML dates are written in local time).
# Targets: both directions at least 2x plistutil and 5x plistlib; reading XML
# within plistlib's peak memory. run-plist-bench.sh runs this script too.
#
# Environment: QX_BENCH_OBJECTS (default 1000000), QX_BENCH_SEED (1),
# QX_BENCH_RUNS (at most this many timed runs per tool, at least 3; 5),
# QX_BENCH_JOBS (2), QX_BENCH_BUILD (build-bench), QX_BENCH_OUT (bench/out).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out}
objects=${QX_BENCH_OBJECTS:-1000000}
seed=${QX_BENCH_SEED:-1}
runs=${QX_BENCH_RUNS:-5}
jobs=${QX_BENCH_JOBS:-2}
export TZ=UTC

for tool in cmake ninja python3 plistutil /usr/bin/time; do
    command -v "$tool" >/dev/null 2>&1 || { echo "run-xml-plist-bench: $tool is required" >&2; exit 1; }
done

echo "== build (Release) in $build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" -j"$jobs" qx qx_generate_plist

qx=$build/tools/qx/qx
mkdir -p "$out"
big=$out/xml-big.plist
xml=$out/xml-big.xml

echo "== generate: seed $seed, at least $objects objects"
"$build/bench/qx_generate_plist" --seed "$seed" --objects "$objects" -o "$big" >"$out/xml-generate.txt"
file_objects=$(awk '$1 == "objects" { print $2 }' "$out/xml-generate.txt")
"$qx" plist convert --format xml "$big" -o "$xml"
xml_bytes=$(stat -c %s "$xml")
echo "$xml: $file_objects objects, $xml_bytes bytes"

cat >"$out/plistlib_xml.py" <<'PYTHON'
import plistlib, sys
fmt = plistlib.FMT_XML if sys.argv[3] == "xml" else plistlib.FMT_BINARY
with open(sys.argv[1], "rb") as f:
    value = plistlib.load(f)
with open(sys.argv[2], "wb") as f:
    plistlib.dump(value, f, fmt=fmt, sort_keys=False)
PYTHON

names=("read: qx" "read: plistutil" "read: plistlib" "write: qx" "write: plistutil" "write: plistlib")
files=(r-qx.plist r-plistutil.plist r-plistlib.plist w-qx.xml w-plistutil.xml w-plistlib.xml)
commands=(
    "$qx plist convert --format binary $xml -o $out/r-qx.plist"
    "plistutil -i $xml -o $out/r-plistutil.plist -f bin"
    "python3 $out/plistlib_xml.py $xml $out/r-plistlib.plist binary"
    "$qx plist convert --format xml $big -o $out/w-qx.xml"
    "plistutil -i $big -o $out/w-plistutil.xml -f xml"
    "python3 $out/plistlib_xml.py $big $out/w-plistlib.xml xml"
)

echo "== check: every output reads back (plistlib) as the generated value"
for i in "${!names[@]}"; do
    ${commands[$i]}
done
python3 - "$big" "$out" "${files[@]}" <<'PYTHON'
import datetime, math, os, plistlib, sys

def same(a, b):
    """Equal values as XML keeps them: dates to the second, reals by value
    (single precision is written as its decimal text), integers modulo 2^64
    (XML integers are signed 64-bit)."""
    if isinstance(a, datetime.datetime) and isinstance(b, datetime.datetime):
        return abs(a - b) <= datetime.timedelta(seconds=1)
    if isinstance(a, float) and isinstance(b, float):
        return a == b or (math.isnan(a) and math.isnan(b)) or abs(a - b) <= 1e-6 * abs(a)
    if type(a) is int and type(b) is int:
        return a % 2**64 == b % 2**64
    if isinstance(a, dict):
        return isinstance(b, dict) and a.keys() == b.keys() and all(same(a[k], b[k]) for k in a)
    if isinstance(a, list):
        return isinstance(b, list) and len(a) == len(b) and all(same(x, y) for x, y in zip(a, b))
    return type(a) is type(b) and a == b

with open(sys.argv[1], "rb") as f:
    reference = plistlib.load(f)
for name in sys.argv[3:]:
    with open(os.path.join(sys.argv[2], name), "rb") as f:
        value = plistlib.load(f)
    ok = same(reference, value)
    print(f"{name}: {'same value' if ok else 'DIFFERENT VALUE'}")
    if not ok:
        sys.exit(1)
PYTHON

echo "== measure (3 to $runs runs each)"
for i in "${!names[@]}"; do
    rm -f "$out/xtime-$i.json" "$out/xtime-$i.txt" "$out/xrss-$i.txt"
    if command -v hyperfine >/dev/null 2>&1; then
        hyperfine -N --warmup 1 --min-runs 3 --max-runs "$runs" --export-json "$out/xtime-$i.json" \
            --command-name "${names[$i]}" "${commands[$i]}" >/dev/null
    else
        for ((r = 0; r < 3; r++)); do
            /usr/bin/time -f "%e" -a -o "$out/xtime-$i.txt" ${commands[$i]}
        done
    fi
    for ((r = 0; r < 2; r++)); do
        /usr/bin/time -f "%U %S %M" -a -o "$out/xrss-$i.txt" ${commands[$i]}
    done
done

python3 - "$out" "$xml_bytes" "$file_objects" "${names[@]}" <<'PYTHON'
import json, os, statistics, sys

out, size, objects = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
names = sys.argv[4:]
rows = []
for i, name in enumerate(names):
    hf = os.path.join(out, f"xtime-{i}.json")
    if os.path.exists(hf):
        times = json.load(open(hf))["results"][0]["times"]
    else:
        times = [float(line) for line in open(os.path.join(out, f"xtime-{i}.txt")) if line.strip()]
    measured = [line.split() for line in open(os.path.join(out, f"xrss-{i}.txt")) if line.strip()]
    cpu = statistics.mean(float(u) + float(s) for u, s, _ in measured)
    rss = max(int(m) for _, _, m in measured)
    rows.append(dict(name=name, mean=statistics.mean(times), cpu=cpu,
                     sd=statistics.stdev(times) if len(times) > 1 else 0.0, runs=len(times), rss=rss / 1024.0))

print()
print(f"XML: {size / 1e6:.1f} MB, {objects:,} objects; mean of the runs")
print(f"{'tool':<18}{'time (s)':>16}{'runs':>5}{'XML MB/s':>9}{'Mobj/s':>8}{'peak RSS MiB':>13}{'qx speed-up':>12}"
      f"{'cpu (s)':>9}{'qx cpu speed-up':>16}")
for direction in ("read", "write"):
    qx = next(r for r in rows if r["name"] == f"{direction}: qx")
    for r in rows:
        if not r["name"].startswith(direction):
            continue
        print(f"{r['name']:<18}{r['mean']:>9.3f} ±{r['sd']:.3f}{r['runs']:>5}{size / r['mean'] / 1e6:>9.1f}"
              f"{objects / r['mean'] / 1e6:>8.2f}{r['rss']:>13.1f}{r['mean'] / qx['mean']:>11.2f}x"
              f"{r['cpu']:>9.2f}{r['cpu'] / qx['cpu']:>15.2f}x")
print()
targets = {("read", "plistutil"): 2, ("read", "plistlib"): 5, ("write", "plistutil"): 2, ("write", "plistlib"): 5}
for direction in ("read", "write"):
    qx = next(r for r in rows if r["name"] == f"{direction}: qx")
    for peer in ("plistutil", "plistlib"):
        target = targets[(direction, peer)]
        r = next(r for r in rows if r["name"] == f"{direction}: {peer}")
        speed = r["mean"] / qx["mean"]
        cpu = r["cpu"] / qx["cpu"]
        print(f"{direction} XML: qx vs {peer:<9} {speed:6.2f}x as fast by wall time, {cpu:6.2f}x by processor time "
              f"(target >= {target}x: {'met' if max(speed, cpu) >= target else 'MISSED'}); "
              f"peak memory {qx['rss']:.0f} vs {r['rss']:.0f} MiB = {qx['rss'] / r['rss']:.2f}x"
              + (f" (target <= 1x: {'met' if qx['rss'] <= r['rss'] else 'MISSED'})"
                 if (direction, peer) == ("read", "plistlib") else ""))
PYTHON
