#!/bin/sh
# Counts the instructions of one flow computation, in all, by phase and by function, as JSON for bench/compare.py.
# Unlike times, the counts hardly depend on what else the machine does.
#
#   scripts/instructions.sh [OUT.json [WIDTHxHEIGHT]]     (default: build/bench/instructions.json 160x120)
#
# Needs valgrind and a built build/bin/tarvo. One thread; the vector instructions are those that valgrind runs (version
# 3.19: x86-64-v3, also on a processor that has more), and they stand in the file. Reading and writing pictures and the
# library's start are not counted. About a minute.
set -eu
cd "$(dirname "$0")/.."
tarvo=build/bin/tarvo
out=${1:-build/bench/instructions.json}
size=${2:-160x120}
for program in valgrind callgrind_annotate; do
  command -v $program >/dev/null 2>&1 || {
    echo "instructions: $program is not installed (scripts/setup.sh --dev installs it)" >&2
    exit 1
  }
done
if [ ! -x $tarvo ]; then
  echo "instructions: $tarvo is not there; run 'make build' first" >&2
  exit 1
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$(dirname "$out")"

# Runs under valgrind, whose own messages are shown only on failure.
counted() {
  valgrind --log-file="$work/log" "$@" || {
    cat "$work/log" >&2
    exit 1
  }
}

$tarvo synth -q demo -o "$work" --size "$size"
counted --tool=none $tarvo info >"$work/info"
isa=$(sed -n 's/^vector instructions *//p' "$work/info")
echo "instructions: counting the flow of a $size pair ($isa)"
counted --tool=callgrind --callgrind-out-file="$work/profile" --toggle-collect='runFlowGPU(*' \
  $tarvo flow -q --device cpu --threads 1 "$work/frame1.png" "$work/frame2.png" -o "$work/out.flo"
callgrind_annotate --inclusive=yes --threshold=100 "$work/profile" >"$work/inclusive"
callgrind_annotate --inclusive=no --threshold=100 "$work/profile" >"$work/exclusive"

# Lines of these tables: COUNT (SHARE%)  FILE:FUNCTION(ARGUMENTS) [OBJECT]. Functions of one name are added up.
awk -v device="cpu (1 thread, $isa), $size, under $(valgrind --version)" '
  BEGIN {
    phases["runFlowGPU"] = "all"
    phases["gComputeHOG"] = "descriptors"
    phases["gComputeConfidence"] = "confidence"
    phases["HOGMatch_kernel"] = "search"
    phases["match::matchHome"] = "search back"
    phases["gCreateAndMatchHOG"] = "matching"
    phases["variational::PictureLevels::next"] = "pyramid of the pictures"
    phases["variational::MatchLevels::build"] = "pyramid of the matches"
    phases["variational::enlargeFlow"] = "enlarging the flow"
    phases["gWarpMotion"] = "warp"
    phases["variational::structureTensors"] = "tensors"
    phases["gDiffusivity"] = "diffusivity"
    phases["variational::assembleSystem"] = "assembly"
    phases["variational::solveSystem"] = "solver"
    phases["gNonLinearIteration"] = "fixed-point steps"
  }
  !/^ *[0-9,]+ \( *[0-9.]+%\)  / || /PROGRAM TOTALS/ { next }
  {
    count = $1
    gsub(/,/, "", count)
    name = $0
    sub(/^ *[0-9,]+ \( *[0-9.]+%\)  [^:]*:/, "", name)
    sub(/ \[[^\]]*\]$/, "", name)
    gsub(/\(anonymous namespace\)::/, "", name)
    sub(/^void /, "", name)
    sub(/\(.*/, "", name)
    gsub(/["\\]/, "", name)
    if (FILENAME ~ /inclusive$/) {
      if (name in phases) add("phase: " phases[name] ", " name " with all it calls", count)
    } else {
      add("function: " name, count)
    }
  }
  function add(row, count) {
    if (!(row in counts)) order[++rows] = row
    counts[row] += count
    if (row ~ /^phase: all,/) all = counts[row]
  }
  END {
    if (!all) exit 1
    printf "{\n  \"context\": {\"device\": \"%s\"},\n  \"instructions\": {", device
    for (i = 1; i <= rows; ++i) {
      row = order[i]
      if (row ~ /^function/ && counts[row] < 0.001 * all) continue
      printf "%s\n    \"%s\": %.0f", shown++ ? "," : "", row, counts[row]
    }
    print "\n  }\n}"
  }
' "$work/inclusive" "$work/exclusive" >"$work/counts.json" || {
  echo "instructions: callgrind's tables hold no runFlowGPU" >&2
  exit 1
}
mv "$work/counts.json" "$out"
awk -F '": ' '/^    "/ { name = $1; sub(/^ *"/, "", name); printf "%14.0f  %s\n", $2, name }' "$out"
echo "instructions: counts in $out"
