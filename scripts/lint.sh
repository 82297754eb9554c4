#!/bin/bash
# Runs clang-tidy 14 (checks: .clang-tidy) over src/ and tools/, and compiles every public header on its own.
#
#   scripts/lint.sh [FILE.cpp...]      (default: all of src/ and tools/)
#
# The compile commands come from a build folder of its own, build/lint, without CUDA.
# JOBS=n checks n files side by side.
set -euo pipefail
cd "$(dirname "$0")/.."

clang_tidy=
for candidate in clang-tidy-14 clang-tidy; do
  if "$candidate" --version 2>/dev/null | grep -q 'version 14\.'; then
    clang_tidy=$candidate
    break
  fi
done
if [ -z "$clang_tidy" ]; then
  echo "lint: clang-tidy 14 is not installed (scripts/setup.sh --dev installs it)" >&2
  exit 1
fi

mkdir -p build
cmake -S . -B build/lint -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARVO_CUDA=OFF -DTARVO_BUILD_TESTS=OFF \
  -DTARVO_WERROR=ON >build/lint.log 2>&1 || {
  cat build/lint.log >&2
  exit 1
}

status=0
if [ $# -gt 0 ]; then
  files=("$@")
else
  echo "lint: compiling every public header on its own"
  cmake --build build/lint --target all_verify_interface_header_sets -- --quiet || status=1
  # What this build compiles: files that only nvcc understands are not among it.
  mapfile -t files < <(sed -n "s|^  \"file\": \"$PWD/\(.*\.cpp\)\".*|\1|p" build/lint/compile_commands.json |
    grep -E '^(src|tools)/' | LC_ALL=C sort -u)
fi

echo "lint: clang-tidy on ${#files[@]} files"
# Its counts of suppressed warnings go to standard error and are of no use.
printf '%s\0' "${files[@]}" |
  xargs -0 -n 1 -P "${JOBS:-$(nproc)}" "$clang_tidy" -p build/lint --quiet 2>build/lint.stderr || status=1
if [ $status -ne 0 ]; then
  grep -v -E '^[0-9]+ warnings?( and [0-9]+ errors?)? (generated|treated)|^Suppressed ' build/lint.stderr >&2 || true
  echo "lint: failed" >&2
  exit 1
fi
echo "lint: clean"
