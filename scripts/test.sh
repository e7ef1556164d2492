#!/usr/bin/env bash
# Builds and runs every test on a fresh machine (CI runs this through .ci/run
# on two cores). Stages, and what each is for:
#
#   1. Unit tests: GCC, RelWithDebInfo, build/. Every suite under CTest, with
#      the optimiser on, as the library ships.
#   2. Clang + ASan + UBSan: clang, Debug, build-clang/. Every suite again,
#      proving that the code builds and passes with the second compiler and
#      catching memory errors, leaks and undefined behaviour in one build.
#      The fuzz targets are compiled and linked here too (fuzz/; building is
#      the check, CI does not fuzz): they add a handful of files, not a
#      second library build.
#   3. ThreadSanitizer: GCC, Debug, build-san-thread/. Only the suites that
#      start threads (TSAN_SUITES below): the others run single-threaded and
#      gain nothing from it but time.
#   4. Install: the RelWithDebInfo build installed into a temporary prefix
#      and linked by another CMake project and by a pkg-config user.
#
# Every build goes through ccache when it is installed (setup.sh installs it).
#
#   QX_SANITIZE   space-separated sanitizer sets (default "address,undefined thread").
#                 The first set other than "thread" is the clang build's; "thread"
#                 is stage 3; any further set gets a GCC build running every suite.
#                 "none": no sanitizers (the clang build and the fuzz targets stay).
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh

jobs=$(nproc)
launcher=()
if command -v ccache > /dev/null; then
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

configure_and_build() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "${launcher[@]}" "$@" > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
  ninja -C "$dir" -j"$jobs"
}

run_tests() {
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp" \
    ctest --test-dir "$@" --output-on-failure -j"$jobs"
}

# Suites that start threads (CTest names are Suite.Test): threads, queues,
# run loops, streams, the decompressor and its operations, the remote file
# handle, and the few others whose tests hand work to a second thread.
TSAN_SUITES='(Thread|PropertyListSearch|Queue|Semaphore|Platform[A-Za-z]+|RunLoopSource|Observable|RingBuffer[A-Za-z]*|SlidingWindow|StoragePool|Stream|HTTPClientTest|FileHandle|Operation|Decompressor[A-Za-z]*|RemoteFileHandle[A-Za-z]*|Process|ErrorReporter|LocalizationLibrary|ObjectModelLog|Compressor[A-Za-z]*|ParallelCompressor|FSEvent[A-Za-z]*|QxWatch|DiskImage[A-Za-z]*|Device[A-Za-z]*|QxDevices|Hdiutil[A-Za-z]*|ChangeListenerRegistry|SharedMimeDatabase)\.'

clang_set=""
thread=no
extra_sets=()
for set in ${QX_SANITIZE:-address,undefined thread}; do
  case $set in
    none) clang_set=""; thread=no; extra_sets=(); break ;;
    thread) thread=yes ;;
    *) if [ -z "$clang_set" ]; then clang_set=$set; else extra_sets+=("$set"); fi ;;
  esac
done

echo "== 1. Unit tests (GCC, RelWithDebInfo) =="
CC=gcc CXX=g++ configure_and_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_tests build

echo "== 2. Unit tests with clang${clang_set:+ and -fsanitize=$clang_set}; fuzz targets compiled =="
CC=clang CXX=clang++ configure_and_build build-clang -DCMAKE_BUILD_TYPE=Debug -DQX_SANITIZE="$clang_set" \
  -DQX_BUILD_FUZZ=ON -DQX_FUZZ_INSTRUMENT_LIBRARY=OFF
run_tests build-clang

if [ "$thread" = yes ]; then
  echo "== 3. Thread-starting suites with -fsanitize=thread (GCC) =="
  CC=gcc CXX=g++ configure_and_build build-san-thread -DCMAKE_BUILD_TYPE=Debug -DQX_SANITIZE=thread
  run_tests build-san-thread -R "$TSAN_SUITES"
fi

for set in "${extra_sets[@]}"; do
  echo "== Unit tests with -fsanitize=$set (GCC) =="
  CC=gcc CXX=g++ configure_and_build "build-san-${set//,/-}" -DCMAKE_BUILD_TYPE=Debug -DQX_SANITIZE="$set"
  run_tests "build-san-${set//,/-}"
done

echo "== 4. Install and link from another project =="
./scripts/check-install.sh build
