#!/bin/bash
# Every test named on the page of promises exists.
# Usage: promises_test.sh SOURCE-DIRECTORY BUILD-DIRECTORY
set -euo pipefail
page=$1/docs/promises.md
ctest --test-dir "$2" -N | sed -nE 's/^ *Test +#[0-9]+: //p' >"${TMPDIR:-/tmp}/promises.$$"
trap 'rm -f "${TMPDIR:-/tmp}/promises.$$"' EXIT

# The last column of the tables, up to the one of figures.
# The backquotes are Markdown.
# shellcheck disable=SC2016
mapfile -t names < <(sed '/^## Measured/,$d' "$page" | sed -nE 's/^\|.*\|(.*)\|$/\1/p' |
  grep -oE '`[A-Z][A-Za-z.]+`' | tr -d '`' | sort -u)
[ "${#names[@]}" -gt 20 ] || { echo "$page names hardly any test"; exit 1; }
missing=0
for name in "${names[@]}"; do
  pattern=${name//./\\.}
  # A name without a point is that of a suite or of a row.
  [[ $name == *.* ]] || pattern="(^|/)$name([./ ]|$)"
  grep -qE "$pattern" "${TMPDIR:-/tmp}/promises.$$" || { echo "no test is named $name"; missing=1; }
done
[ "$missing" -eq 0 ] && echo "${#names[@]} names of tests, each of which there is"
