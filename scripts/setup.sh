#!/bin/sh
# Installs the Debian packages that building, testing and running tarvo needs, and only those that are missing.
#
#   scripts/setup.sh [--dev] [--python] [--quiet]
#
#   --python also what pip needs to build the Python package: headers of Python, virtual environments
#   --dev    also what contributors and CI use: clang-format 14, clang-tidy 14, valgrind, doxygen, lintian
#            and the tools for Debian packages, and what --python adds
#   --quiet  say nothing when everything is there, and hide apt's output unless it fails
#
# Exit status: 0 all packages are there, 1 they could not be installed, 2 wrong usage.
set -eu

build_packages="g++ cmake ninja-build make pkg-config libpng-dev zlib1g-dev libopenexr-dev libjpeg62-turbo-dev
  libcli11-dev nlohmann-json3-dev libxxhash-dev libgtest-dev libbenchmark-dev"
python_packages="python3-dev python3-venv python3-pip"
dev_packages="$python_packages clang-format-14 clang-tidy-14 valgrind doxygen ffmpeg"

quiet=no
packages=$build_packages
for argument in "$@"; do
  case $argument in
    --dev) packages="$build_packages $dev_packages" ;;
    --python) packages="$packages $python_packages" ;;
    --quiet) quiet=yes ;;
    -h | --help)
      sed -n '2,/^set -eu/s/^# \{0,1\}//p' "$0"
      exit 0
      ;;
    *)
      echo "setup: unknown argument '$argument' (--dev, --python and --quiet are known)" >&2
      exit 2
      ;;
  esac
done

say() {
  if [ "$quiet" = no ]; then echo "setup: $*"; fi
}

if ! command -v apt-get >/dev/null 2>&1 || ! command -v dpkg-query >/dev/null 2>&1; then
  {
    echo "setup: this system has no apt-get, so nothing was installed. tarvo needs the equivalents of these"
    echo "setup: Debian 12 packages; with all of them there, skip this step with 'make test SETUP=true':"
    printf '  %s\n' $packages
  } >&2
  exit 1
fi

missing=""
count=0
for package in $packages; do
  count=$((count + 1))
  state=$(dpkg-query -W -f '${db:Status-Status} ' "$package" 2>/dev/null || true)
  case " $state" in
    *" installed "*) ;;
    *) missing="$missing $package" ;;
  esac
done
if [ -z "$missing" ]; then
  say "all $count packages are installed"
  exit 0
fi

if [ "$(id -u)" -eq 0 ]; then
  as_root=""
elif command -v sudo >/dev/null 2>&1; then
  as_root="sudo"
else
  echo "setup: these packages are missing; install them as root:$missing" >&2
  echo "setup:   apt-get update && apt-get install --no-install-recommends$missing" >&2
  exit 1
fi

say "installing with apt-get${as_root:+ (through sudo)}:$missing"
log=$(mktemp)
trap 'rm -f "$log"' EXIT

# Runs apt-get with the given arguments; its output is shown, or kept and shown only on failure with --quiet.
apt() {
  set -- $as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300 "$@"
  if [ "$quiet" = no ]; then
    "$@" </dev/null
  else
    "$@" </dev/null >"$log" 2>&1 || {
      cat "$log" >&2
      return 1
    }
  fi
}

# A package list that cannot be refreshed whole (one source of several unreachable) may still do.
apt update || echo "setup: apt-get update failed; trying with the package lists that are there" >&2
if ! apt install -y --no-install-recommends $missing; then
  echo "setup: apt-get could not install:$missing" >&2
  exit 1
fi
say "done"
