#!/usr/bin/env bash
# lingering-fuse-helper.sh - a FUSE helper whose server outlives its unmount.
#
# Started through a link named after a real helper that takes -f after the
# mount point for "stay in the foreground" (fuseiso, fusefat), in a folder put
# first on PATH, it mounts with the real one, and its server keeps the
# device open for two seconds after the unmount, as a busy machine's may.
# Like the real helpers it returns once the mount is in place (status 0) or
# has failed (1). The device is the argument naming /dev/..., the mount
# point the one after it.
name=$(basename "$0")
real=$(PATH=${PATH#*:} command -v "$name") || exit 1
device= folder=
for argument in "$@"; do
  if [ -n "$device" ] && [ -z "$folder" ]; then folder=$argument; fi
  case $argument in /dev/*) device=$argument ;; esac
done
[ -n "$device" ] && [ -n "$folder" ] || exit 1
# -f keeps the real server in the foreground, so the subshell lingers only once it has
# gone; the last "true" keeps bash from replacing the subshell with sleep, whose
# command line would no longer name the mount point.
( exec 3<"$device"; "$real" "$@" -f; sleep 2; true ) </dev/null >/dev/null 2>&1 &
for _ in $(seq 200); do
  mountpoint -q "$folder" && exit 0
  kill -0 $! 2>/dev/null || exit 1
  sleep 0.02
done
exit 1
