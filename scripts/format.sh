#!/bin/sh
# Formats the sources with clang-format 14, the version that .clang-format is written for.
#
#   scripts/format.sh [--check]
#
#   --check  change nothing; name the files and lines that are not formatted and exit with status 1
set -eu
cd "$(dirname "$0")/.."

case ${1:-} in
  "") mode="-i" ;;
  --check) mode="--dry-run --Werror" ;;
  *)
    echo "format: unknown argument '$1' (--check is known)" >&2
    exit 2
    ;;
esac

clang_format=
for candidate in clang-format-14 clang-format; do
  if "$candidate" --version 2>/dev/null | grep -q 'version 14\.'; then
    clang_format=$candidate
    break
  fi
done
if [ -z "$clang_format" ]; then
  echo "format: clang-format 14 is not installed (scripts/setup.sh --dev installs it); other versions format differently" >&2
  exit 1
fi

folders=
for folder in include src tools tests bench; do
  if [ -d "$folder" ]; then folders="$folders $folder"; fi
done
list=$(mktemp)
trap 'rm -f "$list"' EXIT
find $folders -type f \( -name '*.h' -o -name '*.cpp' -o -name '*.cu' -o -name '*.cuh' \) | LC_ALL=C sort >"$list"
count=$(wc -l <"$list")
if ! xargs -n 20 "$clang_format" $mode --style=file <"$list"; then
  echo "format: not formatted; 'make format' does it" >&2
  exit 1
fi
echo "format: $count files are formatted"
