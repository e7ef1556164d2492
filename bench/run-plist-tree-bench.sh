#!/usr/bin/env bash
# run-plist-tree-bench.sh - the editable property-list tree against the plain
# read, and find-all against python3's plistlib walking the same file.
#
# One run: builds the benchmarks, generates the large binary property list
# (the generator of run-plist-bench.sh), then measures
#   in process (qx_plist_tree_bench times, median of the runs):
#     plain read   binary bytes in memory -> plain values
#     tree build   plain values -> QXPropertyList tree
#     unwrap       tree -> plain values
#     find-all     every node holding TEXT, keys and values, in the order
#                  `qx plist find --all` reports
#   peak resident memory, one process each (/usr/bin/time, and getrusage in
#   the process): the file's bytes alone, the plain values, the tree as
#   `qx plist` loads a file (values read, tree built, values released)
#   plistlib (python3, same file): plistlib.load, then a recursive walk that
#     tests TEXT as a substring of every dictionary key and every value (str
#     of numbers and dates, bytes of data), counting matches
#   end to end: `qx plist find --all FILE TEXT` against the python script
# and prints the ratios the targets are stated in: tree build / plain read
# <= 3, tree peak / plain peak <= 3, plistlib walk / find-all >= 10. The
# match counts of both finders are checked to agree (TEXT is letters that
# occur only in keys and strings, so both definitions of a match coincide).
#
# Environment: QX_BENCH_OBJECTS (default 1000000), QX_BENCH_SEED (1),
# QX_BENCH_TEXT (zorqua), QX_BENCH_RUNS (timed runs per measure, 3),
# QX_BENCH_JOBS (2), QX_BENCH_BUILD (build-bench), QX_BENCH_BUILD_TYPE
# (Release, as run-plist-bench.sh, so both share build-bench), QX_BENCH_OUT
# (bench/out).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out}
objects=${QX_BENCH_OBJECTS:-1000000}
seed=${QX_BENCH_SEED:-1}
text=${QX_BENCH_TEXT:-zorqua}
runs=${QX_BENCH_RUNS:-3}
jobs=${QX_BENCH_JOBS:-2}
buildType=${QX_BENCH_BUILD_TYPE:-Release}

for tool in cmake ninja python3 /usr/bin/time; do
    command -v "$tool" >/dev/null 2>&1 || { echo "run-plist-tree-bench: $tool is required" >&2; exit 1; }
done

echo "== build ($buildType) in $build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE="$buildType" \
    -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF >/dev/null
ninja -C "$build" -j"$jobs" qx qx_generate_plist qx_plist_tree_bench

qx=$build/tools/qx/qx
bench=$build/bench/qx_plist_tree_bench
mkdir -p "$out"
big=$out/big.plist

echo "== generate: seed $seed, at least $objects objects"
"$build/bench/qx_generate_plist" --seed "$seed" --objects "$objects" -o "$big" >"$out/generate.txt"
file_objects=$(awk '$1 == "objects" { print $2 }' "$out/generate.txt")
file_bytes=$(awk '$1 == "bytes" { print $2 }' "$out/generate.txt")
echo "$big: $file_objects objects, $file_bytes bytes"

cat >"$out/plistlib_find.py" <<'PYTHON'
import datetime, plistlib, statistics, sys, time

def walk(value, text):
    """Matches below value: each dictionary entry tests its key and its value,
    each array element its value; containers hold no text of their own."""
    found = 0
    if isinstance(value, dict):
        for key, item in value.items():
            if text in key or leaf(item, text):
                found += 1
            found += walk(item, text)
    elif isinstance(value, list):
        for item in value:
            if leaf(item, text):
                found += 1
            found += walk(item, text)
    return found

def leaf(value, text):
    if isinstance(value, str):
        return text in value
    if isinstance(value, (bytes, bytearray)):
        return text.encode() in value
    if isinstance(value, (dict, list)):
        return False
    return text in str(value)  # numbers, booleans, dates

path, text, runs = sys.argv[1], sys.argv[2], int(sys.argv[3])
loads, walks = [], []
for _ in range(runs):
    start = time.perf_counter()
    with open(path, "rb") as f:
        value = plistlib.load(f)
    middle = time.perf_counter()
    matches = walk(value, text)
    end = time.perf_counter()
    loads.append(middle - start)
    walks.append(end - middle)
    del value
print(f"matches {matches}\nload {statistics.median(loads):.6f}\nwalk {statistics.median(walks):.6f}")
PYTHON

load_before=$(cut -d' ' -f1-3 /proc/loadavg)

echo "== in process: read, build, unwrap, find-all ($runs runs, medians)"
"$bench" times "$big" "$text" --runs "$runs" | tee "$out/tree-times.txt"

