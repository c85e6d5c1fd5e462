#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds and runs a C
# consumer through pkg-config and a C++ consumer through find_package.
set -euo pipefail
build=$1 prefix=$2 src=$3
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

pcdir=$(dirname "$(find "$prefix" -name VomKwz.pc | head -n 1)")
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir VomKwz)
cc -std=c11 -Wall -Wextra -Werror "$src/consumer.c" -o "$prefix/consumer_c" \
   $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs VomKwz)
LD_LIBRARY_PATH=$libdir "$prefix/consumer_c"

cmake -S "$src" -B "$prefix/cxx-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/cxx-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$prefix/cxx-build/consumer_cxx"
