#!/bin/sh
# Checks that every part of the sources includes only the parts it may, and that only the device room knows CUDA.
#
#   tests/layers/check_layers.sh [FOLDER]     (default: the current folder, the root of the sources)
#
# Prints one line for each finding, FILE:LINE: what is wrong, and exits with status 1 if there is one.
#
# The rooms of src/ and what each may include besides <tarvo/...>, the C++ library and system headers. The chambers
# of a room are named with it, ROOM/CHAMBER; a room that may be included may be with all its chambers.
rooms='
core:
device:
variational:         device
variational/filter:  device variational
variational/pyramid: device variational variational/filter
variational/solver:  device variational
variational/flow:    device variational variational/filter variational/pyramid variational/solver
match:               device variational core
cpuflow:             device variational core
api:                 core device variational match cpuflow
'
set -eu
cd "${1:-.}"

files=$(mktemp)
trap 'rm -f "$files"' EXIT
for folder in include src tools bench tests; do
  if [ -d "$folder" ]; then
    # The install consumers are projects of their own, without a place among the rooms; the emulation stands for
    # the CUDA runtime.
    find "$folder" -type f ! -path 'tests/install/*' ! -path 'tests/emulation/*' \
      \( -name '*.h' -o -name '*.cpp' -o -name '*.cu' -o -name '*.cuh' -o -name '*.inc' \)
  fi
done | LC_ALL=C sort >"$files"
if [ ! -s "$files" ]; then
  echo "layers: no sources in $(pwd)" >&2
  exit 1
fi

LC_ALL=C awk -v rooms="$rooms" '
function finding(text) {
  printf "%s:%d: %s\n", file, line, text
  findings++
}

# The room or chamber of a path below src/, the first folder of any other.
function room_of(path,   parts, chamber) {
  split(path, parts, "/")
  chamber = parts[2] "/" parts[3]
  if (parts[1] != "src") return parts[1]
  return chamber in is_room ? chamber : parts[2]
}

# Whether this room may include a file of that one: named among its own, or the whole room of a chamber is, and
# the two are not chambers of one room.
function may_include(to,   outer, own) {
  if (to == room || (room, to) in allowed) return 1
  outer = to
  own = room
  sub(/\/.*/, "", outer)
  sub(/\/.*/, "", own)
  return outer != own && (room, outer) in allowed
}

function starts(text, with) { return substr(text, 1, length(with)) == with }

function check_private(target,   to) {
  to = room_of("src/" target)
  if (is_client) {
    finding("clients include <tarvo/...> only, not \"" target "\"")
  } else if (area == "include") {
    finding("public headers include <tarvo/...> only, not \"" target "\"")
  } else if (area == "src" && !may_include(to)) {
    finding("room " room " must not include room " to " (\"" target "\")")
  } else if (area != "tests" && room != "device" && starts(target, "device/cuda/") && file !~ /\.cuh?$/) {
    finding("device/cuda is known to the device room only (\"" target "\")")
  }
}

