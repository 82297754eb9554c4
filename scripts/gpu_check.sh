#!/bin/bash
# Builds, tests and measures on a machine with a CUDA device. It needs nvcc, CMake and g++ there, no network and no
# root; what else is missing (Ninja, GoogleTest, the tool's libraries, Google Benchmark) is done without.
#
#   scripts/gpu_check.sh [build] [test] [bench] [memcheck]      (default: build test bench)
#
#   build     the release build with the CUDA device, for this machine's architecture, in build/gpu
#   test      every test on the CUDA device; among them, CudaEqualsCpu.* compare its results with the CPU's
#   bench     the benchmarks on the CUDA device
#   memcheck  the test programs of the device and kernel rooms under compute-sanitizer (takes long)
#
# GoogleTest's sources are taken from TARVO_GTEST_SOURCE, build/googletest or /usr/src/googletest where the package
# is not installed. Logs and results are written to the folder OUT (default build/gpu/results). The last lines are
# a table; exit status 1 if any line of it says FAILED.
set -uo pipefail
cd "$(dirname "$0")/.."
build=build/gpu
out=${OUT:-$build/results}
jobs=$(nproc)
mkdir -p "$build" "$out"
stages=" ${*:-build test bench} "
for stage in $stages; do
  case $stage in
    build | test | bench | memcheck) ;;
    *)
      echo "gpu: unknown stage '$stage' (build, test, bench and memcheck are known)" >&2
      exit 2
      ;;
  esac
done

rows=()
failed=0
row() { # row NAME RESULT: a line of the table
  rows+=("$(printf '%-28s %s' "$1" "$2")")
  case $2 in FAILED*) failed=1 ;; esac
}
finish() {
  echo
  echo "gpu: $(device_name)"
  printf '  %s\n' "${rows[@]}" | tee "$out/summary.txt"
  exit $failed
}
device_name() {
  nvidia-smi --query-gpu=name,driver_version,compute_cap --format=csv,noheader 2>/dev/null | head -n 1 ||
    echo "no nvidia-smi here"
}
wanted() { [[ $stages == *" $1 "* ]]; }
compiles() { # compiles LINE...: whether the C++ compiler accepts these lines
  printf '%s\n' "$@" | "${CXX:-g++}" -std=c++17 -fsyntax-only -x c++ - 2>/dev/null
}

if ! command -v nvcc >/dev/null 2>&1; then
  export PATH="$PATH:/usr/local/cuda/bin"
fi

configure() {
  local generator="Unix Makefiles" architecture gtest="" tools=OFF bench=OFF source
  command -v ninja >/dev/null 2>&1 && generator=Ninja
  architecture=$(nvidia-smi --query-gpu=compute_cap --format=csv,noheader 2>/dev/null | head -n 1 | tr -dc 0-9)
  compiles '#include <gtest/gtest.h>' ||
    for source in "${TARVO_GTEST_SOURCE:-}" build/googletest /usr/src/googletest; do
      if [ -n "$source" ] && [ -f "$source/CMakeLists.txt" ]; then
        gtest=$(cd "$source" && pwd)
        break
      fi
    done
  compiles '#include <CLI/CLI.hpp>' '#include <nlohmann/json.hpp>' '#include <png.h>' '#include <cstdio>' \
    '#include <jpeglib.h>' && tools=ON
  [ $tools = OFF ] && row tool "not built: its libraries are not installed"
  # The kernel benchmarks need Google Benchmark; bench/ leaves them out where it is missing.
  [ -f bench/CMakeLists.txt ] && bench=ON
  cmake -S . -B $build -G "$generator" -DCMAKE_BUILD_TYPE=Release -DTARVO_CUDA=ON \
    -DCMAKE_CUDA_ARCHITECTURES="${architecture:-90}" -DTARVO_GTEST_SOURCE="$gtest" \
    -DTARVO_BUILD_TOOLS=$tools -DTARVO_BUILD_BENCH=$bench 2>&1 | tee "$out/configure.log"
}

if wanted build; then
  SECONDS=0
  if configure && cmake --build $build -j "$jobs" >"$out/build.log" 2>&1; then
    row build "ok, $SECONDS s with $jobs jobs, $(grep -ci 'warning' "$out/build.log") lines with warnings"
  else
    grep -i -B 2 -A 12 -m 20 'error' "$out/build.log" 2>/dev/null || tail -n 40 "$out/build.log" 2>/dev/null
    row build "FAILED, see build.log"
    finish
  fi
fi

if wanted test; then
  SECONDS=0
  export TARVO_TEST_DEVICE=cuda
  side_by_side=$((jobs < 8 ? jobs : 8)) # each test is a process with a CUDA context of its own
  (cd $build && ctest -j "$side_by_side" --output-on-failure --no-tests=error) >"$out/tests.log" 2>&1
  code=$?
  unset TARVO_TEST_DEVICE
  grep -E '\*\*\*(Failed|Timeout|Exception|Not Run)|SEGFAULT|tests passed' "$out/tests.log"
  count() { grep -cE "$1" "$out/tests.log"; }
  summary="$(grep -E 'tests passed' "$out/tests.log" | tail -n 1), $(count '\*\*\*Skipped') skipped, $SECONDS s"
  if [ $code -eq 0 ]; then row "tests on the CUDA device" "$summary"; else row "tests on the CUDA device" "FAILED: $summary"; fi
  # The comparison must have run: skipped, it would prove nothing.
  equal=$(count '(^|[^A-Za-z])CudaEqualsCpu\.[A-Za-z0-9_/]+ \.+ +Passed')
  unequal=$(($(count '(^|[^A-Za-z])CudaEqualsCpu\.[A-Za-z0-9_/]+ \.') - equal))
  if [ "$equal" -gt 0 ] && [ "$unequal" -eq 0 ]; then
    row "CUDA equals CPU" "$equal comparisons passed"
  else
    row "CUDA equals CPU" "FAILED: $equal passed, $unequal failed or skipped"
  fi
fi

if wanted bench; then
  if [ -x $build/bin/tarvo_bench_kernels ]; then
    if $build/bin/tarvo_bench_kernels --benchmark_out="$out/kernels.json" --benchmark_out_format=json \
      2>&1 | tee "$out/kernels.txt"; then
      row "kernel benchmarks" "kernels.json"
    else
      row "kernel benchmarks" "FAILED, see kernels.txt"
    fi
  else
    row "kernel benchmarks" "not built"
  fi
  if [ -x $build/bin/tarvo_bench_flow ]; then
    if $build/bin/tarvo_bench_flow --json "$out/flow.json" 2>&1 | tee "$out/flow.txt"; then
      row "end-to-end benchmark" "flow.json"
    else
      row "end-to-end benchmark" "FAILED, see flow.txt"
    fi
  else
    row "end-to-end benchmark" "not built"
  fi
fi

if wanted memcheck; then
  for program in tarvo_device_tests tarvo_variational_tests; do
    SECONDS=0
    if TARVO_TEST_DEVICE=cuda compute-sanitizer --tool memcheck --error-exitcode 9 $build/bin/$program \
      --gtest_filter='-*DeathTest*' >"$out/memcheck_$program.log" 2>&1; then
      row "memcheck $program" "$(grep 'ERROR SUMMARY' "$out/memcheck_$program.log" | tail -n 1), $SECONDS s"
    else
      row "memcheck $program" "FAILED, see memcheck_$program.log"
    fi
  done
fi

finish
