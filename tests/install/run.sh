#!/bin/bash
# Installs a build into a temporary folder, moves the installed tree, and builds and runs a user's program against
# it: once with CMake, once with pkg-config. The installed tool must start, names and documents must be there, and a
# project that adds the sources instead is configured.
#
#   tests/install/run.sh [BUILD_FOLDER]      (default: build)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-$here/../../build}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "install: $*" >&2
  exit 1
}

cmake --install "$build" --prefix "$work/first" >"$work/install.log" || {
  cat "$work/install.log" >&2
  exit 1
}
mv "$work/first" "$work/moved"

echo "install: a consumer with CMake"
cmake -S "$here" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/moved" >"$work/cmake.log"
cmake --build "$work/consumer" >>"$work/cmake.log" || {
  cat "$work/cmake.log" >&2
  exit 1
}
"$work/consumer/consumer"

echo "install: a consumer with pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$work/moved" -name tarvo.pc)")
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs tarvo)
libdir=$(pkg-config --variable=libdir tarvo)
${CXX:-g++} -std=c++17 "$here/consumer.cpp" $flags -o "$work/consumer_pc"
LD_LIBRARY_PATH=$libdir "$work/consumer_pc"

echo "install: names and documents"
# Before 1.0 a minor version may change the interface, so that programs ask for major and minor.
version=$(pkg-config --modversion tarvo)
soname=$(readelf -d "$libdir/libtarvo_gpu.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ -f "$libdir/libtarvo_gpu.so.$version" ] || fail "pkg-config names version '$version', the library has another"
[ "$soname" = "libtarvo_gpu.so.${version%.*}" ] || fail "the library of version $version has the soname '$soname'"
cmp "$here/../../LICENSE" "$(find "$work/moved" -name LICENSE)" || fail "the licence is not installed"

echo "install: a project that adds the sources"
cmake -S "$here" -B "$work/parent" -DTARVO_SOURCE="$here/../.." -DTARVO_CUDA=OFF >"$work/cmake.log" || {
  cat "$work/cmake.log" >&2
  exit 1
}
cmake --install "$work/parent" --prefix "$work/of_parent" >"$work/install.log" 2>&1 || fail "its install step fails"
[ ! -e "$work/of_parent" ] || fail "it installs what is not its own"
grep -q '^CMAKE_BUILD_TYPE:[A-Z]*=$' "$work/parent/CMakeCache.txt" || fail "its build type is chosen for it"

if [ -x "$work/moved/bin/tarvo" ]; then
  echo "install: the tool"
  "$work/moved/bin/tarvo" info >"$work/info.txt"
fi
if grep -rl --binary-files=without-match -F "$build" "$work/moved" >&2; then
  echo "install: these installed files name the build folder" >&2
  exit 1
fi
echo "install: all work"
