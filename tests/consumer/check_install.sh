#!/bin/sh
# Installs the build into a scratch prefix and builds a consumer against it with
# find_package and with pkg-config: what a user's project does.
set -eu
BUILD=$1
SRC=$2
OUT=$BUILD/consumer-check
rm -rf "$OUT"
cmake --install "$BUILD" --prefix "$OUT/prefix" >/dev/null
cmake -S "$SRC/tests/consumer" -B "$OUT/cmake" -DCMAKE_PREFIX_PATH="$OUT/prefix" >/dev/null
cmake --build "$OUT/cmake" >/dev/null
"$OUT/cmake/consumer"
export PKG_CONFIG_PATH="$OUT/prefix/lib/pkgconfig"
c++ $(pkg-config --cflags vell) "$SRC/tests/consumer/consumer.cpp" -o "$OUT/consumer-pc" \
  $(pkg-config --libs vell) -Wl,-rpath,"$OUT/prefix/lib"
"$OUT/consumer-pc"
echo "install, find_package and pkg-config consumers: ok"
