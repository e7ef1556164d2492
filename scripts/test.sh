#!/usr/bin/env bash
# Builds and runs every test on a fresh machine: the unit tests under CTest,
# then the same suites in a sanitizer build, then an install that another
# CMake project and a pkg-config user link against.
#
#   QX_SANITIZE   space-separated sanitizer sets, one build each
#                 (default "address,undefined thread": ASan+UBSan, then TSan; "none" skips)
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh

jobs=$(nproc)
configure_and_build() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
  ninja -C "$dir" -j"$jobs"
}

echo "== Unit tests =="
configure_and_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
ctest --test-dir build --output-on-failure -j"$jobs"

for set in ${QX_SANITIZE:-address,undefined thread}; do
  [ "$set" = none ] && continue
  dir="build-san-${set//,/-}"
  echo "== Unit tests with -fsanitize=$set =="
  configure_and_build "$dir" -DCMAKE_BUILD_TYPE=Debug -DQX_SANITIZE="$set"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp" \
    ctest --test-dir "$dir" --output-on-failure -j"$jobs"
done

echo "== Install and link from another project =="
./scripts/check-install.sh build
