#!/bin/sh
# Checks that the shared library exports what the public headers declare and nothing else.
#
#   tests/symbols/check_symbols.sh LIBRARY HEADER_FOLDER
#
# Every part of an exported name (its namespaces, classes and last name, without template arguments) must be a word of
# the headers' code, and every function that they mark TARVO_API must be exported. Prints each finding; exit status 1 if
# there is one.
set -eu
library=$1
headers=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat "$headers"/*.h | sed 's://.*::; /^#/d' >"$work/code"
grep -o '[A-Za-z_][A-Za-z0-9_]*' "$work/code" | LC_ALL=C sort -u >"$work/words"
# The last word before the first bracket that follows a mark.
tr '\n' ' ' <"$work/code" | grep -o 'TARVO_API [^(;{]*(' | sed -n 's/.*[ *&]\([A-Za-z0-9_]\{1,\}\)($/\1/p' |
  LC_ALL=C sort -u >"$work/marked"
nm -D -C --defined-only "$library" | sed 's/^[0-9a-f]* *//' >"$work/exported"
if [ ! -s "$work/marked" ] || [ ! -s "$work/exported" ]; then
  echo "symbols: no exported names in $library, or no marked ones in $headers" >&2
  exit 1
fi

LC_ALL=C awk -v words="$work/words" -v marked="$work/marked" '
# The name alone: without what it is the table of, arguments, template arguments and result.
function name_of(text) {
  sub(/^(typeinfo name|typeinfo|vtable|VTT|guard variable) for /, "", text)
  gsub(/\[abi:[a-z0-9]*\]/, "", text)
  gsub(/operator *[^A-Za-z_ ]+$|operator *[^A-Za-z_ ]+\(.*/, "operator", text)
  while (gsub(/<[^<>]*>/, "", text)) { }
  sub(/\(.*/, "", text)
  sub(/.* /, "", text)
  gsub(/~/, "", text)
  return text
}
BEGIN {
  while ((getline line < words) > 0) known[line] = 1
  while ((getline line < marked) > 0) missing[line] = 1
}
{
  symbol = substr($0, 3)
  count = split(name_of(symbol), parts, "::")
  for (i = 1; i <= count; i++) {
    if (!(parts[i] in known) || parts[1] == "std") {
      printf "symbols: exported, but in no public header: %s\n", symbol
      findings++
      break
    }
  }
  delete missing[parts[count]]
}
END {
  for (name in missing) {
    printf "symbols: in the public headers, but not exported: %s\n", name
    findings++
  }
  printf "symbols: %d exported, %d findings\n", NR, findings
  exit findings > 0
}' "$work/exported"
