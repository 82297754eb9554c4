#!/bin/sh
# The main job, start to end: renders a scene with known motion, computes its flow and compares the two.
#
#   scripts/demo.sh [FOLDER]      (default: build/demo; needs a built build/bin/tarvo)
#
# FOLDER/scene/  frame1.png, frame2.png and the exact flow, flow.flo
# FOLDER/        flow.flo (computed), flow.png (computed, in colours), truth.png (exact, in the same colours),
#                matches.csv (descriptor matches), without_matches.flo (computed without them)
set -eu
cd "$(dirname "$0")/.."

tarvo=build/bin/tarvo
out=${1:-build/demo}
if [ ! -x "$tarvo" ]; then
  echo "demo: $tarvo is not there; run 'make build' first" >&2
  exit 1
fi
mkdir -p "$out/scene"

echo "demo: rendering a scene with known motion into $out/scene"
"$tarvo" synth demo -o "$out/scene"

echo "demo: computing the flow from frame1.png to frame2.png"
"$tarvo" flow "$out/scene/frame1.png" "$out/scene/frame2.png" -o "$out/flow.flo" --matches "$out/matches.csv"
"$tarvo" color "$out/flow.flo" -o "$out/flow.png" --max-motion 25 --legend
"$tarvo" color "$out/scene/flow.flo" -o "$out/truth.png" --max-motion 25 --legend

echo "demo: comparing it with the exact flow"
"$tarvo" eval "$out/flow.flo" "$out/scene/flow.flo"

echo "demo: the same without descriptor matches, which loses the small object that moves 60 pixels"
"$tarvo" flow -q "$out/scene/frame1.png" "$out/scene/frame2.png" -o "$out/without_matches.flo" --no-matches
"$tarvo" eval "$out/without_matches.flo" "$out/scene/flow.flo"

echo "demo: results"
for file in scene/frame1.png scene/frame2.png scene/flow.flo flow.flo matches.csv flow.png truth.png without_matches.flo; do
  echo "  $out/$file"
done
