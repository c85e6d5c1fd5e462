#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, builds examples/ as its own
# CMake project against it (find_package(VomKwz)), and runs every example.
#   examples.sh BUILD_DIR PREFIX EXAMPLES_SOURCE_DIR
set -euo pipefail
build=$1 prefix=$2 src=$3
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libVomKwz_x64.so*' | head -n 1)")

cmake -S "$src" -B "$prefix/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$prefix/build" >/dev/null

export LD_LIBRARY_PATH=$libdir
cp "$src/orders.c" "$prefix/input.txt"
run() { echo "== $*"; "$@"; }
run "$prefix/build/net_records"
run "$prefix/build/orders"
run "$prefix/build/calc_objects"
run "$prefix/build/graph_paths"
run "$prefix/build/compress_file" "$prefix/input.txt"
echo "examples: 5 built and run"
