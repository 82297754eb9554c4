#!/bin/sh
# End-point errors of the tool on pairs with known flow, with and without descriptor matches, as a Markdown table.
#
#   scripts/accuracy.sh FOLDER...     each with frame1.png, frame2.png and flow.flo; needs a built build/bin/tarvo
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

echo '| pair | EPE, with matches | outliers | EPE, without | outliers |'
echo '|---|---|---|---|---|'
for pair; do
  printf '| %s |' "$(basename "$pair")"
  "$tarvo" flow -q "$pair/frame1.png" "$pair/frame2.png" -o "$work/flow.flo"
  row "$pair"
  "$tarvo" flow -q "$pair/frame1.png" "$pair/frame2.png" -o "$work/flow.flo" --no-matches
  row "$pair"
  echo
done
