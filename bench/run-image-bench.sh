#!/usr/bin/env bash
# run-image-bench.sh - `qx image convert` both ways against peer tools.
#
# The disk: QX_BENCH_MIB MiB (default 256) of the decompression benchmark's
# mixed payload (text-like and binary MiBs alternating), laid on a raw disk of
# the same size in 3 MiB runs each followed by 1 MiB left zero, as free space
# lies on real disks. Its UDZO image (level 6) is made once with qx, then:
#   decode   qx image convert IMAGE -o OUT (raw)   7zz x -tdmg    dmg2img
#   convert  qx image convert RAW --format UDZO --level 6          pigz -6 -c RAW
# Every output is checked against the disk (7-Zip's files joined in order)
# before hyperfine times the group from the page cache. Prints seconds, MB/s
# of disk bytes and the ratios peer time / qx time against the targets:
# decode >= 1.5x dmg2img and >= 1.0x 7zz; convert >= 0.9x pigz.
#
# Environment: QX_BENCH_MIB (256), QX_BENCH_RUNS (3), QX_BENCH_BUILD
# (build-bench), QX_BENCH_OUT (bench/out/image), QX_BENCH_JOBS (2).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out/image}
mib=${QX_BENCH_MIB:-256}
runs=${QX_BENCH_RUNS:-3}
mkdir -p "$out"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF \
  -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache > /dev/null
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx qx_decompress_bench > /dev/null
qx=$build/tools/qx/qx

for tool in 7zz dmg2img pigz hyperfine; do
  command -v "$tool" > /dev/null || { echo "$tool is not installed (scripts/setup.sh installs it)" >&2; exit 1; }
done

disk=$out/disk.raw
image=$out/disk.dmg
if [ ! -f "$disk" ] || [ "$(stat -c %s "$disk")" -ne $((mib * 1024 * 1024)) ]; then
  rm -f "$disk" "$image"
  "$build/bench/qx_decompress_bench" payload "$out/payload.bin" "$mib"
  python3 - "$out/payload.bin" "$disk" <<'PY'
import sys
mib = 1 << 20
with open(sys.argv[1], "rb") as src, open(sys.argv[2], "wb") as dst:
    data = src.read()
    dst.truncate(len(data))
    for at in range(0, len(data), 4 * mib):
        dst.seek(at)
        dst.write(data[at:at + 3 * mib])
PY
  rm -f "$out/payload.bin"
fi
[ -f "$image" ] && [ "$image" -nt "$disk" ] || "$qx" image convert "$disk" -o "$image" --format UDZO --level 6
cat "$disk" "$image" > /dev/null  # into the page cache
sum=$(md5sum < "$disk" | cut -d' ' -f1)

check() {  # name file
  if [ "$(md5sum < "$2" | cut -d' ' -f1)" != "$sum" ]; then echo "$1: output differs from the disk" >&2; exit 1; fi
}
"$qx" image convert "$image" -o "$out/qx.raw" && check "qx decode" "$out/qx.raw"
rm -rf "$out/7z" && 7zz x -tdmg -y -o"$out/7z" "$image" > /dev/null
ls "$out/7z" | sort -n | sed "s|^|$out/7z/|" | tr '\n' '\0' | xargs -0 cat > "$out/7z.raw" && check "7zz" "$out/7z.raw"
dmg2img -s "$image" "$out/dmg2img.raw" > /dev/null && check "dmg2img" "$out/dmg2img.raw"
"$qx" image convert "$disk" -o "$out/qx.dmg" --format UDZO --level 6
"$qx" image convert "$out/qx.dmg" -o "$out/back.raw" && check "qx convert" "$out/back.raw"
pigz -6 -c "$disk" | pigz -dc > "$out/pigz.raw" && check "pigz" "$out/pigz.raw"
rm -f "$out"/*.raw.* "$out/7z.raw" "$out/dmg2img.raw" "$out/back.raw" "$out/pigz.raw"
ls -l "$image" "$out/qx.dmg" | awk '{print "  " $5 " bytes  " $9}'
pigz -6 -c "$disk" | wc -c | awk '{print "  " $1 " bytes  pigz -6"}'

hyperfine --runs "$runs" --export-json "$out/decode.json" \
  -n "qx decode" "$qx image convert $image -o $out/qx.raw" \
  -n "7zz x" "rm -rf $out/7z && 7zz x -tdmg -y -o$out/7z $image" \
  -n "dmg2img" "dmg2img -s $image $out/dmg2img.raw" > /dev/null
hyperfine --runs "$runs" --export-json "$out/convert.json" \
  -n "qx convert" "$qx image convert $disk -o $out/qx.dmg --format UDZO --level 6" \
  -n "pigz -6" "pigz -6 -c $disk > $out/pigz.gz" > /dev/null
rm -rf "$out/7z" "$out/qx.raw" "$out/dmg2img.raw" "$out/pigz.gz"

echo "disk: $mib MiB raw, $(stat -c %s "$image") bytes as UDZO; load average $(cut -d' ' -f1-3 /proc/loadavg)"
python3 - "$((mib * 1024 * 1024))" "$out/decode.json" "$out/convert.json" <<'PY'
import json, sys
size = int(sys.argv[1])
t = {}
for path in sys.argv[2:]:
    for r in json.load(open(path))["results"]:
        t[r["command"]] = r["median"]
        print(f"  {r['command']:12s} {r['median']:6.2f} s  {size / r['median'] / 1e6:7.1f} MB/s"
              f"  (processor {r['user'] + r['system']:.2f} s)")
print("== ratios (peer time / qx time)")
for qx, peer, target in [("qx decode", "dmg2img", 1.5), ("qx decode", "7zz x", 1.0), ("qx convert", "pigz -6", 0.9)]:
    r = t[peer] / t[qx]
    print(f"  {qx:10s} vs {peer:8s} {r:5.2f}x (>= {target}: {'met' if r >= target else 'MISSED'})")
PY
