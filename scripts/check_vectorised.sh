#!/bin/bash
# Checks that g++ turns the inner loops of the CPU device into vector instructions: those that are named in
# scripts/vectorised_loops.txt, and those whose line in src/ ends with '// vectorised'.
#
#   scripts/check_vectorised.sh                 check; exit status 1 if a loop is not vectorised
#   scripts/check_vectorised.sh --list UNIT...  print the functions of these units whose loops are, or are not
#
# The units are compiled as in a release build (build/lint, without CUDA), with the vectoriser's report on. In a
# function that is built for several instruction sets, the loop must use 32-byte vectors at level x86-64-v3.
set -euo pipefail
cd "$(dirname "$0")/.."
list=scripts/vectorised_loops.txt
build=build/lint

mkdir -p build
cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARVO_CUDA=OFF -DTARVO_BUILD_TESTS=OFF \
  -DTARVO_WERROR=ON >build/lint.log 2>&1 || {
  cat build/lint.log >&2
  exit 1
}
if ! grep -q '^CMAKE_CXX_COMPILER_ID:.*GNU\|"GNU"' $build/CMakeFiles/*/CMakeCXXCompiler.cmake; then
  echo "vectorised: skipped, the report is that of g++ and another compiler is in use"
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Compiles the unit $1 with the vectoriser's report and leaves it as a table in $work, UNIT.report:
#   function  CLONE  NAME                     for every function
#   loop      CLONE  NAME  FILE:LINE  BYTES   for every vectorised loop
report() {
  local unit=$1 name=${1//\//_} command
  command=$(sed -n -e 's/^  "command": "\(.*\)",$/\1/p' -e 's/^  "file": "\(.*\)",\{0,1\}$/\1/p' \
    $build/compile_commands.json | grep -B 1 -x -F "$PWD/$unit" | head -n 1 | sed 's/\\\(.\)/\1/g')
  if [ -z "$command" ]; then
    echo "vectorised: $unit is not compiled by the build" >&2
    return 1
  fi
  command=$(sed 's/ -o [^ ]*/ -o \/dev\/null/' <<<"$command")
  (cd $build && eval "$command -fdump-tree-vect-optimized=$work/$name.dump") || return 1
  # A clone's printed name is mangled, so that all names are taken from the assembler's and demangled.
  awk -v root="$PWD/" '
    /^;; Function / {
      name = $0
      sub(/, funcdef_no=.*/, "", name)
      sub(/^.* \(/, "", name)
      clone = ""
      if (match(name, /\.(arch_x86_64_v[0-9]+|default)/)) clone = substr(name, RSTART + 1, RLENGTH - 1)
      sub(/\..*/, "", name)
      print "function\t" clone "\t" name
    }
    /: optimized: .*loop vectorized using [0-9]+ byte vectors/ {
      split($1, place, ":")
      sub(root, "", place[1])
      match($0, /using [0-9]+ byte/)
      print "loop\t" clone "\t" name "\t" place[1] ":" place[2] "\t" substr($0, RSTART + 6, RLENGTH - 11)
    }
  ' "$work/$name.dump" | c++filt -p >"$work/$name.report"
  rm -f "$work/$name.dump"
}

if [ "${1:-}" = --list ]; then
  shift
  for unit in "$@"; do
    report "$unit"
    name=${unit//\//_}
    awk -F '\t' -v unit="$unit" '
      { seen[$3] = 1 }
      $1 == "loop" && $2 != "default" && $2 !~ /v4$/ && $5 > bytes[$3] { bytes[$3] = $5 }
      END {
        for (name in seen) {
          if (bytes[name]) print unit ":" name "    # " bytes[name] " bytes"
          else print "# not vectorised: " unit ":" name
        }
      }
    ' "$work/$name.report" | LC_ALL=C sort
  done
  exit 0
fi

grep -v -e '^#' -e '^[[:space:]]*$' $list | sed 's/[[:space:]]*#.*//; s/[[:space:]]*$//' >"$work/expected" || true
grep -rn --include='*.cpp' --include='*.h' '// vectorised$' src | cut -d : -f 1,2 >"$work/marks" || true
# A mark in a header is checked against the reports of all units that are compiled here.
{
  cut -d : -f 1 "$work/expected"
  cut -d : -f 1 "$work/marks" | grep '\.cpp$' || true
} | LC_ALL=C sort -u >"$work/units"

export -f report
export work build
if ! xargs -r -n 1 -P "${JOBS:-$(nproc)}" bash -c 'report "$1"' report <"$work/units"; then
  echo "vectorised: a unit could not be compiled" >&2
  exit 1
fi
touch "$work/none.report"

failures=0
while IFS= read -r entry; do
  unit=${entry%%:*}
  function=${entry#*:}
  name=${unit//\//_}
  verdict=$(awk -F '\t' -v wanted="$function" '
    function names(text,   at, rest, before, after) {
      for (rest = text; (at = index(rest, wanted)); rest = substr(rest, at + 1)) {
        before = at > 1 ? substr(rest, at - 1, 1) : " "
        after = substr(rest, at + length(wanted), 1)
        if (before !~ /[A-Za-z0-9_]/ && after !~ /[A-Za-z0-9_]/) return 1
      }
      return 0
    }
    !names($3) { next }
    $1 == "function" { known = 1; if ($2 ~ /v3$/) cloned = 1 }
    $1 == "loop" { if ($2 ~ /v3$/ && $5 >= 32) wide = 1; if ($2 == "") plain = 1 }
    END { print !known ? "no such function" : (cloned ? wide : plain) ? "ok" : "not vectorised" }
  ' "$work/$name.report")
  if [ "$verdict" != ok ]; then
    echo "vectorised: $entry: $verdict"
    failures=$((failures + 1))
  fi
done <"$work/expected"

while IFS= read -r mark; do
  if ! cut -s -f 4 "$work"/*.report | grep -xF "$mark" >"$work/found"; then
    echo "vectorised: $mark: not vectorised"
    failures=$((failures + 1))
  fi
done <"$work/marks"

total=$(cat "$work/expected" "$work/marks" | wc -l)
echo "vectorised: $((total - failures)) of $total loops are"
[ "$failures" -eq 0 ]
