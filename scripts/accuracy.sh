#!/bin/sh
# End-point errors of the tool on pairs with known flow, as a Markdown table: with and without descriptor matches, or
# by both pipelines.
#
#   scripts/accuracy.sh [--pipelines] FOLDER...     each with frame1.png, frame2.png and flow.flo
#
# Needs a built build/bin/tarvo.
set -eu
tarvo=$(dirname "$0")/../build/bin/tarvo
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The figure NAME of the JSON report FILE.
figure() { sed -n "s/^ *\"$1\": *\(-\{0,1\}[0-9.e+-]*\),\{0,1\}\$/\1/p" "$2" | head -n 1; }
row() {
  "$tarvo" eval --json "$work/flow.flo" "$1/flow.flo" >"$work/eval.json"
  awk -v e="$(figure epe "$work/eval.json")" -v o="$(figure outlier_share "$work/eval.json")" \
    'BEGIN { printf " %.3f | %.1f %% |", e, 100 * o }'
}

# The flow of pair $1 with further options, in flow.flo.
flow() {
  pair=$1
  shift
  "$tarvo" flow -q "$pair/frame1.png" "$pair/frame2.png" -o "$work/flow.flo" "$@"
}

if [ "${1:-}" = --pipelines ]; then
  shift
  echo '| pair | EPE, device | outliers | EPE, hybrid | outliers | apart: mean | median | 99 % |'
  echo '|---|---|---|---|---|---|---|---|'
  for pair; do
    printf '| %s |' "$(basename "$pair")"
    flow "$pair"
    row "$pair"
    mv "$work/flow.flo" "$work/device.flo"
    flow "$pair" --pipeline hybrid
    row "$pair"
    "$tarvo" eval --json "$work/flow.flo" "$work/device.flo" >"$work/eval.json"
    printf ' %.3f | %.3f | %.2f |\n' "$(figure epe "$work/eval.json")" "$(figure epe_median "$work/eval.json")" \
      "$(figure epe_99 "$work/eval.json")"
  done
  exit 0
fi
echo '| pair | EPE, with matches | outliers | EPE, without | outliers |'
echo '|---|---|---|---|---|'
for pair; do
  printf '| %s |' "$(basename "$pair")"
  flow "$pair"
  row "$pair"
  flow "$pair" --no-matches
  row "$pair"
  echo
done
