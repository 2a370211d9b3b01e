#!/usr/bin/env bash
# Installs the build in $1 into an empty prefix, and builds and runs hosts outside the tree $2
# against it, on slot $3: through find_package in C and C++, and through pkg-config in C.
set -euo pipefail
build=$1 source=$2 slot=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
test -x "$prefix/bin/kinetrel" -a -x "$prefix/bin/kinetrel-watch"
libdir=$(dirname "$(find "$prefix" -name libkinetrel.so)")
readelf -d "$libdir/libkinetrel.so" | grep -q 'SONAME.*libkinetrel.so.[0-9]'

cmake -S "$source/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" >/dev/null
"$work/examples/steer-c" -d8 -z- "-w$slot" 2>/dev/null | grep 'Hz'
"$work/examples/steer-cpp" "$slot" 2>/dev/null | grep 'Hz'

if command -v pkg-config >/dev/null; then
  export PKG_CONFIG_PATH=$libdir/pkgconfig
  # shellcheck disable=SC2046
  cc "$source/examples/steer.c" $(pkg-config --cflags --libs kinetrel) -o "$work/steer"
  LD_LIBRARY_PATH=$libdir "$work/steer" -d8 -z- "-w$slot" 2>/dev/null | grep 'Hz'
fi
