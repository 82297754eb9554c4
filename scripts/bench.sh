#!/bin/sh
# Builds and runs the benchmarks: whole computations, their phases beside the machine's limits, and the kernels.
#
#   scripts/bench.sh [CMAKE_ARGUMENT...]
#
# Results: build/bench/flow.json, roofline.json and kernels.json with every measurement, and the tables in
# docs/performance.md, between its markers. Further arguments:
#   TARVO_BENCH_FLOW_ARGS  for the whole computations, e.g. --quick
#   TARVO_BENCH_ARGS       for the kernels, e.g. --benchmark_filter=Convolve
# The document is left alone where either of them is set, or a benchmark is missing.
set -eu
cd "$(dirname "$0")/.."

cmake --preset release -DTARVO_BUILD_BENCH=ON "$@"
cmake --build --preset release
out=build/bench
doc=docs/performance.md
mkdir -p $out
rm -f $out/kernels.md $out/flow.md $out/roofline.md

# shellcheck disable=SC2086
build/bin/tarvo_bench_flow --json $out/flow.json --markdown $out/flow.md ${TARVO_BENCH_FLOW_ARGS:-}
echo
build/bin/tarvo_bench_roofline --json $out/roofline.json --markdown $out/roofline.md
echo
if [ -x build/bin/tarvo_bench_kernels ]; then
  # shellcheck disable=SC2086
  build/bin/tarvo_bench_kernels --benchmark_repetitions=5 --benchmark_min_time=0.05 \
    --benchmark_enable_random_interleaving=true --benchmark_out=$out/kernels.json --benchmark_out_format=json \
    --markdown $out/kernels.md ${TARVO_BENCH_ARGS:-}
  # Whose machine it was is of no use to the comparison.
  sed '/^ *"host_name":/d' $out/kernels.json >$out/kernels.json.new
  mv $out/kernels.json.new $out/kernels.json
else
  echo "bench: no kernel benchmarks, since Google Benchmark is not installed"
fi
echo "bench: results in $out"

if [ -n "${TARVO_BENCH_ARGS:-}${TARVO_BENCH_FLOW_ARGS:-}" ]; then
  echo "bench: $doc left alone, since this was no standard run"
  exit 0
fi
if [ ! -f $out/kernels.md ]; then
  echo "bench: $doc left alone, since the kernel benchmarks are missing"
  exit 0
fi
{
  printf '\n### Whole computations\n\n'
  cat $out/flow.md
  printf '\n### Phases beside the limits of the machine\n\n'
  cat $out/roofline.md
  printf '\n### Kernels and routines\n\n'
  cat $out/kernels.md
  printf '\n'
} >$out/tables.md
awk -v tables=$out/tables.md '
  /^<!-- bench:end -->$/ { inside = 0; ends++ }
  !inside { print }
  /^<!-- bench:begin -->$/ {
    while ((getline line < tables) > 0) print line
    inside = 1
    begins++
  }
  END { exit !(begins == 1 && ends == 1) }
' $doc >$doc.new || {
  rm -f $doc.new
  echo "bench: $doc lacks its two markers" >&2
  exit 1
}
mv $doc.new $doc
echo "bench: tables in $doc"