echo "== peak memory (one process each)"
: >"$out/tree-peaks.txt"
for what in bytes plain tree; do
    /usr/bin/time -f "%M" -o "$out/rss-$what.txt" "$bench" peak "$what" "$big" >"$out/rusage-$what.txt"
    echo "$what $(cat "$out/rss-$what.txt") $(cat "$out/rusage-$what.txt")" | tee -a "$out/tree-peaks.txt"
done

echo "== plistlib: load + walk ($runs runs, medians)"
python3 "$out/plistlib_find.py" "$big" "$text" "$runs" | tee "$out/plistlib-times.txt"

echo "== end to end: qx plist find --all against the python script (one run each)"
/usr/bin/time -f "%e %M" -o "$out/e2e-qx.txt" "$qx" plist find --all "$big" "$text" >"$out/qx-find.txt" || true
/usr/bin/time -f "%e %M" -o "$out/e2e-python.txt" python3 "$out/plistlib_find.py" "$big" "$text" 1 >/dev/null
echo "qx $(cat "$out/e2e-qx.txt")  python3 $(cat "$out/e2e-python.txt")  (seconds, peak KiB)"

load_after=$(cut -d' ' -f1-3 /proc/loadavg)

python3 - "$out" "$file_bytes" "$file_objects" "$text" "$load_before" "$load_after" "$(nproc)" <<'PYTHON'
import os, sys

out, size, objects, text, load_before, load_after, cpus = sys.argv[1:8]
size, objects = int(size), int(objects)

def pairs(name):
    return {k: v for k, v in (line.split(None, 1) for line in open(os.path.join(out, name)) if line.strip())}

t = {k: float(v) for k, v in pairs("tree-times.txt").items()}
py = {k: float(v) for k, v in pairs("plistlib-times.txt").items()}
peaks = {}
for line in open(os.path.join(out, "tree-peaks.txt")):
    what, timed, own = line.split()
    peaks[what] = max(int(timed), int(own)) / 1024.0
qx_lines = sum(1 for line in open(os.path.join(out, "qx-find.txt")) if line.strip())
qx_e2e, qx_e2e_rss = open(os.path.join(out, "e2e-qx.txt")).read().split()[-2:]
py_e2e, py_e2e_rss = open(os.path.join(out, "e2e-python.txt")).read().split()[-2:]

print()
print(f"input: {size / 1e6:.1f} MB, {objects:,} objects in the file, {int(t['nodes']):,} tree nodes; "
      f"text {text!r}; load average {load_before} before, {load_after} after ({cpus} CPUs)")
print(f"{'step':<34}{'seconds':>10}{'Mobj/s':>9}")
rows = [("plain read (bytes -> values)", t["plain_read"]), ("tree build (values -> tree)", t["tree_build"]),
        ("unwrap (tree -> values)", t["unwrap"]), ("find-all over the tree", t["find_all"]),
        ("release the values", t["release_values"]), ("release the tree", t["release_tree"]),
        ("plistlib load", py["load"]), ("plistlib walk", py["walk"])]
for name, s in rows:
    print(f"{name:<34}{s:>10.3f}{objects / s / 1e6:>9.2f}")
print(f"{'peak resident memory':<34}{'MiB':>10}")
for what, name in (("bytes", "file bytes only"), ("plain", "plain values"), ("tree", "tree (as qx plist loads)")):
    print(f"{name:<34}{peaks[what]:>10.1f}")
print(f"matches: find-all {int(t['matches']):,}, qx plist find --all {qx_lines:,}, plistlib walk {int(py['matches']):,}")
print(f"end to end: qx plist find --all {float(qx_e2e):.2f} s ({int(qx_e2e_rss) / 1024:.0f} MiB), "
      f"python3 load + walk {float(py_e2e):.2f} s ({int(py_e2e_rss) / 1024:.0f} MiB)")

def verdict(value, target, at_most):
    ok = value <= target if at_most else value >= target
    if ok:
        return "met"
    return f"MISSED by {value / target:.2f}x" if at_most else f"MISSED by {target / value:.2f}x"

print()
build = t["tree_build"] / t["plain_read"]
print(f"tree build / plain read          {build:6.2f}  (target <= 3: {verdict(build, 3, True)})"
      f"; read + build / read {(t['plain_read'] + t['tree_build']) / t['plain_read']:.2f}")
memory = peaks["tree"] / peaks["plain"]
net = (peaks["tree"] - peaks["bytes"]) / (peaks["plain"] - peaks["bytes"])
print(f"tree peak / plain peak           {memory:6.2f}  (target <= 3: {verdict(memory, 3, True)})"
      f"; above the file's bytes {net:.2f}")
speed = py["walk"] / t["find_all"]
print(f"plistlib walk / find-all         {speed:6.2f}  (target >= 10: {verdict(speed, 10, False)})"
      f"; end to end {float(py_e2e) / float(qx_e2e):.2f}")
if not int(t["matches"]) == qx_lines == int(py["matches"]):
    print("MATCH COUNTS DIFFER")
    sys.exit(1)
PYTHON
