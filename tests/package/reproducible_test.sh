#!/bin/bash
# The Debian packages, compiled anew in another place, time, locale, time zone and umask, are the same bytes.
# Usage: reproducible_test.sh PACKAGES-DIRECTORY
set -euo pipefail
packages=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

(
  umask 077
  export LC_ALL=C LANG=C TZ=Pacific/Kiritimati CCACHE_DISABLE=1
  "$(dirname "$0")/../../tools/deb.sh" "$scratch/another-place"
) >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
status=0
for package in "$scratch"/*/*.deb; do
  cmp "$packages/${package##*/}" "$package" || status=1
done
[ "$status" -eq 0 ] && echo "The packages are the same bytes when built again."
exit "$status"
