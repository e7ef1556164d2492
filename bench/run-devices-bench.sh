#!/usr/bin/env bash
# run-devices-bench.sh - `qx devices` against the storage daemon's own client
# and lsblk, with 16 loop devices attached (ratios printed).
#
#   list           qx devices list        lsblk -J -O     udisksctl dump
#   mount+unmount  qx devices mount DEV && qx devices unmount DEV
#                  udisksctl mount -b DEV && udisksctl unmount -b DEV
#
# qx goes through the storage daemon (the provider the machine offers once
# the services run); the direct provider's listing is timed too, for
# reference. Prints the mean times and the ratios peer time / qx time
# against the targets: list >= 1.0x both peers, mount+unmount >= 0.9x
# udisksctl. Needs root. Starts the services the daemon needs when they are
# not running (scripts/udisks-services.sh) and stops what it started; the loop
# devices it attached are detached again, by device and backing file.
#
# Environment: QX_BENCH_RUNS (20), QX_BENCH_BUILD (build-bench),
# QX_BENCH_OUT (bench/out/devices), QX_BENCH_JOBS (2), QX_BENCH_QX (a qx
# already built, instead of building one).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QX_BENCH_BUILD:-$root/build-bench}
out=${QX_BENCH_OUT:-$root/bench/out/devices}
runs=${QX_BENCH_RUNS:-20}
mkdir -p "$out"

[ "$(id -u)" -eq 0 ] || { echo "run-devices-bench.sh: needs root (loop devices, mounts)" >&2; exit 1; }
for tool in hyperfine lsblk udisksctl losetup mkfs.ext4 python3; do
  command -v "$tool" > /dev/null || { echo "$tool is not installed (scripts/setup.sh installs it)" >&2; exit 1; }
done

if [ -n "${QX_BENCH_QX:-}" ]; then
  qx=$QX_BENCH_QX
else
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON -DQX_BUILD_TESTS=OFF \
    -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache > /dev/null
  ninja -C "$build" -j"${QX_BENCH_JOBS:-2}" qx > /dev/null
  qx=$build/tools/qx/qx
fi

state=$out/services.state
images=$out/images
attached=()
declare -A image_of=()
cleanup() {
  local device
  for device in "${attached[@]}"; do
    # Only while it still holds our image: another job may have the number now.
    if [ "$(cat "/sys/class/block/${device#/dev/}/loop/backing_file" 2> /dev/null)" = "${image_of[$device]}" ]; then
      if grep -q "^$device " /proc/mounts; then umount "$device"; fi
      losetup -d "$device"
    fi
  done
  "$root/scripts/udisks-services.sh" stop "$state"
}
trap cleanup EXIT

"$root/scripts/udisks-services.sh" start "$state"
"$root/scripts/udisks-services.sh" status || { echo "the storage daemon does not answer on the system bus" >&2; exit 1; }

rm -rf "$images" && mkdir -p "$images"
for i in $(seq 16); do
  image=$images/$i.img
  truncate -s 8M "$image"
  mkfs.ext4 -q -F -L "QXBENCH$i" "$image"
  device=$(losetup -f --show "$image")
  attached+=("$device")
  image_of[$device]=$image
done
udevadm settle --timeout=30
device=${attached[0]}

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
hyperfine --warmup 3 --runs "$runs" --export-json "$out/list.json" \
  -n qx "$qx devices list" -n qx-direct "QX_BLOCK_DEVICE_PROVIDER=direct $qx devices list" \
  -n lsblk "lsblk -J -O" -n udisksctl "udisksctl dump" > /dev/null
hyperfine --warmup 2 --runs "$runs" --export-json "$out/mount.json" \
  -n qx "$qx devices mount $device > /dev/null && $qx devices unmount $device" \
  -n udisksctl "udisksctl mount -b $device > /dev/null && udisksctl unmount -b $device > /dev/null" > /dev/null
echo "load average after:  $(cut -d' ' -f1-3 /proc/loadavg)"

python3 - "$out/list.json" "$out/mount.json" <<'PY'
import json, sys
def means(path):
    return {r["command"]: r["mean"] for r in json.load(open(path))["results"]}
lists, mounts = means(sys.argv[1]), means(sys.argv[2])
print("list, 16 loop devices attached (mean of runs):")
for name, seconds in lists.items():
    print(f"  {name:12} {seconds * 1000:8.1f} ms")
for peer, target in (("lsblk", 1.0), ("udisksctl", 1.0)):
    ratio = lists[peer] / lists["qx"]
    print(f"  ratio {peer} / qx = {ratio:.2f}x (target >= {target}x){'' if ratio >= target else '  BELOW TARGET'}")
print("mount + unmount of one loop device:")
for name, seconds in mounts.items():
    print(f"  {name:12} {seconds * 1000:8.1f} ms")
ratio = mounts["udisksctl"] / mounts["qx"]
print(f"  ratio udisksctl / qx = {ratio:.2f}x (target >= 0.9x){'' if ratio >= 0.9 else '  BELOW TARGET'}")
PY
