#!/usr/bin/env bash
# run-codec-bench.sh - checksum throughput against the sha*sum tools and
# zlib, then explode and unshrink throughput.
#
# Every algorithm of `qx checksum` sums one random file of QX_BENCH_GIB GiB
# (default 1), read from the page cache, against its peer in the same
# hyperfine run: sha1sum ... sha512sum, and zlib's crc32 and adler32 through
# qx_zlib_sum. Prints MiB/s and the ratio peer time / qx time (1.0 = as fast,
# above 1 = faster than the peer). Then the largest fixture entries of each
# legacy ZIP method and a generated input of QX_BENCH_MIB MiB (default 64).
# Environment: QX_BENCH_BUILD (build-bench), QX_BENCH_OUT (bench/out).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out}
gib=${QX_BENCH_GIB:-1}
mib=${QX_BENCH_MIB:-64}
mkdir -p "$out"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF > /dev/null
ninja -C "$build" -j2 qx qx_zlib_sum qx_legacy_codec_bench > /dev/null
input=$out/checksum-input.bin
if [ ! -f "$input" ] || [ "$(stat -c %s "$input")" -ne $((gib * 1024 * 1024 * 1024)) ]; then
  head -c $((gib * 1024 * 1024 * 1024)) /dev/urandom > "$input"
fi
cat "$input" > /dev/null  # into the page cache
qx=$build/tools/qx/qx
for a in crc32 adler32 sha1 sha224 sha256 sha384 sha512; do
  case $a in
    crc32|adler32) peer="$build/bench/qx_zlib_sum $a $input" ;;
    *) peer="${a}sum $input" ;;
  esac
  # Same answer first: a fast wrong sum is no result.
  [ "$($qx checksum -a $a "$input")" = "$($peer)" ] || { echo "$a: qx and its peer disagree" >&2; exit 1; }
  hyperfine --warmup 1 --runs 5 --export-json "$out/checksum-$a.json" -n qx "$qx checksum -a $a $input" -n peer "$peer" > /dev/null
  python3 - "$out/checksum-$a.json" "$a" "$gib" <<'PY'
import json, sys
r = {x["command"]: x["mean"] for x in json.load(open(sys.argv[1]))["results"]}
mib = float(sys.argv[3]) * 1024
print(f"{sys.argv[2]:8s} qx {mib / r['qx']:8.0f} MiB/s   peer {mib / r['peer']:8.0f} MiB/s   ratio peer/qx {r['peer'] / r['qx']:.2f}")
PY
done

# The largest real entries that decode: implode by size, shrink among those without orphans.
args=$(python3 - "$root/tests/fixtures/zip" <<'PY'
import json, os, sys
root = sys.argv[1]
m = json.load(open(os.path.join(root, "manifest.json")))
best = {}
for a in m["archives"]:
    for e in json.load(open(os.path.join(root, a["entries_dir"], "manifest.json")))["entries"]:
        if e["method"] == 1 and e.get("shrink_stats", {}).get("orphans", 0):
            continue
        key = e["method"]
        if key not in best or e["uncompressed_size"] > best[key][2]:
            best[key] = (e["method"], e["flags"], e["uncompressed_size"], e["data_offset"], e["compressed_size"],
                         os.path.join(root, a["archive"]), e["name"])
for r in m["raw_streams"]:
    if os.path.basename(r["raw"]).startswith("ct_level"):
        print(r["method"], r["flags"], r["uncompressed_size"], 0, r["compressed_size"], os.path.join(root, r["raw"]), os.path.basename(r["raw"]))
for k in sorted(best):
    print(*best[k])
PY
)
# shellcheck disable=SC2086
"$build/bench/qx_legacy_codec_bench" "$mib" $args
