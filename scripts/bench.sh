#!/bin/sh
# Builds and runs the benchmarks: the kernels (ns per pixel, GB/s) and the whole computation.
#
#   scripts/bench.sh [CMAKE_ARGUMENT...]
#
# Results, as JSON: build/bench/kernels.json and build/bench/flow.json. TARVO_BENCH_ARGS holds further arguments
# for the kernel benchmarks, e.g. --benchmark_filter=Convolve.
set -eu
cd "$(dirname "$0")/.."

cmake --preset release -DTARVO_BUILD_BENCH=ON "$@"
cmake --build --preset release
mkdir -p build/bench

if [ -x build/bin/tarvo_bench_kernels ]; then
  # shellcheck disable=SC2086
  build/bin/tarvo_bench_kernels --benchmark_out=build/bench/kernels.json --benchmark_out_format=json \
    ${TARVO_BENCH_ARGS:-}
else
  echo "bench: no kernel benchmarks, since Google Benchmark is not installed"
fi
build/bin/tarvo_bench_flow --json build/bench/flow.json
echo "bench: results in build/bench"
