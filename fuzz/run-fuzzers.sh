#!/usr/bin/env bash
# Builds the fuzz targets with clang and runs each for a while on a corpus
# seeded from the test fixtures.
#   fuzz/run-fuzzers.sh [SECONDS_PER_TARGET] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}; shift || true
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQX_BUILD_FUZZ=ON -DQX_BUILD_TESTS=OFF -DQX_BUILD_TOOLS=OFF > /dev/null
targets=("$@")
# Named targets: only they (and the libraries) are built.
ninja -C build-fuzz "${targets[@]}"
[ ${#targets[@]} -gt 0 ] || targets=($(cd build-fuzz/fuzz && ls *Fuzzer))
for t in "${targets[@]}"; do
  corpus=fuzz/corpus-$t
  mkdir -p "$corpus"
  if [ -d "fuzz/seeds/$t" ]; then cp -n fuzz/seeds/$t/* "$corpus"/ 2>/dev/null || true; fi
  case $t in
    BinaryPropertyList*) find tests/fixtures -name '*.plist' -o -name '*.bplist' | while read -r f; do cp -n "$f" "$corpus/$(sha1sum "$f" | cut -c1-16)"; done ;;
    XMLPropertyList*) find tests/fixtures -name '*.plist' -o -name '*.xml' | while read -r f; do cp -n "$f" "$corpus/$(sha1sum "$f" | cut -c1-16)"; done ;;
    OldStylePropertyList*)
      cp -n Resources/en.lproj/Localizable.strings "$corpus/localizable" 2>/dev/null || true
      i=0
      for s in '{a = 1; b = "x y"; c = (1, 2, <0a1b>); }' '(\n    1,\n    2\n)' '"k" = "v";\n/* c */ k2 = v2;' \
               '{ "\\U00e9\\t" = (); d = {}; }' '<0A 1b 2c>' 'abc' "'single'" '// only a comment'; do
        printf "$s" > "$corpus/seed-$i"; i=$((i + 1))
      done ;;
    StringAdditions*)
      i=0
      for s in "0x1f" "  12  " "10.6.8" "abc:def" 'a<b&c @ caf\xc3\xa9' '<0a 0b>' '\xef\xbb\xbfhi' '\xff\xfeh\0i\0' \
               '1.5 KiB' '2 megabytes' '$FF' 'TEXT' '\x80\xa5\xdb\xf0' 'a.b\\c*?'; do
        printf "$s" > "$corpus/seed-$i"; i=$((i + 1))
      done ;;
    SharedMimeDatabase*)
      # The system's own files when installed, with names that meet each kind of pattern.
      if [ -f /usr/share/mime/globs2 ]; then
        { cat /usr/share/mime/globs2; printf '\0'; cat /usr/share/mime/aliases; printf '\0'
          cat /usr/share/mime/subclasses; printf '\0'; printf 'disk.qcow2\nMakefile\nREADME.md\nx.tar.gz\nX.ISO'
        } > "$corpus/system"
      fi ;;
    ZipArchive*) find tests/fixtures/zip/archives -type f | while read -r f; do cp -n "$f" "$corpus/$(sha1sum "$f" | cut -c1-16)"; done ;;
    LZFSE*) for f in tests/fixtures/lzfse/*.lzfse; do cp -n "$f" "$corpus/$(basename "$f")"; done ;;
    DiskImageFuzzer)
      # Layer byte 0: whole images; the small samples only (the fuzzer caps input size anyway).
      for f in tests/fixtures/dmg/*.dmg; do
        [ "$(stat -c %s "$f")" -le 200000 ] && { printf '\0'; cat "$f"; } > "$corpus/$(basename "$f" .dmg)"
      done ;;
    ADCFuzzer)
      # Capacity 4 KiB (256 * 16), then literal runs, short and long matches.
      printf '\x01\x00\x83abcd\x04\x01\x40\x00\x03\x7f\x00\x00' > "$corpus/seed-0" ;;
    Explode*|Unshrink*|PBZXDecode*) python3 fuzz/make-codec-seeds.py "$t" "$corpus" ;;
    DecompressorFuzzer)
      i=0
      for tool in "gzip -c" "bzip2 -c" "xz -c"; do
        head -c 4000 Sources/QXDecompressor.cpp | $tool > "$corpus/seed-$i" 2>/dev/null || true; i=$((i + 1))
      done
      # Two xz chunks and a stored one in a container, so the chunk decoders run.
      python3 - "$corpus/seed-pbzx" <<'PY'
import lzma, struct, sys
parts = [b"first chunk " * 300, b"second " * 500]
out = b"pbzx" + struct.pack(">Q", 0x1000000)
for p in parts:
    c = lzma.compress(p, format=lzma.FORMAT_XZ)
    out += struct.pack(">QQ", len(p), len(c)) + c
stored = b"stored bytes"
out += struct.pack(">QQ", len(stored), len(stored)) + stored
open(sys.argv[1], "wb").write(out)
PY
      ;;
  esac
  echo "== $t for ${seconds}s =="
  "build-fuzz/fuzz/$t" "$corpus" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix=fuzz/ 2>&1 | tail -15
done
