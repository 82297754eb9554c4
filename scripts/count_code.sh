#!/bin/bash
# Counts the lines of C++, CUDA and Python by folder, and the share of the tests, their support and the CUDA
# emulation included, in all of them.
#
#   scripts/count_code.sh [--most PERCENT]
#
#   --most PERCENT  exit with status 1 where the tests are a larger share
set -euo pipefail
cd "$(dirname "$0")/.."

most=
case "$#:${1:-}" in
  0:) ;;
  2:--most) most=$2 ;;
  *)
    echo "count: usage: scripts/count_code.sh [--most PERCENT]" >&2
    exit 2
    ;;
esac
if [[ -n $most && ! $most =~ ^[0-9]+(\.[0-9]+)?$ ]]; then
  echo "count: '$most' is no percentage" >&2
  exit 2
fi

lines_of() { # lines_of FOLDER
  find "$1" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.cu' -o -name '*.cuh' -o -name '*.py' \) -exec cat {} + |
    wc -l
}

code=0
tests=0
for folder in include src/* tools python bench examples tests/*; do
  [ -d "$folder" ] || continue
  lines=$(lines_of "$folder")
  [ "$lines" -gt 0 ] || continue
  printf '%7d  %s\n' "$lines" "$folder"
  case $folder in
    tests/*) tests=$((tests + lines)) ;;
    *) code=$((code + lines)) ;;
  esac
done
share=$(awk -v t=$tests -v c=$code 'BEGIN { printf "%.1f", 100 * t / (t + c) }')
echo "count: $tests lines of tests in $((tests + code)), $share %"
if [ -n "$most" ] && awk -v t=$tests -v c=$code -v most="$most" 'BEGIN { exit !(100 * t > most * (t + c)) }'; then
  echo "count: more than $most %: prune the tests, restated code first" >&2
  exit 1
fi
