#!/bin/bash
# The reference: doxygen reports no fault in the installed headers, and describes each of them. Ends
# with 77, skipped, without doxygen; with AHS_NO_SKIP in the environment that is a failure.
# Usage: reference_test.sh BUILD-DIRECTORY
set -euo pipefail
build=$1
if ! command -v doxygen >/dev/null; then
  echo "skipped: doxygen is not installed"
  [ -z "${AHS_NO_SKIP:-}" ] || exit 1
  exit 77
fi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

mkdir "$scratch/reference"
(cd "$scratch/reference" && doxygen "$build/packaging/Doxyfile") || {
  echo "FAILED: a header is not documented as it should be" >&2
  exit 1
}

cmake --install "$build" --component development --prefix "$scratch/usr" >"$scratch/install.log" || {
  cat "$scratch/install.log"
  exit 1
}
count=0
while read -r header; do
  # A class's page names the header to include, a header's own page is titled by it.
  grep -qF -e "#include &lt;$header&gt;" -e "<title>ahs: $header " "$scratch"/reference/*.html || {
    echo "FAILED: $header is not in the reference" >&2
    exit 1
  }
  count=$((count + 1))
done < <(cd "$scratch/usr/include" && find . -name '*.h' -o -name '*.hpp' | sed 's|^./||')
[ "$count" -gt 0 ] || { echo "FAILED: no header is installed" >&2; exit 1; }
echo "$count headers are in the reference"
