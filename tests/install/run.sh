#!/bin/bash
# Installs a build into a temporary folder, moves the installed tree, and builds and runs a user's program against
# it: once with CMake, once with pkg-config. The installed tool must start as well.
#
#   tests/install/run.sh [BUILD_FOLDER]      (default: build)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-$here/../../build}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

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

if [ -x "$work/moved/bin/tarvo" ]; then
  echo "install: the tool"
  "$work/moved/bin/tarvo" info >"$work/info.txt"
fi
if grep -rl --binary-files=without-match -F "$build" "$work/moved" >&2; then
  echo "install: these installed files name the build folder" >&2
  exit 1
fi
echo "install: all work"
