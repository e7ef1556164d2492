#!/usr/bin/env bash
# Installs everything the build, the tests, the fuzzers and the benchmarks use.
# Idempotent: packages already present are left alone, so it is cheap to rerun.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  ccache                           # compiler cache for every build of scripts/test.sh
  gcovr                            # scripts/coverage.sh
  clang libclang-rt-dev            # fuzzing (libFuzzer) and the sanitizer runtimes
  libicu-dev                       # collation, case mapping, locale-aware formatting
  libcurl4-openssl-dev             # URL parsing, HTTP
  zlib1g-dev libbz2-dev liblzma-dev # deflate, gzip, bzip2, xz
  libisal-dev isal                 # the fast inflate, and igzip as its benchmark peer
  nettle-dev                       # MD2, MD5, SHA digests
  libxml2-dev                      # XML property lists
  libblkid-dev                     # partition tables of disks written as images
  libsystemd-dev                   # sd-bus: the storage daemon on the system bus
  udisks2 dbus udev polkitd        # the storage daemon and what it needs, for the device tests (scripts/udisks-services.sh)
  w3c-sgml-lib                     # the HTML entity sets Resources/Entities.txt is made from
  libcpp-httplib-dev libssl-dev libbrotli-dev  # the tests' in-process HTTP server (its .pc needs both)
  curl                             # peer for the HTTP benchmark
  libgtest-dev libgmock-dev googletest
  nlohmann-json3-dev               # the test fixtures' JSON manifests
  libbenchmark-dev
  libcli11-dev                     # qx's argument parsing
  libplist-utils python3           # peers for the property-list benchmark and the interop tests
  hyperfine
  pigz pixz time                   # peers and peak-memory wrapper for the decompression benchmark
  pbzip2 lbzip2                    # parallel bzip2 peers for the compression benchmark
  gzip bzip2 xz-utils              # the compressor tests read its output back with the standard tools
  7zip dmg2img                     # read the disk images we write (tests) and peers for the image benchmark
  fdisk e2fsprogs                  # the disk-image tests partition and format small disks
  fusefat fuseiso libfsapfs-utils  # FUSE helpers the disk-image tool mounts FAT, ISO 9660 and APFS with
  squashfs-tools xorriso apfsprogs # the disk-image tests make squashfs, ISO 9660 and APFS file systems
  shared-mime-info                 # the shared MIME database, where disk-image types are also recognised
  inotify-tools findutils          # peers for the file-system events benchmark
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
