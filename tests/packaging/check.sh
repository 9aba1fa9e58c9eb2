#!/usr/bin/env bash
# Installs the built library into a temporary prefix and moves the prefix elsewhere; runs the
# installed zu from there; builds and runs a C++20 host found by find_package and by pkg-config
# (which must force no language standard); then builds the host with the library's sources
# through add_subdirectory, where nothing but the library may be built.
set -euo pipefail
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "packaging: $*" >&2; exit 1; }

cmake --install "$build_dir" --prefix "$work/staged" >/dev/null
mv "$work/staged" "$work/prefix"
if [ -e "$work/prefix/bin/zu" ]; then
  env -u LD_LIBRARY_PATH "$work/prefix/bin/zu" --version | grep -q '^zu [0-9]' ||
    fail "the installed zu does not run from a moved prefix"
fi

cmake -S "$here" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/cmake-build/consumer"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
cflags=$(pkg-config --cflags zu_data_manager)
case " $cflags " in *" -std="*) fail "pkg-config forces a language standard: $cflags" ;; esac
# shellcheck disable=SC2086
c++ -std=c++20 "$here/consumer.cc" -o "$work/pkg-consumer" $cflags $(pkg-config --libs zu_data_manager)
LD_LIBRARY_PATH="$work/prefix/lib" "$work/pkg-consumer"

cmake -S "$here" -B "$work/sub-build" -DZU_SOURCE_DIR="$here/../.." >/dev/null
cmake --build "$work/sub-build" -j 2 >/dev/null
"$work/sub-build/consumer"
for part in tests examples tools python bench; do
  [ ! -e "$work/sub-build/zu/$part" ] || fail "add_subdirectory also configured $part/"
done
[ -z "$(find "$work/sub-build/zu" -name '*.a')" ] || fail "add_subdirectory built more than the library"
echo "packaging: moved prefix, find_package, pkg-config and add_subdirectory consumers all ran"
