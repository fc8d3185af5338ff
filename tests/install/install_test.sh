#!/usr/bin/env bash
# Installs a build into a scratch prefix and builds the consumer program against it, outside
# the source tree, once through find_package and once through pkg-config; both must run and
# print the module's text form. The installed libraries' RUNPATH must be $ORIGIN-relative.
#   tests/install/install_test.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
scratch=$(mktemp -d "${TMPDIR:-/tmp}/orvex-install.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
expected="DEMO_consumer loaded"

cmake --install "$build" --prefix "$prefix" >/dev/null
cp -r "$here/consumer" "$scratch/consumer"

for lib in "$prefix"/lib/*.so; do
  runpath=$(readelf -d "$lib" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
  if [[ $runpath == *"$build"* || $runpath == *"$here"* || $runpath != *'$ORIGIN'* ]]; then
    echo "install test: $lib has RUNPATH '$runpath'" >&2
    exit 1
  fi
done

cmake -S "$scratch/consumer" -B "$scratch/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
out=$("$scratch/cmake-build/consumer")
[[ $out == "$expected" ]] || { echo "install test: find_package consumer printed '$out'" >&2; exit 1; }

# shellcheck disable=SC2046
c++ -std=c++20 "$scratch/consumer/main.cpp" -o "$scratch/pc-consumer" \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs orvex-client)
out=$("$scratch/pc-consumer")
[[ $out == "$expected" ]] || { echo "install test: pkg-config consumer printed '$out'" >&2; exit 1; }
echo "install test: find_package and pkg-config consumers built and ran against $prefix"
