#!/bin/sh
# A clip from start to end: renders a moving scene, computes its flow in both directions, shows both as a film and
# compares the flow with the exact one.
#
#   scripts/demo_video.sh [FOLDER]      (default: build/demo; needs a built build/bin/tarvo, and ffmpeg)
#
# FOLDER/clip/   frames/ and truth/, the exact flows and what is hidden
# FOLDER/video/  computed flows, backward/, occlusion/
# FOLDER/        demo.mp4: frame, flow, warp error and occlusion; demo_video.png, one picture of it
set -eu
cd "$(dirname "$0")/.."

tarvo=build/bin/tarvo
out=${1:-build/demo}
if [ ! -x "$tarvo" ]; then
  echo "demo: $tarvo is not there; run 'make build' first" >&2
  exit 1
fi
if ! command -v ffmpeg >/dev/null; then
  echo "demo: ffmpeg is not there (Debian, Ubuntu: apt install ffmpeg)" >&2
  exit 1
fi
mkdir -p "$out"

echo "demo: rendering 32 frames into $out/clip"
"$tarvo" synth demo -o "$out/clip" --size 320x240 --frames 32

echo "demo: computing the flow in both directions, and the film"
"$tarvo" sequence "$out/clip/frames" -o "$out/video" --redo --direction both --occlusion --preset accurate --json \
  --color "$out/demo.mp4" --panel frame,color,error,occlusion --fps 16 >"$out/video.jsonl"

figures=$(dirname "$tarvo")/tarvo_demo_figures
"$figures" "$out/clip/frames" "$out/video" "$out/clip/truth"
sed -n 's/.*"summary":{"pairs":\([0-9]*\).*"done":\([0-9]*\).*"seconds":\([0-9.]*\).*/\2 \3/p' "$out/video.jsonl" |
  awk '$1 > 0 { printf "pairs per second           %7.2f      (both directions, occlusion)\n", $1 / $2 }'

ffmpeg -v error -nostdin -y -i "file:$out/demo.mp4" -vf 'select=eq(n\,12)' -frames:v 1 "file:$out/demo_video.png"
echo "demo: results"
for file in clip/frames clip/truth video demo.mp4 demo_video.png; do
  echo "  $out/$file"
done
