#!/bin/bash
# Checks that the library computes the same bits with every instruction set: builds it for each level alone, runs
# both pipelines of build/bin/tarvo on a rendered pair with each library, and compares the flow files.
#
#   scripts/check_isa.sh      needs a built build/bin/tarvo; exit status 1 if a flow differs
set -euo pipefail
cd "$(dirname "$0")/.."
tarvo=$PWD/build/bin/tarvo
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

flags=$(grep -m 1 '^flags' /proc/cpuinfo || true)
# Whether this processor runs the level $1.
runs() {
  case $1 in
    v3) [[ $flags == *avx2* && $flags == *fma* && $flags == *bmi2* ]] ;;
    v4) [[ $flags == *avx512vl* && $flags == *avx512dq* && $flags == *avx512bw* ]] ;;
    *) true ;;
  esac
}

# The flows of the rendered pair with the libraries found first in folder $1, as $work/$2.device.flo and .hybrid.flo.
compute() {
  for pipeline in device hybrid; do
    LD_LIBRARY_PATH=$1 "$tarvo" flow -q "$work/frame1.png" "$work/frame2.png" -o "$work/$2.$pipeline.flo" \
      --pipeline $pipeline --sigma 0.7 --backward "$work/$2.$pipeline.back.flo"
  done
}

"$tarvo" synth -q demo -o "$work" --size 200x150
compute "$PWD/build/lib" dispatch
levels="dispatch"
for level in baseline v3 v4; do
  if ! runs $level; then
    echo "isa: $level skipped, this processor does not have it"
    continue
  fi
  build=build/isa-$level
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARVO_CUDA=OFF -DTARVO_ISA=$level \
    -DTARVO_BUILD_TESTS=OFF -DTARVO_BUILD_TOOLS=OFF >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
  cmake --build "$build" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
  LD_LIBRARY_PATH=$PWD/$build/lib "$tarvo" info | grep '^vector instructions'
  compute "$PWD/$build/lib" $level
  for file in device device.back hybrid hybrid.back; do
    if ! cmp "$work/dispatch.$file.flo" "$work/$level.$file.flo"; then
      echo "isa: $level gives another flow ($file)" >&2
      exit 1
    fi
  done
  levels="$levels, $level"
done
echo "isa: the same flows with $levels"
