#!/usr/bin/env bash
# run-attach-bench.sh - the Linux disk-image tool's attach and detach against doing it by hand.
#
# The image: a QX_BENCH_MIB MiB (default 256) ext4 disk holding the
# decompression benchmark's mixed payload as one file of three quarters of the
# disk, stored as UDZO (level 6) by qx. Timed, each from the page cache:
#   cold    hdiutil attach IMAGE (empty cache: decode, loop device, mount)
#           against dmg2img IMAGE RAW && mount -o loop,ro RAW MOUNT
#   warm    hdiutil attach IMAGE with the decoded file cached
#   detach  hdiutil detach DEVICE
# Each attach ends when the payload file's first byte is readable. Prints the
# medians and the ratios against the targets: cold attach >= 1.5x faster than
# by hand, warm attach < 0.5 s. Needs root (loop devices and mounts).
#
# QX_BLOCK_DEVICE_PROVIDER=udisks|direct times the storage daemon's path or the
# kernel's (the default: the daemon when it is on the system bus).
#
# Environment: QX_BENCH_MIB (256), QX_BENCH_RUNS (5), QX_BENCH_BUILD
# (build-bench), QX_BENCH_OUT (bench/out/attach), QX_BENCH_JOBS (2).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out/attach}
mib=${QX_BENCH_MIB:-256}
runs=${QX_BENCH_RUNS:-5}
[ "$(id -u)" -eq 0 ] || { echo "run-attach-bench.sh needs root (loop devices and mounts)" >&2; exit 1; }
for tool in dmg2img hyperfine mkfs.ext4; do
  command -v "$tool" > /dev/null || { echo "$tool is not installed (scripts/setup.sh installs it)" >&2; exit 1; }
done
mkdir -p "$out"
out=$(cd "$out" && pwd)

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF \
  -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache > /dev/null
ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx hdiutil qx_decompress_bench > /dev/null
export HDIUTIL=$build/tools/hdiutil/hdiutil BENCH_OUT=$out
export QXFOUNDATION_IMAGE_CACHE=$out/cache QXFOUNDATION_HDIUTIL_RUNTIME=$out/run

image=$out/disk.dmg
if [ ! -f "$image" ]; then
  mkdir -p "$out/tree"
  "$build/bench/qx_decompress_bench" payload "$out/tree/payload.bin" $((mib * 3 / 4))
  truncate -s "${mib}M" "$out/disk.raw"
  mkfs.ext4 -q -F -L qxbench -d "$out/tree" "$out/disk.raw"
  "$build/tools/qx/qx" image convert "$out/disk.raw" -o "$image" --format UDZO --level 6
  rm -rf "$out/tree" "$out/disk.raw"
fi
cat "$image" > /dev/null  # into the page cache
mkdir -p "$out/mnt"

# Detaches whatever this benchmark attached: loop devices on its own files only.
release() {
  if mountpoint -q "$BENCH_OUT/mnt"; then umount "$BENCH_OUT/mnt"; fi
  for backing in /sys/block/loop*/loop/backing_file; do
    case "$(cat "$backing" 2> /dev/null)" in
      "$BENCH_OUT"/*) "$HDIUTIL" detach -force "$(basename "$(dirname "$(dirname "$backing")")")" > /dev/null ;;
    esac
  done
}
# Attaches and reads the payload's first byte where the tool says it mounted it
# (the storage daemon and the kernel path mount in different places).
attach_and_read() { head -c1 "$("$HDIUTIL" attach "$1" | awk -F'\t' 'NF >= 3 && $3 != "" {point = $3} END {print point}')/payload.bin" > /dev/null; }
attached() { "$HDIUTIL" info | awk '/^\/dev\/loop/ && $NF ~ /qxbench/ {print $1}' | head -1; }
export -f release attached attach_and_read
trap 'release; rm -rf "$out/cache" "$out/run" "$out/by-hand.raw"' EXIT

hyperfine --shell=bash --runs "$runs" --export-json "$out/attach.json" \
  -n "hdiutil cold" -p 'release; rm -rf "$QXFOUNDATION_IMAGE_CACHE"' \
  "attach_and_read $image" \
  -n "by hand" -p 'release; rm -f "$BENCH_OUT/by-hand.raw"' \
  "dmg2img -s $image $out/by-hand.raw > /dev/null && mount -o loop,ro $out/by-hand.raw $out/mnt && head -c1 $out/mnt/payload.bin > /dev/null" \
  -n "hdiutil warm" -p 'release; "$HDIUTIL" attach -nomount '"$image"' > /dev/null; release' \
  "attach_and_read $image" > /dev/null
hyperfine --shell=bash --runs "$runs" --export-json "$out/detach.json" \
  -n "hdiutil detach" -p 'release; "$HDIUTIL" attach '"$image"' > /dev/null' '"$HDIUTIL" detach $(attached) > /dev/null' > /dev/null

echo "image: $mib MiB ext4 disk, $(stat -c %s "$image") bytes as UDZO; load average $(cut -d' ' -f1-3 /proc/loadavg)"
python3 - "$out/attach.json" "$out/detach.json" <<'PY'
import json, sys
t = {}
for path in sys.argv[1:]:
    for r in json.load(open(path))["results"]:
        t[r["command"]] = r["median"]
        print(f"  {r['command']:15s} {r['median']:6.3f} s  (processor {r['user'] + r['system']:.2f} s)")
cold = t["by hand"] / t["hdiutil cold"]
print(f"  cold attach vs by hand {cold:5.2f}x (>= 1.5: {'met' if cold >= 1.5 else 'MISSED'})")
print(f"  warm attach {t['hdiutil warm']:.3f} s (< 0.5 s: {'met' if t['hdiutil warm'] < 0.5 else 'MISSED'})")
PY