function check_include(text,   target, quoted) {
  target = text
  sub(/^[ \t]*#[ \t]*include[ \t]*/, "", target)
  quoted = substr(target, 1, 1) == "\""
  if (!quoted && substr(target, 1, 1) != "<") {
    finding("the name of an included file is written out")
    return
  }
  target = substr(target, 2)
  sub(/[">].*/, "", target)

  if (target ~ /^(cuda|cub\/|thrust\/|cooperative_groups|device_launch_parameters|vector_types\.h|cublas|curand|nvtx)/) {
    if (room != "device" && file !~ /\.cuh?$/) finding("CUDA headers belong in src/device and in .cuh files (" target ")")
    return
  }
  if (target ~ /(^|\/)\.\.?\//) {
    finding("no relative paths in an include (" target ")")
  } else if (starts(target, "tarvo/")) {
    if (quoted) finding("public headers are included as <" target ">")
    edges[file] = edges[file] " include/" target
  } else if (starts(target, "src/") || starts(target, "include/")) {
    finding("private headers are included as \"room/file.h\", public ones as <tarvo/file.h> (" target ")")
  } else if (room_of("src/" target) in is_room) {
    if (!quoted) finding("private headers are included in quotes (" target ")")
    check_private(target)
  } else if (!quoted) {
    return
  } else if (starts(target, "tests/") || starts(target, "support/") || starts(target, "reference/")) {
    if (area != "tests") finding("only tests include tests (\"" target "\")")
  } else if (area == "src") {
    finding("private headers are included as \"room/file.h\" (\"" target "\")")
  } else if (area == "include") {
    finding("public headers include <tarvo/...> only, not \"" target "\"")
  }
}

function check_backend(text) {
  if (text ~ /^[ \t]*#[ \t]*(if|ifdef|ifndef|elif)/ &&
      text ~ /__CUDACC__|__CUDA_ARCH__|__NVCC__|__CUDA__|TARVO_WITH_CUDA/) {
    finding("conditionals on the backend belong in src/device")
  }
  if (text ~ /__(global|shared|constant|device|host)__|__syncthreads|__shfl|(^|[^A-Za-z0-9_])(thread|block)(Idx|Dim)[^A-Za-z0-9_]|<<</) {
    finding("CUDA code belongs in src/device and in .cuh files")
  }
}

# Without comments and the contents of strings (the name of an included file stays).
function code_of(text,   at) {
  if (in_comment) {
    at = index(text, "*/")
    if (!at) return ""
    text = substr(text, at + 2)
    in_comment = 0
  }
  if (text !~ /^[ \t]*#[ \t]*include/) gsub(/"([^"\\]|\\.)*"/, "\"\"", text)
  while ((at = index(text, "/*")) && !(index(text, "//") && index(text, "//") < at)) {
    rest = substr(text, at + 2)
    text = substr(text, 1, at - 1)
    if (index(rest, "*/")) {
      text = text " " substr(rest, index(rest, "*/") + 2)
    } else {
      in_comment = 1
    }
  }
  sub(/\/\/.*/, "", text)
  return text
}

BEGIN {
  count = split(rooms, lines, "\n")
  for (i = 1; i <= count; i++) {
    if (lines[i] == "") continue
    words = split(lines[i], word, " ")
    sub(/:/, "", word[1])
    is_room[word[1]] = 1
    for (j = 2; j <= words; j++) allowed[word[1], word[j]] = 1
  }
}

# Each record of the input is the path of one source.
{
  file = $0
  split(file, parts, "/")
  area = parts[1]
  room = room_of(file)
  is_client = area == "tools" || area == "bench"
  backend_free = area != "tests" && room != "device" && file !~ /\.cuh?$/
  in_comment = 0
  line = 0
  if (area == "src" && !(room in is_room)) finding("src/" room " is no room; the rooms stand in tests/layers/check_layers.sh")
  while ((getline text < file) > 0) {
    line++
    text = code_of(text)
    if (text ~ /^[ \t]*#[ \t]*include/) check_include(text)
    else if (backend_free) check_backend(text)
  }
  close(file)
  sources++
  if (area == "include" && file ~ /\.h$/) is_public[file] = 1
}

# The umbrella header reaches every public header.
END {
  file = "include/tarvo/tarvo.h"
  line = 1
  todo = file
  reached[file] = 1
  while (todo != "") {
    count = split(todo, wave, " ")
    todo = ""
    for (i = 1; i <= count; i++) {
      targets = split(edges[wave[i]], target, " ")
      for (j = 1; j <= targets; j++) {
        if (!(target[j] in reached)) {
          reached[target[j]] = 1
          todo = todo " " target[j]
        }
      }
    }
  }
  for (header in is_public) if (!(header in reached)) finding("does not reach " header)
  if (findings) {
    printf "layers: %d findings in %d files\n", findings, sources
    exit 1
  }
  printf "layers: %d files are in order\n", sources
}
' "$files"
