#!/usr/bin/env bash
# Line and branch coverage of the library (Sources/ and Platform/src) by the
# test suite: a gcc --coverage Debug build in build-cov, CTest, then gcovr.
# Prints the two totals and writes a per-file report to build-cov/coverage.txt.
#
#   scripts/coverage.sh [CTEST_ARGS...]     e.g. scripts/coverage.sh -R Explode
#
# The whole suite takes about a quarter of an hour on two cores; extra
# arguments go to ctest to measure a part of it. Counters from earlier runs
# are cleared first, so the numbers are this run's alone. Throw branches and
# branches the compiler proved unreachable are left out of the branch count:
# they are the compiler's, not the code's. Counters are updated atomically:
# the suites run many threads, and plain updates lose counts (gcov then
# reports negative ones).
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build-cov
jobs=$(nproc)
command -v gcovr > /dev/null || { echo "gcovr is not installed (scripts/setup.sh installs it)" >&2; exit 1; }
launcher=()
command -v ccache > /dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

CC=gcc CXX=g++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug "${launcher[@]}" \
  -DCMAKE_C_FLAGS="--coverage -fprofile-update=atomic" -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" -DCMAKE_EXE_LINKER_FLAGS=--coverage \
  -DCMAKE_SHARED_LINKER_FLAGS=--coverage > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
ninja -C "$dir" -j"$jobs"

find "$dir" -name '*.gcda' -delete
# The counters' own complaints go to a file, not into the standard error of
# the qx processes the tests examine.
export GCOV_ERROR_FILE="$PWD/$dir/gcov-errors.log"
rm -f "$GCOV_ERROR_FILE"
status=0
ctest --test-dir "$dir" --output-on-failure -j"$jobs" "$@" || status=$?

# One gcov pass into a JSON tracefile; the reports are made from it.
gcovr --root . --object-directory "$dir" --filter Sources/ --filter Platform/src/ \
  --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
  --json "$dir/coverage.json" --print-summary | grep -E '^(lines|branches):'
{
  gcovr --add-tracefile "$dir/coverage.json" --txt
  gcovr --add-tracefile "$dir/coverage.json" --txt --branches
} > "$dir/coverage.txt"
echo "per-file lines and branches: $dir/coverage.txt"
exit "$status"
