#!/usr/bin/env bash
# Builds qx and runs its main job on a shipped sample: prints a binary
# property list (a keyed archive made by another program), then converts it
# and prints the conversion; then decompresses a shipped PBZX payload and
# compares it with the archive it was made from.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > build.configure.log 2>&1 || { cat build.configure.log; exit 1; }
ninja -C build qx

sample=tests/fixtures/plist/cpython/keyed-archive.bplist
out=$(mktemp --suffix=.plist)
trap 'rm -f "$out"' EXIT
./build/tools/qx/qx plist print "$sample"
./build/tools/qx/qx plist convert --format binary "$sample" -o "$out"
echo "converted $sample -> $(stat -c %s "$out") bytes"

payload=tests/fixtures/pbzx/pkgbuild-payload.pbzx
./build/tools/qx/qx decompress "$payload" -o "$out"
cmp "$out" tests/fixtures/pbzx/pkgbuild-payload.cpio
echo "decompressed $payload -> $(stat -c %s "$out") bytes, equal to the archive it was made from"
