#!/bin/sh
# Tests check_layers.sh: a small tree in order passes, and each single fault put into it is found.
set -eu
check=$(cd "$(dirname "$0")" && pwd)/check_layers.sh
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
failures=0
tests=0

# A fresh tree with one file of each kind, all in order.
plant() {
  rm -rf "$tree"
  mkdir -p "$tree/include/tarvo" "$tree/src/core" "$tree/src/device/cuda" "$tree/src/variational/flow" "$tree/src/api" \
    "$tree/src/cpuflow" "$tree/tools" "$tree/tests/variational"
  printf '#include <tarvo/a.h>\n' >"$tree/include/tarvo/tarvo.h"
  printf '#include <tarvo/b.h>\n#include <vector>\n' >"$tree/include/tarvo/a.h"
  printf 'int b();\n' >"$tree/include/tarvo/b.h"
  printf '#include "core/x.h"\n#include <cmath>\n' >"$tree/src/core/x.cpp"
  printf '#include <cuda_runtime.h>\n#ifdef __CUDACC__\n#endif\n' >"$tree/src/device/cuda/launch.h"
  printf '#include "device/cuda/launch.h"\n' >"$tree/src/device/launch.h"
  printf '#include "device/launch.h"\n// "api/x.h", threadIdx, <<<\n/* __global__\n#include "api/x.h"\n*/\n' \
    >"$tree/src/variational/x.cpp"
  printf '#include <cuda_runtime.h>\n__global__ void f() {}\n' >"$tree/src/variational/x.cuh"
  printf '#include "variational/x.h"\n#include "device/launch.h"\nauto s = "threadIdx.x";\n' >"$tree/src/api/x.cpp"
  printf '#include "variational/x.h"\n#include "variational/pyramid/x.h"\n' >"$tree/src/variational/flow/x.cpp"
  printf '#include "variational/x.h"\n#include "variational/flow/x.h"\n' >"$tree/src/cpuflow/x.cpp"
  printf '#include <tarvo/tarvo.h>\n#include "options.h"\n' >"$tree/tools/main.cpp"
  printf '#include "variational/x.h"\n#include "support/y.h"\n#if TARVO_WITH_CUDA\n#endif\n' >"$tree/tests/variational/x.cpp"
}

# finds FILE LINE TEXT [NAMED]: with LINE added at the end of FILE, the check must fail and say TEXT, and nothing
# else, about the file NAMED (the same file if left out).
finds() {
  tests=$((tests + 1))
  plant
  mkdir -p "$(dirname "$tree/$1")"
  printf '%s\n' "$2" >>"$tree/$1"
  if out=$("$check" "$tree" 2>&1); then
    echo "not found: $2 in $1"
    failures=$((failures + 1))
  elif ! printf '%s\n' "$out" | grep -F "${4:-$1}:" | grep -qF "$3" || [ "$(printf '%s\n' "$out" | wc -l)" -ne 2 ]; then
    printf 'wrong finding for %s in %s:\n%s\n' "$2" "$1" "$out"
    failures=$((failures + 1))
  fi
}

tests=$((tests + 1))
plant
if ! out=$("$check" "$tree" 2>&1); then
  printf 'a tree in order was refused:\n%s\n' "$out"
  failures=$((failures + 1))
fi

finds src/core/x.cpp '#include "device/launch.h"' 'room core must not include room device'
finds src/variational/x.cpp '#  include "api/x.h"' 'room variational must not include room api'
finds src/variational/x.cpp '#include "core/x.h"' 'room variational must not include room core'
finds src/variational/x.cpp '#include "variational/flow/x.h"' 'room variational must not include room variational/flow'
finds src/variational/pyramid/x.cpp '#include "variational/flow/x.h"' 'room variational/pyramid must not include room variational/flow'
finds src/cpuflow/x.cpp '#include "match/x.h"' 'room cpuflow must not include room match'
finds src/api/x.cpp '#include "device/cuda/launch.h"' 'known to the device room only'
finds src/api/x.cpp '#include <variational/x.h>' 'included in quotes'
finds src/variational/x.cpp '#include "../api/x.h"' 'no relative paths'
finds src/variational/x.cpp '#include "x.h"' 'included as "room/file.h"'
finds src/variational/x.cpp '#include "tarvo/a.h"' 'included as <tarvo/a.h>'
finds src/variational/x.cpp '#include "support/y.h"' 'only tests include tests'
finds src/variational/x.cpp '#include NAME' 'written out'
finds src/extra/x.cpp 'int x;' 'is no room'
finds include/tarvo/b.h '#include "variational/x.h"' 'public headers include <tarvo/...> only'
finds include/tarvo/c.h "int c();" "does not reach" include/tarvo/tarvo.h
finds include/tarvo/b.h '#include <cuda_runtime.h>' 'CUDA headers'
finds tools/main.cpp '#include "variational/x.h"' 'clients include <tarvo/...> only'
finds src/variational/x.cpp '#include <cooperative_groups.h>' 'CUDA headers'
finds src/variational/x.cpp '#if defined(__CUDA_ARCH__)' 'conditionals on the backend'
finds src/variational/x.cpp 'int x = threadIdx.x;' 'CUDA code'
finds src/variational/x.cpp 'f<<<1, 2>>>();  // launch' 'CUDA code'

echo "$((tests - failures)) of $tests layer tests passed"
[ "$failures" -eq 0 ]
