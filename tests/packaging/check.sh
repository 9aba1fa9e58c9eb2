#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a host against it
# twice: once found by find_package, once by pkg-config.
set -euo pipefail
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$here" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/cmake-build/consumer"

flags=$(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs zu_data_manager)
# shellcheck disable=SC2086
c++ "$here/consumer.cc" -o "$work/pkg-consumer" $flags
LD_LIBRARY_PATH="$work/prefix/lib" "$work/pkg-consumer"
echo "packaging: find_package and pkg-config consumers both ran"
