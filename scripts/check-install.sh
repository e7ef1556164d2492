#!/usr/bin/env bash
# Installs a build into a temporary prefix and links a small program against
# it twice: through find_package(QXFoundation) and through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
prefix=$(mktemp -d)
work=$(mktemp -d)
trap 'rm -rf "$prefix" "$work"' EXIT

cmake --install "$build" --prefix "$prefix" > /dev/null

cmake -S tests/consumer -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
ninja -C "$work/cmake" > /dev/null
LD_LIBRARY_PATH="$prefix/lib" "$work/cmake/consumer"

PKG_CONFIG_PATH="$prefix/lib/pkgconfig" c++ tests/consumer/main.cpp -o "$work/consumer-pc" \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs QXFoundation)
LD_LIBRARY_PATH="$prefix/lib" "$work/consumer-pc"
echo "install: find_package and pkg-config consumers both linked and ran"
